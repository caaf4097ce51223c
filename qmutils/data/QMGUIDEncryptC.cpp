#include "qmutils/data/QMGUIDEncryptC.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <istream>
#include <string_view>

#include "qmutils/foundation/FileBuffer.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/guid.h"

constinit const GUID QMGUIDEncryptC::PRIVATE_GUID = {
    0xf08994be, 0xb4ff, 0x409f, {0x82, 0x40, 0xa7, 0x42, 0x19, 0x45, 0xd2, 0xd9}};
constinit const GUID QMGUIDEncryptC::PUBLIC_KEY = {
    0x49f56853, 0x0f77, 0x4d27, {0xb5, 0x30, 0x20, 0x9f, 0x7a, 0x41, 0xb2, 0x77}};

namespace {

using QMErrors::QMErrorT;

constexpr const char* kEncode = "QMGUIDEncryptC::Encode(): ";
constexpr const char* kDecode = "QMGUIDEncryptC::Decode(): ";

constexpr std::streamoff kMarkerLength = qm::platform::kGuidTextLength + 2;
constexpr std::size_t kSumDigits = 8;
/// Small enough to stay in the processor's first cache between reading and writing it.
constexpr std::size_t kBlockSize = 8 * 1024;

// The key's bytes in memory are those of the file.
static_assert(std::endian::native == std::endian::little);

struct SumText {
  explicit SumText(std::uint32_t sum) { std::snprintf(text, sizeof text, "%08x", sum); }
  char text[kSumDigits + 1];
};

/// False for anything but eight digits.
bool parseSum(const char* text, std::uint32_t* sum) {
  const auto [end, error] = std::from_chars(text, text + kSumDigits, *sum, 16);
  return error == std::errc() && end == text + kSumDigits;
}

/// Takes a marker from the stream as GuidC reads a GUID, but ends at the first character that
/// cannot belong to it, so that a long foreign file is not read to its end.
bool takeMarker(std::istream& is, const GUID& marker) {
  char expected[qm::platform::kGuidTextLength + 1];
  if (qm::platform::formatGuid(marker, expected) != 0) return false;
  const char* next = expected;
  bool opened = false;
  for (char c; is >> c;) {
    if (c == '}' && opened) return *next == '\0';
    if (c == '{') opened = true;
    if (c == '{' || c == '}') continue;
    if (c >= 'A' && c <= 'F') c += 'a' - 'A';
    if (*next == '\0' || c != *next++) return false;
  }
  return false;
}

/// Takes what the stream has at hand, at least one byte; 0 when the stream has ended or failed. A
/// larger request would lose the bytes before a failure.
std::size_t takeAvailable(std::istream& src, char (&block)[kBlockSize]) {
  const int first = src.get();
  if (!src) return 0;
  block[0] = static_cast<char>(first);
  const std::streamsize more = std::min<std::streamsize>(src.rdbuf()->in_avail(), kBlockSize - 1);
  if (more <= 0) return 1;
  src.read(block + 1, more);
  return 1 + static_cast<std::size_t>(src.gcount());
}

bool hasFailedBeforeItsEnd(const std::istream& src) {
  return src.bad() || (src.fail() && !src.eof());
}

unsigned char* bytesOf(char* block) { return reinterpret_cast<unsigned char*>(block); }

QMErrorT failedWriting(const char* label) {
  qm::logError(label, "failed writing dst.");
  return QMErrors::FailedToWriteToFile;
}

QMErrorT failedReading(const char* label) {
  qm::logError(label, "failed reading src.");
  return QMErrors::FailedToReadFromFile;
}

const char* shown(const char* name) { return name != nullptr ? name : "null"; }

/// A binary file with the stream over it.
class BinaryFile {
 public:
  BinaryFile(const char* name, const char* mode)
      : file_(qm::platform::openFile(name, mode)), buffer_(file_.get()), stream_(&buffer_) {}

