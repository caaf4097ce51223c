// Who uses a group of shared objects: a lock that the system takes away from a process in the
// moment it dies.
//
// Two bytes of one lock object are locked, with locks that belong to the open file description (a
// process's classic locks would vanish as soon as any descriptor of the object is closed). The
// users byte is shared by every user for as long as it lives; who can have it exclusively is alone.
// The gate byte is held, for some 0.1 ms, by whoever joins or leaves, so that "I am alone" stays
// true until the objects are made or removed.
#pragma once

#include "qmutils/platform/posix/named_objects_memory.h"

namespace qm::platform::posix {

enum class Joined { Alone, WithOthers, TimedOut, Failed };

class UsersLock {
 public:
  /// Takes the gate and looks for others. After Alone and WithOthers the gate is held.
  Joined join(const ObjectName& name, const Deadline& deadline) noexcept;
  /// Counts this process among the users and opens the gate.
  bool share() noexcept;
  /// Takes the gate again; true when no other user is left.
  bool isLast(const Deadline& deadline) noexcept;
  void openGate() noexcept;
  /// Removes the lock object's name. Only while alone.
  void removeName() noexcept { removeIfSame(name_, identity_); }
  /// Ends the membership and opens the gate. In a copy of the process, which shares the open file
  /// description with its original, it only lets go of the descriptor.
  void close() noexcept { lock_.reset(); }

 private:
  ObjectName name_;
  ObjectIdentity identity_;
  Descriptor lock_;
};

}  // namespace qm::platform::posix
