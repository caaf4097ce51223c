#include "qmutils/platform/named_objects.h"

#include <pthread.h>

#include <climits>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <new>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/named_objects_memory.h"
#include "qmutils/platform/posix/named_objects_mutex.h"
#include "qmutils/platform/posix/named_objects_users.h"
#include "qmutils/platform/posix/named_objects_words.h"
#include "qmutils/platform/thread.h"

namespace qm::platform {
namespace posix {
namespace {

/// What lies in the event's object. The word: bit 0 signalled, bit 1 somebody may be asleep.
struct EventBlock {
  std::uint32_t magic;
  SharedWord word;
};
constexpr std::uint32_t kEventMagic = 0x534D5645u;
constexpr std::uint32_t kSignalled = 1;
constexpr std::uint32_t kEventSleepers = 2;

/// What lies in the doorbells' object: one page. A word: bit 0 somebody may be asleep, the rest
/// counts the rings.
struct DoorbellBlock {
  static constexpr std::size_t kBells = 1023;
  std::uint32_t magic;
  SharedWord bells[kBells];
};
constexpr std::uint32_t kDoorbellMagic = 0x534D4244u;
constexpr std::uint32_t kBellSleepers = 1;
constexpr std::uint32_t kOneRing = 2;

// All zero is a valid state of both, so a process that dies between making and marking one leaves
// nothing that another could not use.
constexpr SharedSectionKind kEventKind = {sizeof(EventBlock), 0, kEventMagic};
constexpr SharedSectionKind kDoorbellKind = {sizeof(DoorbellBlock), 0, kDoorbellMagic};

/// The end of the process waits this long for an opening or closing: milliseconds.
constexpr int kAttemptsAtExit = 100;

/// Closing waits this long for others that join or leave.
constexpr DWORD kGateMilliseconds = 2000;

/// One object of a group besides the mutex.
struct Part {
  ObjectName name;
  ObjectIdentity identity;
  Mapping mapping;

  bool isOpen() const noexcept { return mapping.address() != nullptr; }
  bool open(std::size_t size, bool* fresh) noexcept {
    return openAndMap(name, size, &mapping, &identity, fresh);
  }
  void remove(const SharedSectionKind& kind) noexcept {
    if (isOpen()) removeIfSame(name, identity, &kind);
  }
};

/// What a SharedObjects holds. All groups of the process stand in one list, for the copy of the
/// process that has to drop them.
struct Group {
  // Being opened or closed; kAtExit for good once the process ends.
  enum Change : int { kUnchanging, kChanging, kAtExit };

  SharedObjectNames plainNames;
  SharedSectionKind sectionKind;
  ObjectName usersName;
  ObjectName mutexName;
  UsersLock users;
  RobustMutex* mutex = nullptr;
  Part event;
  Part doorbells;
  Part section;
  std::atomic<bool> open{false};
  std::atomic<bool> complete{false};  ///< all parts are open
  std::atomic<int> change{kUnchanging};
  Wakes pending;  ///< found since the mutex was acquired; belongs to its owner
  Group* next = nullptr;

  Group(const SharedObjectNames& names, const SharedSectionKind& kind) noexcept;
  ~Group();

  bool beginChange(Change wanted, int attempts) noexcept;
  bool assignNames() noexcept;
  bool openMutexAs(Joined joined) noexcept;
  void removeNames() noexcept;
  void dropInCopy() noexcept;
  void unmapParts() noexcept;

  SharedWord& eventWord() const noexcept { return event.mapping.as<EventBlock>()->word; }
  SharedWord& bell(std::uint16_t number) const noexcept {
    return doorbells.mapping.as<DoorbellBlock>()->bells[number % DoorbellBlock::kBells];
  }
};

std::mutex groupsLock;
Group* groups = nullptr;

void beforeCopy() noexcept {
  groupsLock.lock();
  RobustMutex::lockRegistry();
}

void afterCopyInParent() noexcept {
  RobustMutex::unlockRegistry();
  groupsLock.unlock();
}

void afterCopyInCopy() noexcept {
  for (Group* group = groups; group != nullptr; group = group->next) group->dropInCopy();
  RobustMutex::dropAllInCopy();
  afterCopyInParent();
}

/// A program that ends without closing leaves nothing behind either, as long as it ends by itself.
/// Only names are removed: its threads may use the objects until the very end.
void removeNamesAtExit() noexcept {
  std::lock_guard lock(groupsLock);
  for (Group* group = groups; group != nullptr; group = group->next) {
    // Who is just closing removes the names himself.
    if (!group->beginChange(Group::kAtExit, kAttemptsAtExit) || !group->complete) continue;
    if (group->users.isLast(Deadline::after(0))) {
      group->removeNames();
      group->users.removeName();
    }
    group->users.openGate();
  }
}

Group::Group(const SharedObjectNames& names, const SharedSectionKind& kind) noexcept
    : plainNames(names), sectionKind(kind) {
  static const int registered = pthread_atfork(beforeCopy, afterCopyInParent, afterCopyInCopy);
  static const int registeredAtExit = std::atexit(removeNamesAtExit);
  static_cast<void>(registered);
  static_cast<void>(registeredAtExit);
  std::lock_guard lock(groupsLock);
  next = groups;
  groups = this;
}

Group::~Group() {
  std::lock_guard lock(groupsLock);
  for (Group** link = &groups; *link != nullptr; link = &(*link)->next) {
    if (*link == this) {
      *link = next;
      return;
    }
  }
}

/// Keeps opening, closing and the end of the process apart. False when the process ends, or the
/// change in progress does not.
bool Group::beginChange(Change wanted, int attempts) noexcept {
  for (int attempt = 0; attempt < attempts; ++attempt) {
    int present = kUnchanging;
    if (change.compare_exchange_strong(present, wanted)) return true;
    if (present == kAtExit) return false;
    sleep(1, false);
  }
  return false;
}

/// An opening or closing in progress.
class ChangeInProgress {
 public:
  explicit ChangeInProgress(Group& group) noexcept
      : group_(group), begun_(group.beginChange(Group::kChanging, INT_MAX)) {}
  ~ChangeInProgress() {
    if (begun_) group_.change = Group::kUnchanging;
  }
  ChangeInProgress(const ChangeInProgress&) = delete;
  ChangeInProgress& operator=(const ChangeInProgress&) = delete;
  explicit operator bool() const noexcept { return begun_; }

