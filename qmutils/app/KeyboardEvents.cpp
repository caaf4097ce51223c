#include "qmutils/app/KeyboardEvents.h"

#include "qmutils/foundation/Immortal.h"

namespace qm {

QMWindowsKeyboardEventMultiCasterC& keyboardEvents() noexcept {
  static Immortal<QMWindowsKeyboardEventMultiCasterC> multicaster;
  return multicaster.value;
}

}  // namespace qm
