#include "qmutils/imager/EngineClipDataC.h"

#include <cstdio>
#include <ostream>

namespace {

struct Flag {
  const char* name;
  std::int32_t EngineClipDataS::*field;
};

struct Margin {
  const char* name;
  std::uint32_t EngineClipDataS::*field;
};

constexpr Flag kFlags[] = {
    {"m_bEnableClipping", &EngineClipDataS::m_bEnableClipping},
    {"m_bClipColor", &EngineClipDataS::m_bClipColor},
};

constexpr Margin kMargins[] = {
    {"m_nFastLeadingPixels", &EngineClipDataS::m_nFastLeadingPixels},
    {"m_nFastTrailingPixels", &EngineClipDataS::m_nFastTrailingPixels},
    {"m_nSlowLeadingLines", &EngineClipDataS::m_nSlowLeadingLines},
    {"m_nSlowTrailingLines", &EngineClipDataS::m_nSlowTrailingLines},
};

template <class... Values>
void putLine(std::ostream& os, const char* format, Values... values) {
  char line[80];
  os.write(line, std::snprintf(line, sizeof line, format, values...));
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const EngineClipDataC& clip) {
  for (const Flag& flag : kFlags) {
    putLine(os, "%s = %s\n", flag.name, clip.*flag.field != 0 ? "TRUE" : "FALSE");
  }
  for (const Margin& margin : kMargins) {
    const std::uint32_t value = clip.*margin.field;
    putLine(os, "%s = %x, (%u)\n", margin.name, value, value);
  }
  return os;
}

QMLogStreamC& operator<<(QMLogStreamC& log, const EngineClipDataC& clip) {
  if (!log.IsValidDebugLevel()) return log;
  if (std::ostream* os = log.GetOstream()) *os << clip;
  return log;
}
