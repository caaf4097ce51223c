// The shared objects of the message pool by name. The first three names are published: every
// process of the suite knows them.
#pragma once

#include <cstddef>

#include "qmutils/comms/PoolSection.h"
#include "qmutils/platform/named_objects.h"

namespace qm {

inline constexpr platform::SharedObjectNames kPoolObjectNames = {
    "Selvane_Comms_Mutex",     "Selvane_Comms_Event", "Selvane_Comms_Queue",
    "Selvane_Comms_Doorbells", "Selvane_Comms_Users",
};

inline constexpr platform::SharedSectionKind kPoolSectionKind = {
    sizeof(PoolSection), offsetof(PoolSection, magic), kPoolMagic};

}  // namespace qm
