#include "qmutils/data/QMGUIDEncryptC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bitset>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

using QMErrors::NoError;
using QMErrors::QMErrorT;

constexpr QMErrorT kUnopened = QMErrors::FailedToOpenFile;
constexpr QMErrorT kUnwritten = QMErrors::FailedToWriteToFile;
constexpr QMErrorT kUnread = QMErrors::FailedToReadFromFile;
constexpr QMErrorT kAltered = QMErrors::InvalidObjectEncoding;

// Installed programs have files with this marker and this key.
const std::string kMarker = "{f08994be-b4ff-409f-8240-a7421945d2d9}";
constexpr unsigned char kPublicKey[] = {0x53, 0x68, 0xf5, 0x49, 0x77, 0x0f, 0x27, 0x4d,
                                        0xb5, 0x30, 0x20, 0x9f, 0x7a, 0x41, 0xb2, 0x77};
constexpr std::size_t kHeaderSize = 46;
const GUID& kKey = QMGUIDEncryptC::PUBLIC_KEY;

const std::string kEncodeError = " ERROR: QMGUIDEncryptC::Encode(): ";
const std::string kDecodeError = " ERROR: QMGUIDEncryptC::Decode(): ";

std::string sample(std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(i * 37 + i / 11);
  return bytes;
}

/// The file as its description says, with the key as a row of bits.
std::string expectedFile(const std::string& plain) {
  std::bitset<128> key;
  for (std::size_t i = 0; i < 128; ++i) key[i] = (kPublicKey[i / 8] >> i % 8 & 1) != 0;
  std::string body;
  unsigned sum = 0;
  for (const char c : plain) {
    body += static_cast<char>(c ^ static_cast<char>((key & std::bitset<128>(255)).to_ulong()));
    sum += static_cast<unsigned char>(body.back());
    key = key >> 1 | key << 127;
  }
  char digits[9];
  std::snprintf(digits, sizeof digits, "%08x", sum);
  return kMarker + digits + body;
}

QMErrorT encodeByBytes(std::iostream& src, std::iostream& dst, int mode) {
  QMGUIDEncryptC enc(kKey, dst, mode);
  while (src >> enc) {
  }
  return enc.close();
}

QMErrorT decodeByBytes(std::iostream& src, std::iostream& dst, int mode) {
  QMGUIDEncryptC enc(kKey, src, mode);
  while (!enc.eof() && !enc.fail()) dst << enc;
  return enc.close();
}

std::string encoded(const std::string& plain, const GUID& key = kKey) {
  std::stringstream src(plain), dst;
  EXPECT_EQ(QMGUIDEncryptC::Encode(src, dst, key), NoError);
  return dst.str();
}

std::string decoded(const std::string& file, QMErrorT expected = NoError, const GUID& key = kKey) {
  std::stringstream src(file), dst;
  EXPECT_EQ(QMGUIDEncryptC::Decode(src, dst, key), expected);
  return dst.str();
}

/// Gives its text in pieces of different sizes, then ends or fails. Cannot seek.
class Pieces : public std::streambuf {
 public:
  Pieces(std::string text, bool fails) : text_(std::move(text)), fails_(fails) {}
  std::size_t given() const { return given_; }

 protected:
  int_type underflow() override {
    if (given_ == text_.size() && fails_) throw std::runtime_error("unplugged");
    if (given_ == text_.size()) return traits_type::eof();
    char* const piece = text_.data() + given_;
    pieces_ = pieces_ % 199 + 1;
    given_ += std::min(pieces_, text_.size() - given_);
    setg(piece, piece, text_.data() + given_);
    return traits_type::to_int_type(*piece);
  }

 private:
  std::string text_;
  const bool fails_;
  std::size_t given_ = 0, pieces_ = 0;
};

/// Takes a number of bytes and no more, those that are written again included.
class SmallDisk : public std::stringbuf {
 public:
  explicit SmallDisk(std::size_t room) : room_(room) {}