  bool isOpen() const { return file_ != nullptr; }
  std::iostream& stream() { return stream_; }
  /// False when not all that was written is in the file.
  bool close() { return std::fclose(file_.release()) == 0; }

 private:
  qm::platform::FilePtr file_;
  qm::FileBuffer buffer_;
  std::iostream stream_;
};

/// Runs a stream form with a new file as its destination; `source` (null for none) must not be
/// that file under another name, as opening it would empty both.
template <class StreamForm>
QMErrorT intoFile(const char* label, const char* source, const char* name, StreamForm streamForm) {
  const bool same = source != nullptr && qm::platform::isSameFile(source, name);
  BinaryFile dst(same ? nullptr : name, "wb");
  if (!dst.isOpen()) {
    qm::logError(label, "failed opening output file");
    return QMErrors::FailedToOpenFile;
  }
  const QMErrorT result = streamForm(dst.stream());
  const bool complete = dst.close();
  return result == QMErrors::NoError && !complete ? failedWriting(label) : result;
}

}  // namespace

QMGUIDEncryptC::QMGUIDEncryptC(const GUID& key, std::iostream& stream, int mode)
    : m_Marker(PRIVATE_GUID), m_Key(key), m_pStream(&stream), m_bTransform(mode) {
  StartKeyStream();
}

/// The register is the key, masked by the marker of our files and by the marker found. It is
/// expanded once: each rotation by one bit gives one byte of the key stream, and after 128 of them
/// it is back at its beginning.
void QMGUIDEncryptC::StartKeyStream() {
  const GUID masks[] = {m_Key, m_Marker, PRIVATE_GUID};
  std::uint64_t low = 0, high = 0;
  for (const GUID& mask : masks) {
    std::uint64_t halves[2];
    std::memcpy(halves, &mask, sizeof halves);
    low ^= halves[0];
    high ^= halves[1];
  }
  for (std::size_t i = 0; i < kTurn; ++i) {
    m_KeyStream[i] = m_KeyStream[i + kTurn] = static_cast<unsigned char>(low);
    const std::uint64_t lowest = low;
    low = low >> 1 | high << 63;
    high = high >> 1 | lowest << 63;
  }
  m_KeyAt = 0;
}

/// Runs `step(byte, key byte)` over the data. Whole turns of the key need no look at where it
/// stands, so the compiler makes vectors of them.
template <class Step>
void QMGUIDEncryptC::Apply(Step step, unsigned char* data, std::size_t size) {
  static constexpr unsigned char kNoKey[2 * kTurn] = {};
  const unsigned char* const keyStream = m_bTransform != 0 ? m_KeyStream : kNoKey;
  if (size >= kTurn) {
    unsigned char turn[kTurn];
    std::memcpy(turn, keyStream + m_KeyAt, kTurn);
    for (; size >= kTurn; size -= kTurn, data += kTurn) {
      for (std::size_t i = 0; i < kTurn; ++i) step(data[i], turn[i]);
    }
  }
  for (std::size_t i = 0; i < size; ++i) step(data[i], keyStream[m_KeyAt + i]);
  m_KeyAt = (m_KeyAt + size) % kTurn;
}

void QMGUIDEncryptC::EncodeBytes(unsigned char* data, std::size_t size) {
  std::uint32_t sum = 0;
  const auto step = [&sum](unsigned char& byte, unsigned char key) {
    byte ^= key;
    sum += byte;
  };
  Apply(step, data, size);
  m_SumWritten += sum;
}

void QMGUIDEncryptC::DecodeBytes(unsigned char* data, std::size_t size) {
  std::uint32_t sum = 0;
  const auto step = [&sum](unsigned char& byte, unsigned char key) {
    sum += byte;
    byte ^= key;
  };
  Apply(step, data, size);
  m_SumRead += sum;
}

void QMGUIDEncryptC::CheckState(std::iostream& stream, int writing) {
  if (writing != 0 && m_bHeaderToWrite != 0) WriteHeader();
  if (writing == 0 && m_bHeaderToRead != 0) ReadHeader(stream);
}

