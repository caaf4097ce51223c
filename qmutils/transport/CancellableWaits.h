// The waits that go on for one direction of a transport, and the means to cancel all of them.
//
//   CancellableWaits::WaitC pending(waits);
//   while (!pending.isCancelled()) { ... waits for waits.event() among other things ... }
//
// The event is an auto-reset one, so it wakes one thread at a time; each that is cancelled wakes
// the next as it leaves. A wait that begins after cancel() is not affected. Any thread may call;
// costs two uncontended locks a wait.
#pragma once

#include <mutex>

#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/types.h"
#include "qmutils/platform/waitable.h"

namespace qm {

class CancellableWaits {
 public:
  /// One wait, from its making on. Used by one thread.
  class WaitC {
   public:
    explicit WaitC(CancellableWaits& owner) : owner_(owner) {
      const platform::ShortLock guard(owner_.mutex_);
      ++owner_.waiting_;
      round_ = owner_.round_;
    }
    WaitC(const WaitC&) = delete;
    WaitC& operator=(const WaitC&) = delete;
    ~WaitC() {
      const platform::ShortLock guard(owner_.mutex_);
      --owner_.waiting_;
      if (round_ == owner_.round_) return;
      --owner_.cancelled_;
      owner_.wakeNext();
    }

    bool isCancelled() const {
      const platform::ShortLock guard(owner_.mutex_);
      return round_ != owner_.round_;
    }
    /// For a wait that was woken although it is not cancelled.
    void passOn() const {
      const platform::ShortLock guard(owner_.mutex_);
      if (round_ == owner_.round_) owner_.wakeNext();
    }

   private:
    CancellableWaits& owner_;
    unsigned round_;
  };

  CancellableWaits() : event_(platform::createEvent(false, false)) {}
  CancellableWaits(const CancellableWaits&) = delete;
  CancellableWaits& operator=(const CancellableWaits&) = delete;
  ~CancellableWaits() {
    if (event_ != nullptr) platform::closeHandle(event_);
  }

  /// Null when the system had none left; waiting for it then fails.
  HANDLE event() const { return event_; }

  void cancel() {
    const platform::ShortLock guard(mutex_);
    if (waiting_ == 0) return;
    ++round_;
    cancelled_ = waiting_;
    wakeNext();
  }

 private:
  void wakeNext() const {
    if (cancelled_ != 0) {
      platform::setEvent(event_);
    } else {
      platform::resetEvent(event_);
    }
  }

  const HANDLE event_;
  std::mutex mutex_;  // guards all below
  unsigned round_ = 0;
  unsigned waiting_ = 0;
  unsigned cancelled_ = 0;  // of those waiting
};

}  // namespace qm
