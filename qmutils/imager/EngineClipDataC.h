// The engine's clipping margins: what is cut off at each edge of an image.
//
// EngineClipDataS is the plain record that programs exchange; EngineClipDataC is the same with a
// beginning of zeroes and a text form, and serves wherever the record is wanted. Values; one thread
// at a time.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/platform/export.h"

struct EngineClipDataS {
  std::int32_t m_bEnableClipping;
  std::int32_t m_bClipColor;
  std::uint32_t m_nFastLeadingPixels;  ///< fast: around the drum
  std::uint32_t m_nFastTrailingPixels;
  std::uint32_t m_nSlowLeadingLines;  ///< slow: along the carriage
  std::uint32_t m_nSlowTrailingLines;
};
static_assert(sizeof(EngineClipDataS) == 24);

class QMUTILS_API EngineClipDataC : public EngineClipDataS {
 public:
  EngineClipDataC() noexcept : EngineClipDataS{} {}
  EngineClipDataC(const EngineClipDataS& record) noexcept : EngineClipDataS(record) {}
};

/// One line a field: "m_bClipColor = TRUE", "m_nFastLeadingPixels = 1a, (26)". The stream's format
/// does not touch it.
QMUTILS_API std::ostream& operator<<(std::ostream& os, const EngineClipDataC& clip);
QMUTILS_API QMLogStreamC& operator<<(QMLogStreamC& log, const EngineClipDataC& clip);