/// The sum is not known yet; close() puts it in its place.
void QMGUIDEncryptC::WriteHeader() {
  m_HeaderAt = m_pStream->tellp();
  *m_pStream << m_Marker;
  m_pStream->write(SumText(0).text, kSumDigits);
  m_bHeaderToWrite = 0;
  m_bHeaderWritten = 1;
}

void QMGUIDEncryptC::ReadHeader(std::iostream& stream) {
  m_bHeaderToRead = 0;
  const std::streampos start = stream.tellg();
  char digits[kSumDigits];
  if (takeMarker(stream, PRIVATE_GUID) && stream.read(digits, kSumDigits) &&
      parseSum(digits, &m_HeaderSum)) {
    m_Marker.SetGUID(PRIVATE_GUID);
    StartKeyStream();
    m_bHeaderVerified = 1;
    return;
  }
  // The caller may want to read the plain file, so it stands where it stood, and only the failure
  // remains to be cleared.
  stream.clear(stream.rdstate() & std::ios::badbit);
  if (start != std::streampos(-1)) stream.seekg(start);
  stream.setstate(std::ios::failbit);
  m_bTransform = 0;
}

bool QMGUIDEncryptC::RewriteSum() {
  m_pStream->flush();  // a full disk shows here as what it is, not as a failure to seek
  const std::streamoff end = m_pStream->tellp();
  if (m_HeaderAt < 0 || end < 0) return false;
  m_pStream->seekp(m_HeaderAt + kMarkerLength);
  m_pStream->write(SumText(m_SumWritten).text, kSumDigits);
  m_pStream->flush();
  // A file that was opened for appending takes the sum at its end, wherever one seeks.
  const std::streamoff behindSum = m_pStream->tellp();
  if (behindSum != m_HeaderAt + kMarkerLength + static_cast<std::streamoff>(kSumDigits)) {
    return false;
  }
  m_pStream->seekp(end);
  return !m_pStream->fail();
}

int QMGUIDEncryptC::eof() const { return m_pStream->eof(); }
int QMGUIDEncryptC::bad() const { return m_pStream->bad(); }
int QMGUIDEncryptC::fail() const { return m_pStream->fail(); }

QMErrorT QMGUIDEncryptC::close() {
  if (m_bHeaderWritten != 0 && !RewriteSum()) return QMErrors::FailedToWriteToFile;
  const bool altered = m_bHeaderVerified != 0 && m_HeaderSum != m_SumRead;
  return altered ? QMErrors::ChecksumError : QMErrors::NoError;
}

std::iostream& operator>>(std::iostream& src, QMGUIDEncryptC& enc) {
  enc.CheckState(src, 1);
  char byte;
  if (!src.get(byte)) return src;
  enc.EncodeBytes(bytesOf(&byte), 1);
  enc.m_pStream->put(byte);
  return src;
}

std::iostream& operator<<(std::iostream& dst, QMGUIDEncryptC& enc) {
  enc.CheckState(*enc.m_pStream, 0);
  char byte;
  if (!enc.m_pStream->get(byte)) return dst;
  enc.DecodeBytes(bytesOf(&byte), 1);
  dst.put(byte);
  return dst;
}

QMErrorT QMGUIDEncryptC::Encode(std::iostream& src, std::iostream& dst, const GUID& key) {
  QMGUIDEncryptC enc(key, dst, 1);
  if (!hasFailedBeforeItsEnd(src)) enc.CheckState(src, 1);
  char block[kBlockSize];
  while (dst) {
    const std::size_t size = takeAvailable(src, block);
    if (size == 0) break;
    enc.EncodeBytes(bytesOf(block), size);
    dst.write(block, static_cast<std::streamsize>(size));
  }
  if (!dst) return failedWriting(kEncode);
  QMErrorT result = QMErrors::NoError;
  if (hasFailedBeforeItsEnd(src)) result = failedReading(kEncode);
  const QMErrorT closed = enc.close();
  if (!dst) return failedWriting(kEncode);
  if (closed != QMErrors::NoError) {  // it takes everything, but cannot seek
    qm::logError(kEncode, "Invalid encoding in src.");
    return closed;
  }
  return result;
}

