#include "qmutils/comms/SvComms.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>

#include "qmutils/comms/PoolList.h"
#include "qmutils/comms/PoolNames.h"
#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/QMDBprintf.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/named_objects.h"
#include "qmutils/platform/process.h"
#include "qmutils/platform/suspension_deferral.h"
#include "qmutils/platform/thread.h"

namespace qm {
namespace {

using platform::Deadline;
using platform::SharedObjects;
using QMErrors::QMErrorT;

constexpr DWORD kOpenMs = 20'000;
constexpr DWORD kCloseMs = 2'000;
constexpr DWORD kPendingMs = 5'000;
constexpr DWORD kLookAgainMs = 100;

/// Identifier 0 receives nothing, so its doorbell tells waiting senders of free slots.
constexpr std::uint16_t kRoomBell = 0;

constexpr unsigned kImportant = 1;
constexpr unsigned kDetailed = 5;
constexpr int kLogMode = 1;
constexpr const char* kLineEnd = "\r\n";

/// A time-out that starts with its first use: a call that need not wait never reads the clock.
class TimeLimit {
 public:
  explicit TimeLimit(DWORD timeoutMs) noexcept : timeoutMs_(timeoutMs) {}

  const Deadline& deadline() noexcept {
    if (!deadline_) deadline_ = Deadline::after(timeoutMs_);
    return *deadline_;
  }
  /// 0 when it has passed.
  DWORD remainingMs() noexcept {
    const bool running = deadline_.has_value();
    if (timeoutMs_ == 0 || timeoutMs_ == INFINITE) return timeoutMs_;
    const Deadline& end = deadline();
    return running ? end.remainingMs() : timeoutMs_;
  }

 private:
  DWORD timeoutMs_;
  std::optional<Deadline> deadline_;
};

/// The process's place in the pool.
class Connection {
 public:
  static Connection& instance() noexcept;

  QMErrorT open(std::uint16_t ownId) noexcept;
  void close() noexcept;

  QMErrorT send(const char* text, DWORD timeoutMs, std::uint16_t destination) noexcept;
  QMErrorT receive(char* buffer, std::size_t size, DWORD timeoutMs) noexcept;
  QMErrorT receiveAll(char* buffer, std::size_t size, DWORD timeoutMs) noexcept;
  bool havePending(int (*match)(const char*, void*), void* context) noexcept;
  bool isOverloaded() noexcept { return list().count() >= kPoolOverload; }

  /// Counts a call in progress. False, and not counted, without a connection.
  bool enter() noexcept;
  void leave() noexcept { calls_.fetch_sub(1); }

  DWORD osError() const noexcept { return osError_.load(std::memory_order_relaxed); }

 private:
  bool isConnected() const noexcept { return connected_.load() && objects_.isOpen(); }
  void startAfreshInCopy() noexcept;
  void endCalls() noexcept;
  QMErrorT openPool(bool abandoned) noexcept;
  QMErrorT giveUpOpening(QMErrorT code) noexcept;

  PoolList list() noexcept { return PoolList(*static_cast<PoolSection*>(objects_.section())); }
  void noteOsError() noexcept;

  DWORD lock(TimeLimit& limit) noexcept;
  DWORD lockInCall(TimeLimit& limit) noexcept;
  DWORD tryLock() noexcept;
  DWORD repairIfAbandoned(DWORD waitResult) noexcept;
  void unlock() noexcept;
  void repair() noexcept;
  DWORD waitForEvent(TimeLimit& limit) noexcept;
  DWORD lockWhenEventIsSet(TimeLimit& limit) noexcept;
  QMErrorT unlockAndWaitForRing(std::uint16_t bell, TimeLimit& limit) noexcept;

  PoolAppend append(const char* text, std::uint16_t destination) noexcept;
  PoolTake take(std::uint16_t receiver, char* buffer, std::size_t size) noexcept;
  void purge() noexcept;
  void dump() noexcept;