 protected:
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    std::streamsize taken = 0;
    for (; taken < count && room_ > 0; --room_) sputc(text[taken++]);
    return taken;
  }

 private:
  std::size_t room_;
};

class Pipe : public std::stringbuf {
  pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return -1; }
};

TEST(QMGUIDEncryptC, HasAFixedLayoutAndComesBackAtEveryLength) {
  EXPECT_EQ(std::memcmp(&QMGUIDEncryptC::GetPublicKey(), kPublicKey, 16), 0);
  for (std::size_t size = 0; size <= 300; ++size) {
    const std::string plain = sample(size), file = expectedFile(plain);
    std::stringstream src(plain), blockSrc(plain), dst, blockDst, back, blockBack;
    EXPECT_EQ(encodeByBytes(src, dst, 1), NoError);
    EXPECT_EQ(QMGUIDEncryptC::Encode(blockSrc, blockDst, kKey), NoError);
    ASSERT_EQ(dst.str(), file) << size;
    ASSERT_EQ(blockDst.str(), file) << size;
    EXPECT_EQ(blockSrc.rdstate(), src.rdstate());
    EXPECT_EQ(blockDst.tellp(), dst.tellp());
    EXPECT_EQ(decodeByBytes(dst, back, 1), NoError);
    EXPECT_EQ(QMGUIDEncryptC::Decode(blockDst, blockBack, kKey), NoError);
    ASSERT_EQ(back.str(), plain) << size;
    ASSERT_EQ(blockBack.str(), plain) << size;
    EXPECT_EQ(blockDst.rdstate(), dst.rdstate());
  }
  const std::string plain = sample(3'000'007), file = expectedFile(plain);
  Pieces pieces(plain, false), filePieces(file, false);  // blocks begin at any turn of the key
  std::iostream src(&pieces), fileSrc(&filePieces);
  std::stringstream dst, back;
  EXPECT_EQ(QMGUIDEncryptC::Encode(src, dst, kKey), NoError);
  EXPECT_TRUE(dst.view() == file);
  EXPECT_EQ(QMGUIDEncryptC::Decode(fileSrc, back, kKey), NoError);
  EXPECT_TRUE(back.view() == plain);
  EXPECT_TRUE(encoded(plain) == file && decoded(file) == plain);
}

TEST(QMGUIDEncryptC, KeyAndModeDecideAboutTheBytesOnly) {
  const std::string plain = sample(300);
  const std::string other = decoded(encoded(plain), NoError, QMGUIDEncryptC::PRIVATE_GUID);
  EXPECT_EQ(other.size(), plain.size());
  EXPECT_NE(other, plain);
  const std::string unchanged = encoded(plain, GUID{});
  EXPECT_EQ(unchanged.substr(kHeaderSize), plain);
  std::stringstream src(plain), dst, back;
  EXPECT_EQ(encodeByBytes(src, dst, 0), NoError);
  EXPECT_EQ(dst.str(), unchanged) << "mode 0: header and sum only";
  EXPECT_EQ(decodeByBytes(dst, back, 0), NoError);
  EXPECT_EQ(back.str(), plain);
}

TEST(QMGUIDEncryptC, EveryCutAndEveryTurnedBitShowsUnlessItChangesNothing) {
  const qmtest::LogCapture log;
  // Zeros encoded are the key, and the key encoded is zeros: here is one at the end.
  const std::string plain = sample(40) + encoded(std::string(41, '\0')).back();
  const std::string file = encoded(plain);
  ASSERT_EQ(file.back(), '\0');
  for (std::size_t size = 0; size < file.size(); ++size) {
    // Bytes of zero at the end of the file do not count in the sum.
    const bool seen = file.find_first_not_of('\0', size) != std::string::npos;
    const bool inHeader = size < kHeaderSize;
    EXPECT_EQ(decoded(file.substr(0, size), inHeader ? kUnread
                                            : seen   ? kAltered
                                                     : NoError),
              plain.substr(0, inHeader ? 0 : size - kHeaderSize));
  }
  for (std::size_t bit = 0; bit < file.size() * 8; ++bit) {
    const std::size_t at = bit / 8;
    std::string turned = file;
    turned[at] = static_cast<char>(turned[at] ^ 1 << bit % 8);
    const bool otherCase = turned[at] >= 'A' && turned[at] <= 'F';  // of a digit of the header
    const bool digit = std::isxdigit(static_cast<unsigned char>(turned[at])) != 0;
    QMErrorT expected = kAltered;
    if (at < kHeaderSize && otherCase) expected = NoError;
    if (at < kHeaderSize && !otherCase && (at < kMarker.size() || !digit)) expected = kUnread;
    SCOPED_TRACE(bit);
    EXPECT_EQ(decoded(turned, expected).size(), expected == kUnread ? 0 : plain.size());
  }
}

