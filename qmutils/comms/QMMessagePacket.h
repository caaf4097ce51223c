// One message as a plain record, for callers that fill it and pass it by reference; and a record
// with room for the texts of any message, to receive one.
#pragma once

namespace QMErrors {

/// The record never owns its buffers: both belong to the caller, who also sets their sizes before
/// a message is read into it.
struct QMMessagePacketT {
  int nType = 0;
  int nCode = 0;
  unsigned short nID = 0;
  int nVal = 0;
  char* pString = nullptr;            ///< main text; null counts as empty
  unsigned short nStringSize = 0;     ///< capacity of pString in bytes, NUL included
  char* pQualifier = nullptr;         ///< second text; null counts as empty
  unsigned short nQualifierSize = 0;  ///< capacity of pQualifier in bytes, NUL included
};

}  // namespace QMErrors

namespace qm {

/// Room for any text of a message with its NUL.
inline constexpr unsigned short kMessageTextSize = 257;

/// A record whose texts lie in the object itself: any message of the pool can be read into it.
class MessagePacket : public QMErrors::QMMessagePacketT {
 public:
  MessagePacket() {
    pString = string_;
    nStringSize = kMessageTextSize;
    pQualifier = qualifier_;
    nQualifierSize = kMessageTextSize;
  }
  MessagePacket(const MessagePacket&) = delete;
  MessagePacket& operator=(const MessagePacket&) = delete;

 private:
  char string_[kMessageTextSize] = "";
  char qualifier_[kMessageTextSize] = "";
};

}  // namespace qm