 private:
  Group& group_;
  const bool begun_;
};

bool Group::assignNames() noexcept {
  return usersName.assign(plainNames.users) && mutexName.assign(plainNames.mutex) &&
         event.name.assign(plainNames.event) && section.name.assign(plainNames.section) &&
         doorbells.name.assign(plainNames.doorbells);
}

/// With the gate held.
bool Group::openMutexAs(Joined joined) noexcept {
  if (joined == Joined::WithOthers) {
    mutex = RobustMutex::open(mutexName);
    if (mutex != nullptr) setLastError(ERROR_ALREADY_EXISTS);
  } else {
    removeLeavings(event.name, kEventKind);
    removeLeavings(doorbells.name, kDoorbellKind);
    removeLeavings(section.name, sectionKind);
    mutex = RobustMutex::create(mutexName);
    if (mutex != nullptr) setLastError(ERROR_SUCCESS);
  }
  return mutex != nullptr;
}

void Group::unmapParts() noexcept {
  event.mapping.unmap();
  doorbells.mapping.unmap();
  section.mapping.unmap();
}

void Group::removeNames() noexcept {
  section.remove(sectionKind);
  event.remove(kEventKind);
  doorbells.remove(kDoorbellKind);
  mutex->remove();
}

void Group::dropInCopy() noexcept {
  change = kUnchanging;
  open = false;
  complete = false;
  mutex = nullptr;
  pending = {};
  unmapParts();
  users.close();
}

/// Marks a fresh object, refuses one that carries another mark.
bool markOrCheck(std::uint32_t* magic, std::uint32_t wanted) noexcept {
  if (*magic == 0) *magic = wanted;
  return *magic == wanted || failWith(ERROR_INVALID_HANDLE);
}

template <class Block>
bool openMarked(Part* part, std::uint32_t magic, bool* fresh) noexcept {
  if (!part->open(sizeof(Block), fresh)) return false;
  if (markOrCheck(&part->mapping.as<Block>()->magic, magic)) return true;
  part->mapping.unmap();
  return false;
}

}  // namespace
}  // namespace posix

using namespace posix;

struct SharedObjects::State : posix::Group {
  using Group::Group;
};

SharedObjects::SharedObjects(const SharedObjectNames& names, const SharedSectionKind& kind) noexcept
    : state_(new (std::nothrow) State(names, kind)) {}

SharedObjects::~SharedObjects() { close(false); }

DWORD SharedObjects::openMutex(const Deadline& deadline) noexcept {
  if (state_ == nullptr) {
    setLastError(ERROR_NOT_ENOUGH_MEMORY);
    return WAIT_FAILED;
  }
  if (state_->open) {
    setLastError(ERROR_ALREADY_EXISTS);
    return WAIT_OBJECT_0;
  }
  const ChangeInProgress opening(*state_);
  if (!opening) {
    setLastError(ERROR_OPERATION_ABORTED);
    return WAIT_FAILED;
  }
  if (!state_->assignNames()) return WAIT_FAILED;
  const Joined joined = state_->users.join(state_->usersName, deadline);
  if (joined == Joined::TimedOut) return WAIT_TIMEOUT;
  if (joined == Joined::Failed) return WAIT_FAILED;
  if (!state_->openMutexAs(joined) || !state_->users.share()) {
    const DWORD reason = lastError();
    if (state_->mutex != nullptr) {
      if (joined == Joined::Alone) state_->mutex->remove();
      state_->mutex->close(false);
      state_->mutex = nullptr;
    }
    if (joined == Joined::Alone) state_->users.removeName();
    state_->users.close();
    setLastError(reason);
    return WAIT_FAILED;
  }
  state_->mutex->giveUpKept();
  state_->open = true;
  return WAIT_OBJECT_0;
}

bool SharedObjects::openEvent() noexcept {
  bool fresh = false;
  state_->mutex->forgetKept();
  if (!state_->doorbells.isOpen() &&
      !openMarked<DoorbellBlock>(&state_->doorbells, kDoorbellMagic, &fresh)) {
    return false;
  }
  fresh = false;
  if (!state_->event.isOpen() && !openMarked<EventBlock>(&state_->event, kEventMagic, &fresh)) {
    return false;
  }
  setLastError(fresh ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS);
  return true;
}

bool SharedObjects::openSection() noexcept {
  bool fresh = false;
  if (!state_->section.isOpen() && !state_->section.open(state_->sectionKind.size, &fresh)) {
    return false;
  }
  state_->complete = true;
  setLastError(fresh ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS);
  return true;
}

void SharedObjects::close(bool keepMutex) noexcept {
  if (!isOpen()) return;
  State& state = *state_;
  const ChangeInProgress closing(state);
  if (!closing) return;  // the names are removed, the rest goes with the process
  state.open = false;
  state.complete = false;
  const bool last = state.users.isLast(Deadline::after(kGateMilliseconds));
  if (last) state.removeNames();
  if (last && keepMutex) {
    // Nobody is left who could tell.
    state.mutex->release();
    keepMutex = false;
  }
  state.pending = {};
  state.unmapParts();
  state.mutex->close(keepMutex);
  state.mutex = nullptr;
  if (last) state.users.removeName();
  state.users.close();
}

bool SharedObjects::isOpen() const noexcept {
  return state_ != nullptr && state_->open.load(std::memory_order_acquire);
}

void* SharedObjects::section() const noexcept {
  return state_ == nullptr ? nullptr : state_->section.mapping.address();
}

DWORD SharedObjects::acquire(const Deadline& deadline) noexcept {
  return state_->mutex->acquire(deadline);
}

DWORD SharedObjects::tryAcquire() noexcept { return state_->mutex->tryAcquire(); }

void SharedObjects::declareRepaired() noexcept { state_->mutex->declareRepaired(); }

Wakes SharedObjects::release() noexcept {
  const Wakes wakes = state_->pending;
  state_->pending = {};
  state_->mutex->release();
  return wakes;
}

void SharedObjects::wake(const Wakes& wakes) noexcept {
  if (wakes.event) sharedWake(state_->eventWord(), INT_MAX);
  for (int i = 0; i < wakes.doorbells; ++i) sharedWake(state_->bell(wakes.doorbell[i]), INT_MAX);
}

bool SharedObjects::eventIsSet() const noexcept {
  return (state_->eventWord().load(std::memory_order_acquire) & kSignalled) != 0;
}

void SharedObjects::setEvent() noexcept {
  SharedWord& word = state_->eventWord();
  // Once the event is set nobody goes to sleep on it, so a set event has no sleepers to find.
  if (word.load(std::memory_order_relaxed) == kSignalled) return;
  if ((word.exchange(kSignalled) & kEventSleepers) != 0) state_->pending.event = true;
}

void SharedObjects::resetEvent() noexcept {
  SharedWord& word = state_->eventWord();
  if (word.load(std::memory_order_relaxed) == kSignalled) word.store(0);
}

void SharedObjects::waitEvent(DWORD longestMs) noexcept {
  SharedWord& word = state_->eventWord();
  std::uint32_t seen = 0;
  // Fails when the event is set by now, or when somebody sleeps already.
  if (word.compare_exchange_strong(seen, kEventSleepers) || seen == kEventSleepers) {
    sharedWait(word, kEventSleepers, longestMs);
  }
}

std::uint32_t SharedObjects::expectRing(std::uint16_t number) noexcept {
  return state_->bell(number).fetch_or(kBellSleepers) | kBellSleepers;
}

void SharedObjects::waitRing(std::uint16_t number, std::uint32_t expectation,
                             DWORD longestMs) noexcept {
  sharedWait(state_->bell(number), expectation, longestMs);
}

void SharedObjects::ring(std::uint16_t number) noexcept {
  SharedWord& word = state_->bell(number);
  const std::uint32_t seen = word.load(std::memory_order_relaxed);
  if ((seen & kBellSleepers) == 0) return;
  word.store((seen + kOneRing) & ~kBellSleepers, std::memory_order_release);
  Wakes& pending = state_->pending;
  if (pending.doorbells < std::size(pending.doorbell)) {
    pending.doorbell[pending.doorbells++] = number;
  } else {
    sharedWake(word, INT_MAX);
  }
}

void SharedObjects::wakeEverybody() noexcept {
  sharedWake(state_->eventWord(), INT_MAX);
  for (SharedWord& word : state_->doorbells.mapping.as<DoorbellBlock>()->bells) {
    const std::uint32_t seen = word.load(std::memory_order_relaxed);
    if ((seen & kBellSleepers) == 0) continue;
    // The mark of the sleepers goes last: whoever repairs after our death must find it.
    word.store(seen + kOneRing, std::memory_order_release);
    sharedWake(word, INT_MAX);
    word.store((seen + kOneRing) & ~kBellSleepers, std::memory_order_release);
  }
}

}  // namespace qm::platform