TEST(QMGUIDEncryptC, ADestinationThatTakesNoMoreEndsTheWork) {
  const std::string plain = sample(200), file = encoded(plain);
  const std::size_t enough = file.size() + 8;  // the sum is written twice
  for (std::size_t room = 0; room <= enough; ++room) {
    qmtest::LogCapture log;
    SmallDisk disk(room);
    std::iostream dst(&disk);
    std::stringstream src(plain);
    EXPECT_EQ(QMGUIDEncryptC::Encode(src, dst, kKey), room == enough ? NoError : kUnwritten);
    EXPECT_EQ(log.text(), room == enough ? "" : kEncodeError + "failed writing dst.\n");
    EXPECT_EQ(disk.str().size(), std::min(room, file.size()));
  }
  for (std::size_t room = 0; room <= plain.size(); ++room) {
    qmtest::LogCapture log;
    SmallDisk disk(room);
    std::iostream dst(&disk);
    std::stringstream src(file);
    const bool fits = room == plain.size();
    EXPECT_EQ(QMGUIDEncryptC::Decode(src, dst, kKey), fits ? NoError : kUnwritten);
    EXPECT_EQ(log.text(), fits ? "" : kDecodeError + "failed writing dst.\n");
    EXPECT_EQ(disk.str(), plain.substr(0, room));
  }
  qmtest::LogCapture log;
  Pipe pipe;
  std::iostream dst(&pipe);
  std::stringstream src(plain);
  EXPECT_EQ(QMGUIDEncryptC::Encode(src, dst, kKey), kUnwritten) << "the sum has no place";
  EXPECT_EQ(log.text(), kEncodeError + "Invalid encoding in src.\n");

  const qmtest::TempFolder folder;
  std::fstream appended(folder.file("appended"), std::ios::in | std::ios::out | std::ios::app);
  src.clear();
  src.seekg(0);
  EXPECT_EQ(QMGUIDEncryptC::Encode(src, appended, kKey), kUnwritten) << "it would stand at the end";
}

TEST(QMGUIDEncryptC, ASourceThatFailsIsAReadFailure) {
  const std::string plain = sample(200), file = encoded(plain);
  for (std::size_t size = 0; size < file.size(); ++size) {
    qmtest::LogCapture log;
    Pieces plainPieces(plain.substr(0, size), true), filePieces(file.substr(0, size), true);
    std::iostream plainSrc(&plainPieces), fileSrc(&filePieces);
    std::stringstream dst, back;
    EXPECT_EQ(QMGUIDEncryptC::Encode(plainSrc, dst, kKey), kUnread);
    EXPECT_EQ(decoded(dst.str()), plain.substr(0, size)) << "what was read is whole";
    EXPECT_EQ(QMGUIDEncryptC::Decode(fileSrc, back, kKey), kUnread);
    EXPECT_EQ(back.str(), plain.substr(0, size < kHeaderSize ? 0 : size - kHeaderSize));
    EXPECT_EQ(log.text(),
              kEncodeError + "failed reading src.\n" + kDecodeError + "failed reading src.\n");
  }
  qmtest::LogCapture log;
  std::stringstream ended("x"), broken("x"), dst, nothing;
  ended.ignore(5);
  EXPECT_EQ(QMGUIDEncryptC::Encode(ended, dst, kKey), NoError);
  EXPECT_EQ(dst.str(), kMarker + "00000000") << "a stream at its end is an empty one";
  EXPECT_EQ(QMGUIDEncryptC::Decode(ended, dst, kKey), kUnread);
  broken.setstate(std::ios::failbit);
  EXPECT_EQ(QMGUIDEncryptC::Encode(broken, nothing, kKey), kUnread);
  EXPECT_EQ(nothing.str(), "");
}

