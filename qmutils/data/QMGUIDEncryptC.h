// Data files that an operator can neither read nor edit with a text editor, and that show when they
// were altered. This is no cipher: whoever has the program has the key.
//
//   QMGUIDEncryptC::Encode(settings, "oem.dat", QMGUIDEncryptC::GetPublicKey());
//   QMGUIDEncryptC::Decode("oem.dat", settings, QMGUIDEncryptC::GetPublicKey());
//
// An encoded file has 46 bytes of header and then one byte for each byte of the source:
//
//   0   38  the marker GUID in braces, in lower case
//   38   8  the sum of the encoded bytes modulo 2^32, as 8 lower-case hexadecimal digits
//   46   n  the encoded bytes
//
// The n-th byte is XORed with the lowest byte of the key, taken as a 128-bit little-endian number
// and rotated right by n bits. The sum covers the encoded bytes, so another key gives other bytes
// but no error.
//
// Encode() and Decode() work in blocks. The operators take one byte each, with the same results. A
// stream that is at its end counts as empty; one that was told to throw does so. The header may
// begin anywhere in a stream; the destination of an encoding must be able to seek, as the sum is
// known at the end. An object belongs to one thread at a time and owns no stream.
//
// Codes: 1001 a file that does not open, or a destination that is the source under some name; 2055
// a destination that takes no more, or cannot seek; 2056 a source that fails or has no header;
// 33537 a source whose sum is wrong. What was written stays. Encode() and Decode() log each
// failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "qmutils/data/GuidC.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API QMGUIDEncryptC {
 public:
  /// The marker of encoded files. Programs recognise each other's files by it.
  static const GUID PRIVATE_GUID;
  /// The key of programs that have none of their own.
  static const GUID PUBLIC_KEY;
  static const GUID& GetPublicKey() { return PUBLIC_KEY; }

  /// Reads from or writes to `stream`, which must outlive the object. With `mode` zero bytes pass
  /// unchanged, with header and sum.
  QMGUIDEncryptC(const GUID& key, std::iostream& stream, int mode);
  /// The copy works on the same stream.
  QMGUIDEncryptC(const QMGUIDEncryptC&) = default;
  virtual ~QMGUIDEncryptC() = default;

  /// The destination takes the whole source, from where it stands to its end. Without a header in
  /// the source (2056) Decode() opens and writes nothing, and the source stands where it stood,
  /// failed but not at its end.
  static QMErrors::QMErrorT Encode(std::iostream& src, std::iostream& dst, const GUID& key);
  static QMErrors::QMErrorT Encode(std::iostream& src, const char* dstFile, const GUID& key);
  static QMErrors::QMErrorT Encode(const char* srcFile, const char* dstFile, const GUID& key);
  static QMErrors::QMErrorT Decode(std::iostream& src, std::iostream& dst, const GUID& key);
  static QMErrors::QMErrorT Decode(const char* srcFile, std::iostream& dst, const GUID& key);
  static QMErrors::QMErrorT Decode(const char* srcFile, const char* dstFile, const GUID& key);

  // The state of the wrapped stream.
  int eof() const;
  int bad() const;
  int fail() const;

  /// Writes the sum into the header (2055 when the stream does not take it), or compares the sum
  /// read: 806 when it differs. The stream then stands where it stood.
  QMErrors::QMErrorT close();

 private:
  friend QMUTILS_API std::iostream& operator>>(std::iostream& src, QMGUIDEncryptC& enc);
  friend QMUTILS_API std::iostream& operator<<(std::iostream& dst, QMGUIDEncryptC& enc);

  /// One turn of the key.
  static constexpr std::size_t kTurn = 128;

  void CheckState(std::iostream& stream, int writing);
  void WriteHeader();
  void ReadHeader(std::iostream& stream);
  bool RewriteSum();
  QMErrors::QMErrorT DecodeInto(std::iostream& dst);
  void StartKeyStream();
  void EncodeBytes(unsigned char* data, std::size_t size);
  void DecodeBytes(unsigned char* data, std::size_t size);
  template <class Step>
  void Apply(Step step, unsigned char* data, std::size_t size);

  GuidC m_Marker;
  std::uint32_t m_HeaderSum = 0;
  GUID m_Key;
  unsigned char m_KeyStream[2 * kTurn];  ///< two turns, so that one can begin at any byte
  std::size_t m_KeyAt = 0;               ///< how far the key is rotated
  std::iostream* m_pStream;
  int m_bTransform;
  int m_bHeaderToWrite = 1;
  int m_bHeaderWritten = 0;
  int m_bHeaderVerified = 0;
  int m_bHeaderToRead = 1;
  std::uint32_t m_SumWritten = 0;
  std::uint32_t m_SumRead = 0;
  std::int64_t m_HeaderAt = -1;  ///< where the written header begins
};

/// Encodes one byte: takes it from `src` and writes it to the object's stream, behind the header.
QMUTILS_API std::iostream& operator>>(std::iostream& src, QMGUIDEncryptC& enc);
/// Decodes one byte: takes it from the object's stream, behind the header, and writes it to `dst`.
QMUTILS_API std::iostream& operator<<(std::iostream& dst, QMGUIDEncryptC& enc);
