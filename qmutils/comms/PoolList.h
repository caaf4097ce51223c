// The list of messages in the pool's section: adding, taking, looking, repairing.
//
// Every function is called with the pool's mutex held, except count(). Its owner may be killed
// between any two instructions, so each change has one store that decides: before it the change has
// not happened, after it it has, and repair() finds the rest. The section may hold anything
// (another program's error, a torn write): each index is checked, each walk ends after 200 steps,
// byte 255 of a text is its end. A list that contradicts itself is reported as Damaged; after
// repair() it never does.
//
// A walk costs one step a message; nothing allocates, waits or fails otherwise.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "qmutils/comms/PoolSection.h"

namespace qm {

/// Places at which a process can be killed by a test; see poolStepHook.
enum class PoolStep : int {
  AppendChosen,
  AppendFilled,
  AppendMarked,
  AppendLinked,
  AppendEndMoved,
  AppendCounted,
  TakeCopied,
  TakeUnlinked,
  TakeBackLinked,
  TakeFreed,
  TakeCounted,
  RepairBegun,
  RepairCut,
  RepairFreed,
  RepairBackLinked,
  RepairEndsSet,
  RepairCounted,
  Acquired,
  EventChanged,
  Rung,
  Repaired,
  WokenEverybody,
  Released,
  Count
};

/// Called at every step when it is set. Only tests set it, before they open the pool.
extern void (*poolStepHook)(PoolStep step);

inline void poolStep(PoolStep step) {
  if (poolStepHook != nullptr) [[unlikely]]
    poolStepHook(step);
}

enum class PoolAppend { Added, Full, Damaged };
enum class PoolTake { Taken, None, Damaged };

class PoolList {
 public:
  explicit PoolList(PoolSection& section) noexcept : section_(section) {}

  /// True for memory that no pool has been made of yet.
  bool isBlank() const noexcept;
  bool hasMagic() const noexcept { return section_.magic == kPoolMagic; }
  /// Makes an empty pool; the magic is written last.
  void initialise() noexcept;

  /// Adds at most 255 characters of `text` as the newest message, in the lowest free slot.
  PoolAppend append(std::string_view text, std::uint16_t destination) noexcept;

  /// Takes the oldest message for `receiver` out of the list and copies it, cut to `size` - 1
  /// characters and NUL-terminated, into `buffer`; with `size` 0 it only leaves the list. Messages
  /// for nobody (destination 0) that stand before it are removed.
  PoolTake take(std::uint16_t receiver, char* buffer, std::size_t size) noexcept;

  /// Calls each(slot) for every message, oldest first, until it gives false. `slot.Msg` is
  /// terminated. False when the list is damaged.
  template <class Each>
  bool visit(Each&& each) noexcept;

  /// Slot `number`, taken or free, its text terminated.
  const PoolSlot& slot(std::uint16_t number) noexcept;

  /// Makes the list whole, whatever the section holds: what hangs together from start_of_list by
  /// `next` over taken slots stays, in that order; every other slot becomes free. May be killed and
  /// repeated at any point.
  void repair() noexcept;

  /// True when every index, link and number agrees.
  bool isSound() const noexcept;

  /// True unless the list is empty; of a damaged one it says so too.
  bool hasMessages() const noexcept;

  /// The number of messages; may be called without the mutex.
  std::uint16_t count() const noexcept;
  std::uint16_t start() const noexcept { return section_.start_of_list; }
  std::uint16_t end() const noexcept { return section_.end_of_list; }

 private:
  static constexpr std::uint16_t kNone = 0xFFFF;

  /// One reading of an index, so that what was checked is what is used: whoever damaged the section
  /// may go on writing to it.
  static std::uint16_t read(std::uint16_t& index) noexcept {
    return std::atomic_ref(index).load(std::memory_order_relaxed);
  }

  bool isTaken(std::uint16_t slot) const noexcept { return section_.slots[slot].Taken != 0; }
  bool endsAgree(std::uint16_t* newest) const noexcept;
  std::uint16_t lowestFreeSlot() const noexcept;
  void remove(std::uint16_t slot, std::uint16_t older, std::uint16_t newer) noexcept;
  void setCount(std::uint16_t count) noexcept;
  std::uint16_t cutChain(std::uint16_t (&order)[kPoolSlots]) noexcept;

  PoolSection& section_;
};

template <class Each>
bool PoolList::visit(Each&& each) noexcept {
  std::uint16_t at = read(section_.start_of_list);
  if (at >= kPoolSlots) return false;
  if (!isTaken(at)) return count() == 0;
  for (int steps = 0; steps < kPoolSlots; ++steps) {
    if (!each(slot(at))) return true;
    if (at == section_.end_of_list) return true;
    at = read(section_.slots[at].next);
    if (at >= kPoolSlots || !isTaken(at)) return false;
  }
  return false;
}

}  // namespace qm
