// The fixed numbers of the messages between a control program and its imager.
#pragma once

namespace qm::imager {

// Types.
inline constexpr int kTypeReply = 0;
inline constexpr int kTypeProgress = 1;  ///< from the imager: how far a job has come
inline constexpr int kTypeError = 2;     ///< from the imager: a result code and its story
inline constexpr int kTypeCommand = 3;   ///< to the imager

// Codes of type 0.
inline constexpr int kCodeStarted = 0;
inline constexpr int kCodeCopyInfo = 144;
inline constexpr int kCodeWhoAmI = 194;

// Codes of type 3.
inline constexpr int kCodeStop = 5;
inline constexpr int kCodeExpose = 135;

}  // namespace qm::imager