  SharedObjects objects_{kPoolObjectNames, kPoolSectionKind};
  std::mutex openClose_;
  std::atomic<DWORD> process_{platform::currentProcessId()};
  std::atomic<bool> connected_{false};
  std::atomic<int> calls_{0};
  std::atomic<std::uint16_t> ownId_{0};
  std::atomic<DWORD> osError_{0};
};

/// A call in progress, as long as the object lives.
class Call {
 public:
  Call() noexcept : connection_(Connection::instance()), entered_(connection_.enter()) {}
  ~Call() {
    if (entered_) connection_.leave();
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  explicit operator bool() const noexcept { return entered_; }
  Connection* operator->() const noexcept { return &connection_; }

 private:
  Connection& connection_;
  bool entered_;
};

QMErrorT codeOfFailedWait(DWORD waitResult) noexcept {
  return waitResult == WAIT_TIMEOUT ? QMErrors::CommandTimedOut : QMErrors::CommandAborted;
}

Connection& Connection::instance() noexcept {
  static Immortal<Connection> connection;
  return connection.value;
}

void Connection::noteOsError() noexcept {
  const DWORD number = platform::lastError();
  if (number != osError()) osError_.store(number, std::memory_order_relaxed);
}

bool Connection::enter() noexcept {
  calls_.fetch_add(1);
  if (isConnected()) return true;
  leave();
  return false;
}

/// A forked child has neither the connection nor the threads that were inside a call.
void Connection::startAfreshInCopy() noexcept {
  const DWORD process = platform::currentProcessId();
  if (process_.exchange(process) == process) return;
  new (&openClose_) std::mutex;
  connected_ = false;
  calls_ = 0;
}

/// Lets no further call in and waits for those in progress, which notice within 100 ms.
void Connection::endCalls() noexcept {
  connected_ = false;
  while (calls_.load() != 0) platform::sleep(1, false);
}

QMErrorT Connection::open(std::uint16_t ownId) noexcept {
  // Standing still half in the pool would keep other threads and processes out.
  const platform::SuspensionDeferral untilOpen;
  startAfreshInCopy();
  std::lock_guard guard(openClose_);
  endCalls();
  ownId_ = ownId;
  if (ownId == 0) {
    objects_.close(false);
    return QMErrors::NoError;
  }
  TimeLimit limit(kOpenMs);
  const DWORD joined = objects_.openMutex(limit.deadline());
  noteOsError();
  if (joined == WAIT_TIMEOUT) return QMErrors::CommandTimedOut;
  if (joined != WAIT_OBJECT_0) return QMErrors::ResourceAllocationFailed;

  const DWORD waited = objects_.acquire(limit.deadline());
  noteOsError();
  if (waited != WAIT_OBJECT_0 && waited != WAIT_ABANDONED) {
    objects_.close(false);
    return codeOfFailedWait(waited);
  }
  return openPool(waited == WAIT_ABANDONED);
}

/// The part of opening that happens with the mutex held.
QMErrorT Connection::openPool(bool abandoned) noexcept {
  const bool eventOpen = objects_.openEvent();
  noteOsError();
  if (!eventOpen) return giveUpOpening(QMErrors::ResourceAllocationFailed);
  const bool sectionOpen = objects_.openSection();
  noteOsError();
  if (!sectionOpen) return giveUpOpening(QMErrors::FileMappingFailed);

  PoolList pool = list();
  if (pool.isBlank()) {
    pool.initialise();
    objects_.resetEvent();
    if (abandoned) objects_.declareRepaired();
  } else if (!pool.hasMagic()) {
    return giveUpOpening(QMErrors::BadMagicNumber);
  } else {
    if (abandoned || !pool.isSound()) repair();
    purge();
  }
  unlock();
  connected_ = true;
  return QMErrors::NoError;
}

/// Ends an opening that came as far as the mutex. Nothing of another's section is touched.
QMErrorT Connection::giveUpOpening(QMErrorT code) noexcept {
  // The users check the list and the event, and repair what does not agree, so it is enough to keep
  // the mutex usable.
  objects_.declareRepaired();
  unlock();
  objects_.close(false);
  purge();
  dump();
  return code;
}

void Connection::close() noexcept {
  // Asked before the lock, which in a forked child may be held by a thread that it does not have.
  if (!objects_.isOpen()) return;
  const platform::SuspensionDeferral untilClosed;
  std::lock_guard guard(openClose_);
  if (!isConnected()) return;
  endCalls();
  TimeLimit limit(kCloseMs);
  const bool owned = lock(limit) == WAIT_OBJECT_0;
  if (owned) purge();
  dump();
  objects_.close(owned);
}

DWORD Connection::repairIfAbandoned(DWORD waitResult) noexcept {
  noteOsError();
  if (waitResult == WAIT_OBJECT_0 || waitResult == WAIT_ABANDONED) poolStep(PoolStep::Acquired);
  if (waitResult != WAIT_ABANDONED) return waitResult;
  repair();
  return WAIT_OBJECT_0;
}

DWORD Connection::tryLock() noexcept { return repairIfAbandoned(objects_.tryAcquire()); }

/// WAIT_OBJECT_0 with the pool whole, WAIT_TIMEOUT or WAIT_FAILED.
DWORD Connection::lock(TimeLimit& limit) noexcept {
  DWORD result = objects_.tryAcquire();
  if (result == WAIT_TIMEOUT && limit.remainingMs() != 0)
    result = objects_.acquire(limit.deadline());
  return repairIfAbandoned(result);
}

/// The same for calls, which give up with WAIT_FAILED when the connection is closed meanwhile.
DWORD Connection::lockInCall(TimeLimit& limit) noexcept {
  DWORD result = tryLock();
  while (result == WAIT_TIMEOUT) {
    const DWORD remainingMs = limit.remainingMs();
    if (remainingMs == 0) return WAIT_TIMEOUT;
    if (!isConnected()) return WAIT_FAILED;
    TimeLimit step(std::min(remainingMs, kLookAgainMs));
    result = lock(step);
  }
  return result;
}

void Connection::unlock() noexcept {
  const platform::Wakes wakes = objects_.release();
  poolStep(PoolStep::Released);
  objects_.wake(wakes);
}

void Connection::repair() noexcept {
  PoolList pool = list();
  // A mutex is also abandoned by everyone who closes the pool, which damages nothing.
  const bool damaged = !pool.isSound() || objects_.eventIsSet() != pool.hasMessages();
  pool.repair();
  poolStep(PoolStep::Repaired);
  if (pool.count() > 0) {
    objects_.setEvent();
  } else {
    objects_.resetEvent();
  }
  poolStep(PoolStep::EventChanged);
  objects_.wakeEverybody();
  poolStep(PoolStep::WokenEverybody);
  objects_.declareRepaired();
  if (!damaged) return;
  QMDBprintf(kImportant, kLogMode, "Repaired the pool, %d messages%s", pool.count(), kLineEnd);
}

PoolAppend Connection::append(const char* text, std::uint16_t destination) noexcept {
  const std::string_view view(text, ::strnlen(text, kPoolTextSize));
  PoolAppend result = list().append(view, destination);
  if (result == PoolAppend::Damaged) {
    repair();
    result = list().append(view, destination);
  }
  if (result == PoolAppend::Added) {
    objects_.setEvent();
    poolStep(PoolStep::EventChanged);
    objects_.ring(destination);
    poolStep(PoolStep::Rung);
  }
  return result;
}

PoolTake Connection::take(std::uint16_t receiver, char* buffer, std::size_t size) noexcept {
  PoolList pool = list();
  const std::uint16_t before = pool.count();
  PoolTake result = pool.take(receiver, buffer, size);
  if (result == PoolTake::Damaged) {
    repair();
    result = pool.take(receiver, buffer, size);
  }
  // Also without a message for the receiver: those for nobody may have gone.
  if (result == PoolTake::Taken || pool.count() != before) {
    if (pool.count() == 0) objects_.resetEvent();
    poolStep(PoolStep::EventChanged);
    objects_.ring(kRoomBell);
    poolStep(PoolStep::Rung);
  }
  return result;
}

/// Lets the others in and sleeps until the doorbell rings, or a little; 0: look again.
QMErrorT Connection::unlockAndWaitForRing(std::uint16_t bell, TimeLimit& limit) noexcept {
  const DWORD remainingMs = limit.remainingMs();
  if (remainingMs == 0) {
    unlock();
    return QMErrors::CommandTimedOut;
  }
  const std::uint32_t expectation = objects_.expectRing(bell);
  unlock();
  objects_.waitRing(bell, expectation, remainingMs);
  return isConnected() ? QMErrors::NoError : QMErrors::CommandAborted;
}

QMErrorT Connection::send(const char* text, DWORD timeoutMs, std::uint16_t destination) noexcept {
  QMDBprintf(kDetailed, kLogMode, "SvSendMessage: SrcID = %d, DestID = %d, Message = <%s>%s",
             ownId_.load(), destination, text, kLineEnd);
  TimeLimit limit(timeoutMs);
  for (;;) {
    const DWORD locked = lockInCall(limit);
    if (locked != WAIT_OBJECT_0) return codeOfFailedWait(locked);
    if (append(text, destination) == PoolAppend::Added) {
      unlock();
      return QMErrors::NoError;
    }
    const QMErrorT waited = unlockAndWaitForRing(kRoomBell, limit);
    if (waited != QMErrors::NoError) return waited;
  }
}

/// Waits for the event alone. Before each sleep the mutex is tried: a sender that died between
/// linking its message and setting the event leaves nothing else to notice it by.
DWORD Connection::waitForEvent(TimeLimit& limit) noexcept {
  while (!objects_.eventIsSet()) {
    if (tryLock() == WAIT_OBJECT_0) {
      // Its setting may have died with a sender, and the repair with an opener that had no memory.
      if (!objects_.eventIsSet() && list().hasMessages()) repair();
      unlock();
    }
    if (objects_.eventIsSet()) break;
    const DWORD remainingMs = limit.remainingMs();
    if (remainingMs == 0) return WAIT_TIMEOUT;
    objects_.waitEvent(remainingMs);
    if (!isConnected()) return WAIT_FAILED;
  }
  return WAIT_OBJECT_0;
}

/// Waits for event and mutex at one moment.
DWORD Connection::lockWhenEventIsSet(TimeLimit& limit) noexcept {
  for (;;) {
    const DWORD waited = waitForEvent(limit);
    if (waited != WAIT_OBJECT_0) return waited;
    const DWORD locked = lockInCall(limit);
    if (locked != WAIT_OBJECT_0 || objects_.eventIsSet()) return locked;
    // Another receiver was faster and took the last message.
    unlock();
  }
}

QMErrorT Connection::receive(char* buffer, std::size_t size, DWORD timeoutMs) noexcept {
  buffer[0] = '\0';
  const std::uint16_t ownId = ownId_;
  TimeLimit limit(timeoutMs);
  for (;;) {
    const DWORD locked = lockWhenEventIsSet(limit);
    if (locked != WAIT_OBJECT_0) return codeOfFailedWait(locked);
    if (take(ownId, buffer, size) == PoolTake::Taken) {
      unlock();
      const std::size_t used = std::strlen(buffer) + 1;
      std::memset(buffer + used, 0, size - used);
      return QMErrors::NoError;
    }
    const QMErrorT waited = unlockAndWaitForRing(ownId, limit);
    if (waited != QMErrors::NoError) return waited;
  }
}

QMErrorT Connection::receiveAll(char* buffer, std::size_t size, DWORD timeoutMs) noexcept {
  buffer[0] = '\0';
  const std::uint16_t ownId = ownId_;
  TimeLimit limit(timeoutMs);
  char* position = buffer;
  std::size_t room = size;
  for (bool heldBefore = false;; heldBefore = true) {
    const DWORD waited = waitForEvent(limit);
    if (waited == WAIT_TIMEOUT) return QMErrors::NoError;
    if (waited != WAIT_OBJECT_0) return QMErrors::CommandAborted;
    const DWORD locked = lockInCall(limit);
    if (locked == WAIT_TIMEOUT && heldBefore) return QMErrors::NoError;
    if (locked != WAIT_OBJECT_0) return codeOfFailedWait(locked);

    bool any = false;
    while (take(ownId, position, room) == PoolTake::Taken) {
      any = true;
      if (room == 0) continue;
      const std::size_t used = std::strlen(position) + 1;
      position += used;
      room -= used;
    }
    const DWORD remainingMs = any ? 0 : limit.remainingMs();
    if (remainingMs == 0) {
      unlock();
      std::memset(position, 0, room);
      return QMErrors::NoError;
    }
    const std::uint32_t expectation = objects_.expectRing(ownId);
    unlock();
    objects_.waitRing(ownId, expectation, remainingMs);
    if (!isConnected()) return QMErrors::CommandAborted;
  }
}

bool Connection::havePending(int (*match)(const char*, void*), void* context) noexcept {
  TimeLimit limit(kPendingMs);
  if (lockInCall(limit) != WAIT_OBJECT_0) return false;
  const std::uint16_t ownId = ownId_;
  bool found = false;
  const auto matches = [&](const PoolSlot& slot) {
    found = slot.DestID == ownId && match(slot.Msg, context) != 0;
    return !found;
  };
  if (!list().visit(matches)) {
    repair();
    (void)list().visit(matches);
  }
  unlock();
  return found;
}

/// Discards the messages for the own identifier.
void Connection::purge() noexcept {
  if (objects_.section() == nullptr) {
    QMDBprintf(kImportant, kLogMode, "No Pool to purged messages from!!%s", kLineEnd);
    return;
  }
  const std::uint16_t ownId = ownId_;
  QMDBprintf(kDetailed, kLogMode, "Purging messages for destination ID %d%s", ownId, kLineEnd);
  TimeLimit limit(INFINITE);
  if (lock(limit) != WAIT_OBJECT_0) return;
  int purged = 0;
  char text[kPoolTextSize];
  for (; take(ownId, text, sizeof text) == PoolTake::Taken; ++purged) {
    QMDBprintf(kDetailed, kLogMode, "Message = <%s>%s", text, kLineEnd);
  }
  unlock();
  QMDBprintf(kDetailed, kLogMode, "Purged %d messages for destination ID %d%s", purged, ownId,
             kLineEnd);
}

/// Logs what waits in the pool.
void Connection::dump() noexcept {
  if (objects_.section() == nullptr) {
    QMDBprintf(kImportant, kLogMode, "No Pool to dump messages from!!%s", kLineEnd);
    return;
  }
  QMDBprintf(kDetailed, kLogMode, "Dumping messages%s", kLineEnd);
  TimeLimit limit(INFINITE);
  if (lock(limit) != WAIT_OBJECT_0) return;
  PoolList pool = list();
  QMDBprintf(kDetailed, kLogMode, "pChan->nMessages:     %d%s", pool.count(), kLineEnd);
  QMDBprintf(kDetailed, kLogMode, "pChan->start_of_list: %d%s", pool.start(), kLineEnd);
  QMDBprintf(kDetailed, kLogMode, "pChan->end_of_list:   %d%s", pool.end(), kLineEnd);
  QMDBprintf(kDetailed, kLogMode, "===========================%s", kLineEnd);
  // The head is logged whether it is taken or not: an empty pool shows its last slot 0.
  std::uint16_t at = pool.start();
  for (int steps = 0; steps < kPoolSlots && at < kPoolSlots; ++steps) {
    const PoolSlot& slot = pool.slot(at);
    QMDBprintf(kDetailed, kLogMode, "DestID=%d, Taken=%d, Msg=<%s>%s", slot.DestID,
               static_cast<int>(slot.Taken), slot.Msg, kLineEnd);
    if (at == pool.end()) break;
    at = slot.next;
  }
  const int messages = pool.count();
  unlock();
  QMDBprintf(kDetailed, kLogMode, "Dumped %d messages%s", messages, kLineEnd);
}

}  // namespace
}  // namespace qm

using qm::Call;
using qm::Connection;

QMErrors::QMErrorT SvOpenComms(unsigned short ownID) { return Connection::instance().open(ownID); }

QMErrors::QMErrorT SvSendMessage(const char* text, DWORD timeout, unsigned short destID) {
  const Call call;
  if (!call || destID == 0) return QMErrors::NoError;
  return call->send(text == nullptr ? "" : text, timeout, destID);
}

QMErrors::QMErrorT SvReceiveMessage(char* buffer, int size, DWORD timeout) {
  const Call call;
  if (!call) return QMErrors::CommandAborted;
  if (buffer == nullptr || size < 1) return QMErrors::BufferTooSmall;
  return call->receive(buffer, static_cast<std::size_t>(size), timeout);
}

QMErrors::QMErrorT SvReceiveMultipleMessages(char* buffer, int size, DWORD timeout) {
  const Call call;
  if (!call) return QMErrors::CommandAborted;
  if (buffer == nullptr || size < 1) return QMErrors::BufferTooSmall;
  return call->receiveAll(buffer, static_cast<std::size_t>(size), timeout);
}

int SvHavePendingMessage(int (*match)(const char* text, void* context), void* context) {
  const Call call;
  return call && match != nullptr && call->havePending(match, context) ? 1 : 0;
}

int SvIsOverloaded(void) {
  const Call call;
  return call && call->isOverloaded() ? 1 : 0;
}

QMErrors::QMErrorT SvCloseComms(void) {
  Connection::instance().close();
  return QMErrors::NoError;
}

DWORD SvGetCommsOSError(void) { return Connection::instance().osError(); }
