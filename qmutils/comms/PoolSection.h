// The shared section of the message pool, byte for byte. Every process of the suite on a machine
// maps the same bytes, so nothing here may ever move.
//
// The messages form one list in sending order, from start_of_list to end_of_list, whatever their
// destinations. In an empty pool both ends are 0 and every slot is free. Access only with the
// pool's mutex held; nMessages alone may be read without.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qm {

inline constexpr std::uint16_t kPoolSlots = 200;
inline constexpr std::uint32_t kPoolMagic = 0x27111996u;
/// From here on senders should hold back (90 % of the slots).
inline constexpr std::uint16_t kPoolOverload = 180;
/// With its NUL.
inline constexpr std::size_t kPoolTextSize = 256;

struct PoolSlot {
  char Msg[kPoolTextSize];  ///< NUL-terminated, at most 255 characters
  std::uint16_t DestID;     ///< identifier of the receiver
  std::uint16_t reserved0;
  std::uint32_t Taken;  ///< not 0 while the slot holds a message
  std::uint16_t next;   ///< the next newer message; the newest points at itself
  std::uint16_t prev;   ///< the next older message; the oldest points at itself
  std::uint16_t index;  ///< the slot's own number
  std::uint16_t reserved1;
};

struct PoolSection {
  std::uint16_t nMessages;
  std::uint16_t reserved;
  std::uint32_t magic;          ///< kPoolMagic once the pool is initialised
  std::uint16_t start_of_list;  ///< slot of the oldest message
  std::uint16_t end_of_list;    ///< slot of the newest message
  PoolSlot slots[kPoolSlots];
};

static_assert(offsetof(PoolSlot, Msg) == 0);
static_assert(offsetof(PoolSlot, DestID) == 256);
static_assert(offsetof(PoolSlot, Taken) == 260);
static_assert(offsetof(PoolSlot, next) == 264);
static_assert(offsetof(PoolSlot, prev) == 266);
static_assert(offsetof(PoolSlot, index) == 268);
static_assert(sizeof(PoolSlot) == 272);
static_assert(offsetof(PoolSection, nMessages) == 0);
static_assert(offsetof(PoolSection, magic) == 4);
static_assert(offsetof(PoolSection, start_of_list) == 8);
static_assert(offsetof(PoolSection, end_of_list) == 10);
static_assert(offsetof(PoolSection, slots) == 12);
static_assert(sizeof(PoolSection) == 54'412);

}  // namespace qm
