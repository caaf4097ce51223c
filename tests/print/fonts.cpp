// The fonts of all tests of this program, and of the programs they launch.
#include <cstdlib>

namespace {

[[maybe_unused]] const int chosen = setenv("FONTCONFIG_FILE", FONTS, 1);

}  // namespace
