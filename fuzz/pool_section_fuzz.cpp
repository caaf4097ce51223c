// The pool's section with anything in it: sending, taking, looking and repairing never leave it,
// never walk without end, and after a repair the list is sound.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "qmutils/comms/PoolList.h"

using namespace qm;

namespace {

void demand(bool condition) {
  if (!condition) std::abort();
}

/// Reads the input as a list of scribbles: where, and two bytes of what.
void scribble(PoolSection* section, const std::uint8_t* data, std::size_t size) {
  auto* bytes = reinterpret_cast<std::uint8_t*>(section);
  for (; size >= 4; data += 4, size -= 4) {
    const std::size_t place = (data[0] | data[1] << 8) % (sizeof(PoolSection) - 1);
    bytes[place] = data[2];
    bytes[place + 1] = data[3];
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const auto section = std::make_unique<PoolSection>();
  PoolList list(*section);
  list.initialise();
  for (int i = 0; i < data[0]; ++i) list.append("text", static_cast<std::uint16_t>(i % 3));
  scribble(section.get(), data + 2, size - 2);

  char buffer[256];
  for (int i = 0; i < 16; ++i) {
    const bool add = (data[1] >> (i % 8) & 1) != 0;
    const auto id = static_cast<std::uint16_t>(1 + i % 2);
    const bool damaged = add ? list.append("more", id) == PoolAppend::Damaged
                             : list.take(id, buffer, sizeof buffer) == PoolTake::Damaged;
    int seen = 0;
    const bool walked = list.visit([&](const PoolSlot& slot) {
      demand(std::memchr(slot.Msg, '\0', sizeof slot.Msg) != nullptr);
      ++seen;
      return true;
    });
    demand(seen <= kPoolSlots);
    if (!damaged && walked) continue;
    list.repair();
    demand(list.isSound());
  }
  // Whatever else is wrong: a repair makes it whole, once and for all.
  list.repair();
  demand(list.isSound());
  const std::vector<std::uint8_t> repaired(reinterpret_cast<std::uint8_t*>(section.get()),
                                           reinterpret_cast<std::uint8_t*>(section.get() + 1));
  list.repair();
  demand(
      std::equal(repaired.begin(), repaired.end(), reinterpret_cast<std::uint8_t*>(section.get())));
  while (list.take(1, buffer, sizeof buffer) == PoolTake::Taken) demand(list.isSound());
  return 0;
}
