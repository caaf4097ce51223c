#include "qmutils/comms/PoolList.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace qm {

void (*poolStepHook)(PoolStep step) = nullptr;

namespace {

// A store that the list depends on. Released, so that the compiler keeps every store before it:
// should the process be killed right after it, all of them have happened.
template <class T>
void decide(T& field, T value) noexcept {
  std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

std::size_t textLength(const char* text, std::size_t limit) noexcept {
  const void* end = std::memchr(text, '\0', limit);
  return end == nullptr ? limit : static_cast<std::size_t>(static_cast<const char*>(end) - text);
}

}  // namespace

bool PoolList::isBlank() const noexcept {
  static constexpr PoolSection kBlank = {};
  return std::memcmp(&section_, &kBlank, sizeof section_) == 0;
}

void PoolList::initialise() noexcept {
  std::memset(static_cast<void*>(&section_), 0, sizeof section_);
  decide(section_.magic, kPoolMagic);
}

std::uint16_t PoolList::count() const noexcept {
  return std::atomic_ref(section_.nMessages).load(std::memory_order_relaxed);
}

void PoolList::setCount(std::uint16_t count) noexcept {
  // Atomic for the readers without the mutex.
  std::atomic_ref(section_.nMessages).store(count, std::memory_order_relaxed);
}

/// What must hold before a message may be linked behind the newest.
bool PoolList::endsAgree(std::uint16_t* newest) const noexcept {
  const std::uint16_t first = read(section_.start_of_list);
  const std::uint16_t last = *newest = read(section_.end_of_list);
  if (first >= kPoolSlots || last >= kPoolSlots) return false;
  if (count() == 0) return first == 0 && last == 0 && !isTaken(0);
  return isTaken(first) && isTaken(last) && section_.slots[last].next == last;
}

std::uint16_t PoolList::lowestFreeSlot() const noexcept {
  // By eights, without a decision at each: a full pool is looked through in half the time.
  constexpr std::uint16_t kAtOnce = 8;
  static_assert(kPoolSlots % kAtOnce == 0);
  for (std::uint16_t first = 0; first < kPoolSlots; first += kAtOnce) {
    bool allTaken = true;
    for (std::uint16_t i = 0; i < kAtOnce; ++i) allTaken &= isTaken(first + i);
    if (allTaken) continue;
    for (std::uint16_t i = first; i < first + kAtOnce; ++i) {
      if (!isTaken(i)) return i;
    }
  }
  return kNone;
}

PoolAppend PoolList::append(std::string_view text, std::uint16_t destination) noexcept {
  std::uint16_t newest;
  if (!endsAgree(&newest)) return PoolAppend::Damaged;
  const std::uint16_t number = lowestFreeSlot();
  if (number == kNone) return count() == kPoolSlots ? PoolAppend::Full : PoolAppend::Damaged;
  const bool empty = count() == 0;
  poolStep(PoolStep::AppendChosen);

  PoolSlot& slot = section_.slots[number];
  const std::size_t length = std::min(text.size(), kPoolTextSize - 1);
  std::memcpy(slot.Msg, text.data(), length);
  slot.Msg[length] = '\0';
  slot.DestID = destination;
  slot.index = number;
  slot.prev = newest;
  slot.next = number;
  poolStep(PoolStep::AppendFilled);
  // In an empty pool the slot is number 0, the head of the list, and this store decides.
  decide(slot.Taken, std::uint32_t{1});
  poolStep(PoolStep::AppendMarked);
  // Else this one does; until then the slot hangs on nothing and a repair frees it.
  if (!empty) decide(section_.slots[newest].next, number);
  poolStep(PoolStep::AppendLinked);
  section_.end_of_list = number;
  poolStep(PoolStep::AppendEndMoved);
  setCount(static_cast<std::uint16_t>(count() + 1));
  poolStep(PoolStep::AppendCounted);
  return PoolAppend::Added;
}

PoolTake PoolList::take(std::uint16_t receiver, char* buffer, std::size_t size) noexcept {
  std::uint16_t at = read(section_.start_of_list);
  if (at >= kPoolSlots) return PoolTake::Damaged;
  if (!isTaken(at)) return count() == 0 ? PoolTake::None : PoolTake::Damaged;
  std::uint16_t older = kNone;
  for (int steps = 0; steps < kPoolSlots; ++steps) {
    PoolSlot& slot = section_.slots[at];
    const std::uint16_t next = read(slot.next);
    if (next >= kPoolSlots) return PoolTake::Damaged;
    if (slot.DestID == receiver) {
      if (size > 0) {
        const std::size_t length = std::min(textLength(slot.Msg, kPoolTextSize - 1), size - 1);
        std::memcpy(buffer, slot.Msg, length);
        buffer[length] = '\0';
      }
      poolStep(PoolStep::TakeCopied);
      remove(at, older, next);
      return PoolTake::Taken;
    }
    if (next == at && at != section_.end_of_list) return PoolTake::Damaged;
    if (slot.DestID == 0) {
      remove(at, older, next);
    } else {
      older = at;
    }
    if (next == at) return PoolTake::None;
    if (!isTaken(next)) return PoolTake::Damaged;
    at = next;
  }
  return PoolTake::Damaged;
}

/// `older` is the message before, kNone for the oldest; `newer` the one behind, or `number` itself
/// for the newest. The slot's own links are not looked at.
void PoolList::remove(std::uint16_t number, std::uint16_t older, std::uint16_t newer) noexcept {
  PoolSlot& slot = section_.slots[number];
  const bool oldest = older == kNone;
  const bool newest = newer == number;
  // One store takes the message out. Only then may Taken be cleared: a chain that ran into a free
  // slot would be cut there, and every newer message lost.
  if (!oldest) {
    decide(section_.slots[older].next, newest ? older : newer);
  } else if (!newest) {
    decide(section_.start_of_list, newer);
  }
  poolStep(PoolStep::TakeUnlinked);
  if (!newest) {
    section_.slots[newer].prev = oldest ? newer : older;
  } else if (!oldest) {
    section_.end_of_list = older;
  }
  poolStep(PoolStep::TakeBackLinked);
  decide(slot.Taken, std::uint32_t{0});
  poolStep(PoolStep::TakeFreed);
  if (oldest && newest) {
    section_.start_of_list = 0;
    section_.end_of_list = 0;
    setCount(0);
  } else {
    // A list that is not empty never counts 0, whatever the count was.
    setCount(static_cast<std::uint16_t>(std::max(count() - 1, 1)));
  }
  poolStep(PoolStep::TakeCounted);
}

/// Follows the list over taken slots and ends it where it breaks off or returns to itself. Stores
/// the numbers of its slots, oldest first, and gives how many there are.
std::uint16_t PoolList::cutChain(std::uint16_t (&order)[kPoolSlots]) noexcept {
  bool inList[kPoolSlots] = {};
  std::uint16_t slot = read(section_.start_of_list);
  if (slot >= kPoolSlots || !isTaken(slot)) return 0;
  for (std::uint16_t messages = 0;;) {
    order[messages++] = slot;
    inList[slot] = true;
    const std::uint16_t next = read(section_.slots[slot].next);
    if (next == slot) return messages;
    if (next >= kPoolSlots || !isTaken(next) || inList[next]) {
      decide(section_.slots[slot].next, slot);
      return messages;
    }
    slot = next;
  }
}

void PoolList::repair() noexcept {
  poolStep(PoolStep::RepairBegun);
  std::uint16_t order[kPoolSlots];
  const std::uint16_t messages = cutChain(order);
  poolStep(PoolStep::RepairCut);
  // Strays are freed before the head of the list moves: a repair that is killed in between must
  // not let the next one find a stray at the head.
  bool inList[kPoolSlots] = {};
  for (std::uint16_t i = 0; i < messages; ++i) inList[order[i]] = true;
  for (std::uint16_t slot = 0; slot < kPoolSlots; ++slot) {
    if (!inList[slot]) decide(section_.slots[slot].Taken, std::uint32_t{0});
  }
  poolStep(PoolStep::RepairFreed);
  if (messages == 0) decide(section_.start_of_list, std::uint16_t{0});
  for (std::uint16_t i = 0; i < messages; ++i) {
    PoolSlot& taken = section_.slots[order[i]];
    taken.prev = order[i == 0 ? 0 : i - 1];
    taken.index = order[i];
    slot(order[i]);  // ends the text
  }
  poolStep(PoolStep::RepairBackLinked);
  section_.end_of_list = messages == 0 ? std::uint16_t{0} : order[messages - 1];
  poolStep(PoolStep::RepairEndsSet);
  setCount(messages);
  poolStep(PoolStep::RepairCounted);
}

bool PoolList::hasMessages() const noexcept {
  const std::uint16_t first = read(section_.start_of_list);
  return first >= kPoolSlots || isTaken(first);
}

bool PoolList::isSound() const noexcept {
  bool inList[kPoolSlots] = {};
  std::uint16_t messages = 0;
  std::uint16_t newest;
  if (!endsAgree(&newest)) return false;
  if (count() > 0) {
    std::uint16_t older = read(section_.start_of_list);
    std::uint16_t next;
    for (std::uint16_t at = older;; at = next) {
      if (at >= kPoolSlots || !isTaken(at) || inList[at]) return false;
      PoolSlot& slot = section_.slots[at];
      next = read(slot.next);
      if (slot.index != at || slot.prev != older) return false;
      if (textLength(slot.Msg, kPoolTextSize) == kPoolTextSize) return false;
      inList[at] = true;
      ++messages;
      older = at;
      if (next == at) break;
    }
    if (older != newest) return false;
  }
  if (messages != count()) return false;
  for (std::uint16_t at = 0; at < kPoolSlots; ++at) {
    if (isTaken(at) != inList[at]) return false;
  }
  return true;
}

const PoolSlot& PoolList::slot(std::uint16_t number) noexcept {
  PoolSlot& slot = section_.slots[number];
  // Written only where needed, so that looking does not take the memory from other processors.
  if (slot.Msg[kPoolTextSize - 1] != '\0') slot.Msg[kPoolTextSize - 1] = '\0';
  return slot;
}

}  // namespace qm