TEST(QMGUIDEncryptC, APlainSourceCanBeReadAfterwards) {
  for (const std::string& plain :
       {std::string(), std::string("[Plate]\nWidth=1030\n"), kMarker, kMarker + "0000000",
        kMarker + "0000000g", kMarker + " 00000000", kMarker + "-0000001", kMarker + "0x000001",
        kMarker.substr(1) + "00000000", kMarker.substr(0, 37) + "0}00000000"}) {
    qmtest::LogCapture log;
    std::stringstream src("before" + plain), dst;
    src.ignore(6);
    EXPECT_EQ(QMGUIDEncryptC::Decode(src, dst, kKey), kUnread) << plain;
    EXPECT_EQ(log.text(), kDecodeError + "failed reading src.\n");
    EXPECT_EQ(dst.str(), "");
    EXPECT_EQ(src.rdstate(), std::ios::failbit);
    src.clear();
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(src), {}), plain);
  }
  qmtest::LogCapture log;
  Pieces foreign(sample(10'000), false);
  std::iostream src(&foreign);
  std::stringstream dst;
  EXPECT_EQ(QMGUIDEncryptC::Decode(src, dst, kKey), kUnread);
  EXPECT_LT(foreign.given(), 10u) << "the first character told";
}

TEST(QMGUIDEncryptC, StartsAnywhereAndACopyGoesOn) {
  const std::string plain = sample(200), file = "0123456789" + expectedFile(plain);
  std::stringstream src(plain), stream("0123456789"), back;
  stream.seekp(0, std::ios::end);
  QMGUIDEncryptC first(kKey, stream, 1);
  for (int i = 0; i < 77; ++i) src >> first;
  QMGUIDEncryptC second(first);
  while (src >> second) {
  }
  EXPECT_EQ(second.close(), NoError);
  EXPECT_EQ(stream.str(), file);
  EXPECT_EQ(stream.tellp(), std::streampos(static_cast<std::streamoff>(file.size())));
  EXPECT_FALSE(second.eof() || second.bad() || second.fail());

  stream.str(file.substr(0, file.size() - 1));
  stream.seekg(10);
  QMGUIDEncryptC reader(kKey, stream, 1);
  while (!reader.eof()) back << reader;
  EXPECT_EQ(reader.close(), QMErrors::ChecksumError);
  EXPECT_EQ(back.str() + plain.back(), plain);
}

TEST(QMGUIDEncryptC, FilesAreOpenedAndTheirFailuresNamed) {
  const qmtest::TempFolder folder;
  const std::string inName = folder.file("in"), fileName = folder.file("file");
  const std::string outName = folder.file("out"), noneName = folder.file("none/file");
  const char *in = inName.c_str(), *file = fileName.c_str(), *out = outName.c_str();
  const char *none = noneName.c_str(), *full = "/dev/full";
  const std::string plain = sample(50'000);
  std::stringstream src(plain), dst;
  qmtest::writeFile(in, plain);
  using C = QMGUIDEncryptC;
  EXPECT_EQ(C::Encode(in, file, kKey), NoError);
  EXPECT_TRUE(qmtest::readFile(file) == expectedFile(plain));
  EXPECT_EQ(C::Decode(file, out, kKey), NoError);
  EXPECT_TRUE(qmtest::readFile(out) == plain);
  EXPECT_EQ(C::Encode(src, out, kKey), NoError);
  EXPECT_EQ(C::Decode(out, dst, kKey), NoError);
  EXPECT_TRUE(dst.view() == plain);

  qmtest::writeFile(in, "short");  // fits into every buffer on the way to the full disk
  EXPECT_EQ(C::Encode(in, file, kKey), NoError);
  const std::string otherName = folder.file("another name of in");
  const char* const other = otherName.c_str();
  std::filesystem::create_hard_link(in, other);
  const std::string noInput = "failed opening input file\n";
  const std::string noOutput = "failed opening output file\n", noRoom = "failed writing dst.\n";
  const auto names = [](const std::string& from, const std::string& to) {
    return "failed decoding: " + from + " into: " + to + "\n";
  };
  const struct {
    std::function<QMErrorT()> operation;
    QMErrorT code;
    std::vector<std::string> lines;
  } kFailures[] = {
      {[&] { return C::Encode(none, out, kKey); }, kUnopened, {noInput, names(none, out)}},
      {[&] { return C::Encode(in, none, kKey); }, kUnopened, {noOutput, names(in, none)}},
      {[&] { return C::Encode(in, full, kKey); }, kUnwritten, {noRoom, names(in, full)}},
      {[&] { return C::Encode(src, nullptr, kKey); },
       kUnopened,
       {noOutput, "failed encoding: null\n"}},
      {[&] { return C::Encode(src, full, kKey); },
       kUnwritten,
       {noRoom, "failed encoding: /dev/full\n"}},
      {[&] { return C::Encode(in, other, kKey); }, kUnopened, {noOutput, names(in, other)}},
      {[&] { return C::Decode(file, file, kKey); }, kUnopened, {noOutput, names(file, file)}},
      {[&] { return C::Decode(in, out, kKey); },
       kUnread,
       {"failed reading src.\n", names(in, out)}},
      {[&] { return C::Decode(none, out, kKey); }, kUnopened, {noInput}},
      {[&] { return C::Decode(nullptr, dst, kKey); }, kUnopened, {noInput}},
      {[&] { return C::Decode(file, none, kKey); }, kUnopened, {noOutput, names(file, none)}},
      {[&] { return C::Decode(file, full, kKey); }, kUnwritten, {noRoom, names(file, full)}},
      {[&] { return C::Decode(in, dst, kKey); },
       kUnread,
       {"failed reading src.\n", "failed decoding: " + inName + "\n"}},
      {[&] {
         return qmtest::writeFile(file, qmtest::readFile(file) + "x"), C::Decode(file, out, kKey);
       },
       kAltered,
       {"Invalid encoding in src.\n", names(file, out)}},
  };
  for (const auto& failure : kFailures) {
    qmtest::LogCapture log;
    EXPECT_EQ(failure.operation(), failure.code);
    const bool encodes = log.contains("Encode");
    std::string lines;
    for (const std::string& line : failure.lines)
      lines += (encodes ? kEncodeError : kDecodeError) + line;
    EXPECT_EQ(log.text(), lines);
    EXPECT_FALSE(failure.code != kAltered && qmtest::readFile(out).empty())
        << "without a sound source the destination stays";
    EXPECT_EQ(qmtest::readFile(in), "short");
  }
}

TEST(QMGUIDEncryptC, WithoutMemoryThereIsACode) {
  const qmtest::LogCapture log;
  const qmtest::TempFolder folder;
  const std::string in = folder.file("in"), file = folder.file("file"), plain = sample(50'000);
  qmtest::writeFile(in, plain);
  bool failed = true;
  for (int n = 1; failed; ++n) {
    std::stringstream dst;
    QMErrorT codes[2];
    {
      const qmtest::FailingAllocation nth(n);
      codes[0] = QMGUIDEncryptC::Encode(in.c_str(), file.c_str(), kKey);
      codes[1] = QMGUIDEncryptC::Decode(file.c_str(), dst, kKey);
      failed = nth.hasFailed();
    }
    EXPECT_EQ(failed, codes[0] != NoError || codes[1] != NoError) << n;
    EXPECT_EQ(failed, dst.view() != plain);
  }
}

}  // namespace
