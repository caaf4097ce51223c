#include "qmutils/concurrency/QMEventMulticasterC.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/concurrency/QMWindowsKeyboardEventC.h"
#include "qmutils/concurrency/QMWindowsKeyboardEventMultiCasterC.h"
#include "qmutils/foundation/PointerText.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"

namespace {

using Multicaster = QMWindowsKeyboardEventMultiCasterC;

/// Writes its name down, then does what it was told to.
class ListenerC : public IQMWindowsKeyboardEventListener {
 public:
  ListenerC(char name, std::string& notified, std::function<void()> act = nullptr)
      : name_(name), notified_(notified), act_(std::move(act)) {}
  void OnEvent(IQMEventBase&) override {
    notified_ += name_;
    if (act_) act_();
  }

 private:
  const char name_;
  std::string& notified_;
  const std::function<void()> act_;
};

TEST(QMEventMulticasterC, DeliversInOrderAndRegistersOnce) {
  qmtest::LogCapture log(19);
  std::string notified;
  ListenerC a('a', notified), b('b', notified), c('c', notified), stranger('x', notified);
  QMObjectEventC event;
  Multicaster multicaster;
  EXPECT_EQ(multicaster.FireEvent(event), QMErrors::NoError);
  for (ListenerC* listener : {&a, &b, &c, &a}) {
    EXPECT_EQ(multicaster.AddListener(*listener), QMErrors::NoError);
  }
  EXPECT_EQ(log.text(),
            " WARNING: QMEventMulticasterC::AddListener(): Ignoring attempt to create duplicate "
            "entry for:" +
                std::string(qm::PointerText(&a).view()) + "\n");
  EXPECT_EQ(log.lines()[0].level, 18u);
  EXPECT_EQ(multicaster.GetListenerCount(), 3u);
  EXPECT_EQ(multicaster.RemoveListener(stranger), QMErrors::NoError);
  EXPECT_EQ(multicaster.FireEvent(event), QMErrors::NoError);
  EXPECT_EQ(std::exchange(notified, ""), "abc");
  multicaster.RemoveListener(b);
  multicaster.AddListener(b);
  multicaster.FireEvent(event);
  EXPECT_EQ(std::exchange(notified, ""), "acb") << "who comes back is the last";
  unsigned left = 3;
  for (ListenerC* listener : {&c, &b, &a}) {  // from the middle, and the one behind it
    multicaster.RemoveListener(*listener);
    EXPECT_EQ(multicaster.GetListenerCount(), --left);
  }
  multicaster.FireEvent(event);
  EXPECT_EQ(notified, "");
}

TEST(QMEventMulticasterC, ListenersChangeTheListWhileTheyAreNotified) {
  struct Fixture {
    std::string notified;
    Multicaster multicaster;
    QMObjectEventC event;
    std::function<void()> act;
    bool acted = false;
    ListenerC a{'a', notified}, b{'b', notified, [this] {
                                    if (!std::exchange(acted, true)) act();
                                  }};
    ListenerC c{'c', notified}, d{'d', notified};
    void add(ListenerC& listener) { multicaster.AddListener(listener); }
    void remove(ListenerC& listener) { multicaster.RemoveListener(listener); }
    void fire() { multicaster.FireEvent(event); }
  };
  const struct {
    const char* what;
    void (*act)(Fixture&);
    const char* first;
    const char* second;
  } kCases[] = {
      {"removes itself", [](Fixture& f) { f.remove(f.b); }, "ab", "ac"},
      {"comes back", [](Fixture& f) { f.remove(f.b), f.add(f.b); }, "ab", "acb"},
      {"removes one before", [](Fixture& f) { f.remove(f.a); }, "abc", "bc"},
      {"removes one behind", [](Fixture& f) { f.remove(f.c); }, "ab", "ab"},
      {"removes all", [](Fixture& f) { f.remove(f.c), f.remove(f.b), f.remove(f.a); }, "ab", ""},
      {"adds one", [](Fixture& f) { f.add(f.d); }, "abcd", "abcd"},
      {"removes itself and adds one", [](Fixture& f) { f.remove(f.b), f.add(f.d); }, "ab", "acd"},
      {"fires", [](Fixture& f) { f.fire(); }, "ababcc", "abc"},
      {"fires and is removed in there",
       [](Fixture& f) { f.remove(f.b), f.fire(), f.remove(f.a), f.fire(); }, "abacc", "c"},
  };
  for (const auto& c : kCases) {
    Fixture f;
    f.act = [&] { c.act(f); };
    f.add(f.a), f.add(f.b), f.add(f.c);
    f.fire();
    EXPECT_EQ(std::exchange(f.notified, ""), c.first) << c.what;
    f.fire();
    EXPECT_EQ(f.notified, c.second) << c.what;
  }
}

TEST(QMEventMulticasterC, WhatIsRemovedTakesNoMemory) {
  std::string notified;
  notified.reserve(2000);
  Multicaster multicaster;
  QMObjectEventC event;
  ListenerC guest('g', notified);
  ListenerC host('h', notified, [&] {
    for (int i = 0; i < 3; ++i) multicaster.AddListener(guest), multicaster.RemoveListener(guest);
  });
  multicaster.AddListener(host);
  multicaster.FireEvent(event);
  const qmtest::MemoryPeak whileDelivering;
  for (int i = 0; i < 1000; ++i) multicaster.FireEvent(event);
  EXPECT_LT(whileDelivering.bytes(), 1000u);
  const qmtest::MemoryPeak otherwise;
  for (int i = 0; i < 1000; ++i) multicaster.AddListener(guest), multicaster.RemoveListener(guest);
  EXPECT_LT(otherwise.bytes(), 1000u);

  qmtest::LogCapture log(1);
  {
    qmtest::FailingAllocation next(1);
    EXPECT_EQ(multicaster.AddListener(guest), QMErrors::MemoryAllocationFailed);
  }
  EXPECT_EQ(log.text(),
            " WARNING: QMEventMulticasterC::AddListener(): Failed allocating: "
            "EventListenerEntryC\n");
  EXPECT_EQ(multicaster.GetListenerCount(), 1u);
}

// Once it is removed by another thread, a listener is not called any more.
TEST(QMEventMulticasterC, RemovingWaitsForTheDelivery) {
  Multicaster multicaster;
  std::atomic<bool> stop{false};
  std::vector<std::thread> firing;
  for (int i = 0; i < 2; ++i) {
    firing.emplace_back([&] {
      QMObjectEventC event;
      while (!stop) multicaster.FireEvent(event);
    });
  }
  for (int i = 0; i < 200; ++i) {
    std::string notified;
    std::atomic<int> calls{0};
    auto listener = std::make_unique<ListenerC>('a', notified, [&calls] { ++calls; });
    multicaster.AddListener(*listener);
    while (i % 2 == 0 && calls < 3) std::this_thread::yield();
    multicaster.RemoveListener(*listener);
    listener.reset();
  }
  stop = true;
  for (std::thread& thread : firing) thread.join();
  EXPECT_EQ(multicaster.GetListenerCount(), 0u);
}

// Its listeners may be gone before it.
TEST(QMEventMulticasterC, AStaticOneIsSafeAtExit) {
  EXPECT_EXIT(
      {
        static std::string notified;
        static Multicaster multicaster;
        static ListenerC listener('a', notified);
        multicaster.AddListener(listener);
        std::exit(multicaster.GetListenerCount() == 1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(QMWindowsKeyboardEventC, IsACopyOfTheMessageAndKnowsItsClass) {
  MSG message{reinterpret_cast<HWND>(std::uintptr_t{7}), WM_KEYDOWN, 65, -1, 1234, {5, 6}};
  const QMWindowsKeyboardEventC event(message), byPointer(&message);
  message = {};
  for (const MSG& copy : {MSG(event), MSG(byPointer)}) {
    EXPECT_TRUE(copy.hwnd != nullptr && copy.message == WM_KEYDOWN && copy.wParam == 65 &&
                copy.lParam == -1 && copy.time == 1234 && copy.pt.x == 5 && copy.pt.y == 6);
  }
  const MSG unset = QMWindowsKeyboardEventC(static_cast<MSG*>(nullptr));
  EXPECT_TRUE(unset.hwnd == nullptr && unset.message == 0 && unset.time == 0 && unset.pt.x == 0);

  EXPECT_STREQ(event.GetRuntimeClass()->m_pClassName, "QMWindowsKeyboardEventC");
  EXPECT_EQ(event.GetRuntimeClass()->m_nObjectSize, sizeof event);
  for (const CRuntimeClass* base : {&QMWindowsKeyboardEventC::classQMWindowsKeyboardEventC,
                                    &QMObjectEventC::classQMObjectEventC, &CObject::classCObject}) {
    EXPECT_TRUE(event.IsKindOf(base)) << base->m_pClassName;
  }
  EXPECT_FALSE(QMObjectEventC().IsKindOf(event.GetRuntimeClass()));
  EXPECT_FALSE(event.IsKindOf(nullptr));
}

}  // namespace
