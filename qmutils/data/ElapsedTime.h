// Elapsed times as text, in the two forms of the typed value. Internal to the data floor. Pure
// functions; any thread may call them.
#pragma once

#include <cstddef>
#include <string_view>

namespace qm {

/// Room for each of the texts below, with the final NUL.
inline constexpr int kElapsedTimeSize = 48;

/// 3725.5 s: "00000001:02:05.500".
void elapsedTimeText(char (&text)[kElapsedTimeSize], double seconds) noexcept;
/// 3725.5 s: "1h 02m 05s".
void elapsedTimeTextHMS(char (&text)[kElapsedTimeSize], double seconds) noexcept;

/// Seconds of a text in either form. Fields may be shorter or longer and leading ones missing: "5"
/// are seconds, "2:05" minutes and seconds. What follows the '.' is a decimal fraction. Reading
/// stops at what does not belong there; `*end` (may be null) receives that place.
double secondsOfText(std::string_view text, std::size_t* end = nullptr) noexcept;

}  // namespace qm
