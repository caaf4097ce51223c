// The imager's end of the message pool: what it tells the control program. Any thread may send.
#pragma once

#include <functional>
#include <string>

#include "programs/imager/JobDescription.h"

namespace programs {

/// Asked whether a report for which the pool had no place is to be sent again.
using KeepTrying = std::function<bool()>;

class ControlLink {
 public:
  ControlLink(unsigned short parentId, unsigned short ownId) : parentId_(parentId), ownId_(ownId) {}

  /// The pool's code when there was no place for the report within 2 s.
  QMErrors::QMErrorT reportStarted() const;
  void askIdentity() const;
  /// The number of the job that the value of a command stands for.
  unsigned jobOf(int value) const { return static_cast<unsigned>(value) - ownId_; }

  /// A job has begun or come so far. Lost when the pool stays full for 2 s.
  void reportProgress(int code, unsigned job, const std::string& text,
                      const std::string& qualifier) const;
  /// The end of a job, for which the control program waits: sent again while the pool is full and
  /// `keepTrying` says so (null: never again).
  void reportDone(unsigned job, const std::string& picture, const KeepTrying& keepTrying) const;
  /// The same for a failure, which is also logged. Texts too long for a message are shortened.
  void reportFailure(unsigned job, const Failure& failure, const KeepTrying& keepTrying) const;

 private:
  QMErrors::QMErrorT send(int type, int code, int value, const std::string& text,
                          const std::string& qualifier, const KeepTrying& keepTrying) const;

  const unsigned short parentId_;
  const unsigned short ownId_;
};

}  // namespace programs
