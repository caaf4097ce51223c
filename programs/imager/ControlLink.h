// The imager's end of the message pool: what it tells the control program. Any thread may send.
#pragma once

#include <string>

#include "programs/imager/JobDescription.h"

namespace programs {

class ControlLink {
 public:
  ControlLink(unsigned short parentId, unsigned short ownId) : parentId_(parentId), ownId_(ownId) {}

  void reportStarted() const;
  void askIdentity() const;
  void reportProgress(int code, unsigned job, const std::string& text,
                      const std::string& qualifier) const;
  /// Also logged. Texts too long for a message are shortened, the code always arrives.
  void reportFailure(unsigned job, const Failure& failure) const;

 private:
  bool send(int type, int code, int value, const std::string& text,
            const std::string& qualifier) const;

  const unsigned short parentId_;
  const unsigned short ownId_;
};

}  // namespace programs