QMErrorT QMGUIDEncryptC::Decode(std::iostream& src, std::iostream& dst, const GUID& key) {
  return QMGUIDEncryptC(key, src, 1).DecodeInto(dst);
}

QMErrorT QMGUIDEncryptC::DecodeInto(std::iostream& dst) {
  CheckState(*m_pStream, 0);
  char block[kBlockSize];
  while (dst) {
    const std::size_t size = takeAvailable(*m_pStream, block);
    if (size == 0) break;
    DecodeBytes(bytesOf(block), size);
    dst.write(block, static_cast<std::streamsize>(size));
  }
  // A sum of half a file says nothing, so it is not judged after either failure.
  if (!dst) return failedWriting(kDecode);
  if (hasFailedBeforeItsEnd(*m_pStream)) return failedReading(kDecode);
  if (close() != QMErrors::NoError) {
    qm::logError(kDecode, "Invalid encoding in src.");
    return QMErrors::InvalidObjectEncoding;
  }
  return QMErrors::NoError;
}

QMErrorT QMGUIDEncryptC::Encode(std::iostream& src, const char* dstFile, const GUID& key) {
  const QMErrorT result = intoFile(kEncode, nullptr, dstFile,
                                   [&](std::iostream& dst) { return Encode(src, dst, key); });
  if (result != QMErrors::NoError) qm::logError(kEncode, "failed encoding: ", shown(dstFile));
  return result;
}

QMErrorT QMGUIDEncryptC::Encode(const char* srcFile, const char* dstFile, const GUID& key) {
  QMErrorT result = QMErrors::FailedToOpenFile;
  BinaryFile src(srcFile, "rb");
  if (src.isOpen()) {
    result = intoFile(kEncode, srcFile, dstFile,
                      [&](std::iostream& dst) { return Encode(src.stream(), dst, key); });
  } else {
    qm::logError(kEncode, "failed opening input file");
  }
  if (result != QMErrors::NoError) {
    // Programs that read logs know this line by "decoding".
    qm::logError(kEncode, "failed decoding: ", shown(srcFile), " into: ", shown(dstFile));
  }
  return result;
}

QMErrorT QMGUIDEncryptC::Decode(const char* srcFile, std::iostream& dst, const GUID& key) {
  BinaryFile src(srcFile, "rb");
  if (!src.isOpen()) {
    qm::logError(kDecode, "failed opening input file");
    return QMErrors::FailedToOpenFile;
  }
  const QMErrorT result = Decode(src.stream(), dst, key);
  if (result != QMErrors::NoError) qm::logError(kDecode, "failed decoding: ", shown(srcFile));
  return result;
}

QMErrorT QMGUIDEncryptC::Decode(const char* srcFile, const char* dstFile, const GUID& key) {
  BinaryFile src(srcFile, "rb");
  if (!src.isOpen()) {
    qm::logError(kDecode, "failed opening input file");
    return QMErrors::FailedToOpenFile;
  }
  // The header comes first, so that a file which is none leaves the destination alone.
  QMGUIDEncryptC enc(key, src.stream(), 1);
  enc.CheckState(src.stream(), 0);
  const QMErrorT result = enc.fail() != 0
                              ? failedReading(kDecode)
                              : intoFile(kDecode, srcFile, dstFile,
                                         [&](std::iostream& dst) { return enc.DecodeInto(dst); });
  if (result != QMErrors::NoError) {
    qm::logError(kDecode, "failed decoding: ", shown(srcFile), " into: ", shown(dstFile));
  }
  return result;
}
