// A key of 16 bytes and any bytes, once as an encoded file and once as a plain one. Byte by byte
// and in blocks the library reads and writes the same, and what it encodes comes back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "qmutils/data/QMGUIDEncryptC.h"

namespace {

void dropLine(unsigned, int, char*) {}

unsigned silence() { return 0; }

void require(bool holds) {
  if (!holds) std::abort();
}

void decodeAnything(const std::string& file, const GUID& key) {
  std::stringstream src(file), byteSrc(file), dst, byteDst;
  const QMErrors::QMErrorT code = QMGUIDEncryptC::Decode(src, dst, key);
  QMGUIDEncryptC enc(key, byteSrc, 1);
  while (!enc.fail()) byteDst << enc;
  const QMErrors::QMErrorT closed = enc.close();
  require(dst.view() == byteDst.view() && src.rdstate() == byteSrc.rdstate());
  if (code == QMErrors::FailedToReadFromFile) {
    require(dst.view().empty() && !src.eof());
    src.clear();
    require(src.tellg() == std::streampos(0));
  } else {
    require((code == QMErrors::NoError) == (closed == QMErrors::NoError));
  }
}

void roundTrip(const std::string& plain, const GUID& key) {
  std::stringstream src(plain), byteSrc(plain), file, byteFile, back;
  require(QMGUIDEncryptC::Encode(src, file, key) == QMErrors::NoError);
  QMGUIDEncryptC enc(key, byteFile, 1);
  while (byteSrc >> enc) {
  }
  require(enc.close() == QMErrors::NoError);
  require(file.view() == byteFile.view() && src.rdstate() == byteSrc.rdstate());
  require(QMGUIDEncryptC::Decode(file, back, key) == QMErrors::NoError);
  require(back.view() == plain);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QMLogStreamC hooks(dropLine, nullptr, nullptr, silence);
  GUID key;
  if (size < sizeof key) return 0;
  std::memcpy(&key, data, sizeof key);
  const std::string bytes(reinterpret_cast<const char*>(data) + sizeof key, size - sizeof key);
  decodeAnything(bytes, key);
  roundTrip(bytes, key);
  return 0;
}
