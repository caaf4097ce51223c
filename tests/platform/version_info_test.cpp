#include "qmutils/platform/version_info.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "qmutils/platform/error.h"
#include "qmutils/platform/types.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/TempFolder.h"

namespace qm::platform {
namespace {

using namespace std::string_literals;

/// Appends a number in the byte order and width of the file that is made.
struct Maker {
  bool wide;
  bool big;
  std::string bytes;

  void number(std::uint64_t value, int size) {
    for (int i = 0; i < size; ++i) {
      const int shift = 8 * (big ? size - 1 - i : i);
      bytes += static_cast<char>(value >> shift);
    }
  }
  void word(std::uint64_t value) { number(value, wide ? 8 : 4); }
  void text(const std::string& text, std::size_t padTo) {
    bytes += text;
    while (bytes.size() % padTo != 0) bytes += '\0';
  }
};

std::string noteOf(const Maker& like, const std::string& owner, unsigned type,
                   const std::string& content) {
  Maker note{like.wide, like.big, {}};
  note.number(owner.size(), 4);
  note.number(content.size(), 4);
  note.number(type, 4);
  note.text(owner, 4);
  note.text(content, 4);
  return note.bytes;
}

/// A program with one segment of notes.
std::string programWith(bool wide, bool big, const std::string& notes, std::uint64_t noteSize) {
  Maker maker{wide, big,
              std::string("\x7f"
                          "ELF") +
                  (wide ? '\2' : '\1') + (big ? '\2' : '\1')};
  maker.bytes.resize(16);
  const unsigned headerSize = wide ? 64 : 52, entrySize = wide ? 56 : 32;
  maker.number(3, 2);  // type
  maker.number(62, 2);
  maker.number(1, 4);
  maker.word(0);
  maker.word(headerSize);  // where the segments stand
  maker.word(0);
  maker.number(0, 4);
  maker.number(headerSize, 2);
  maker.number(entrySize, 2);
  maker.number(1, 2);  // their number
  maker.bytes.resize(headerSize);
  maker.number(4, 4);  // notes
  if (wide) maker.number(4, 4);
  maker.word(headerSize + entrySize);
  maker.word(0);
  maker.word(0);
  maker.word(noteSize);
  maker.bytes.resize(headerSize + entrySize);
  return maker.bytes + notes;
}

const std::string kOwner = "qmutils\0"s;

TEST(VersionInfo, IsReadFromFilesOfEveryKindOfProcessor) {
  qmtest::TempFolder folder;
  const std::string path = folder.file("program");
  const std::string american = "040904B0\0ProductVersion\0005, 0\0CompanyName\0Maker\0"s;
  const std::string british = "080904B0\0Colour\0grey\0"s;
  for (const bool wide : {false, true}) {
    for (const bool big : {false, true}) {
      const Maker like{wide, big, {}};
      const std::string notes =
          noteOf(like, "GNU\0"s, 1, american) + noteOf(like, kOwner, 2, american) +
          noteOf(like, kOwner, 1, british) + noteOf(like, kOwner, 1, american);
      qmtest::writeFile(path, programWith(wide, big, notes, notes.size()));
      std::string text;
      EXPECT_TRUE(readVersionText(path.c_str(), "040904b0", "companyname", &text));
      EXPECT_EQ(text, "Maker");
      EXPECT_TRUE(readVersionText(path.c_str(), "080904B0", "Colour", &text));
      EXPECT_EQ(text, "grey");
      EXPECT_FALSE(readVersionText(path.c_str(), "080904B0", "CompanyName", &text));
      EXPECT_EQ(lastError(), 1814u);
      EXPECT_FALSE(readVersionText(path.c_str(), "00000000", "Colour", &text));
      EXPECT_EQ(lastError(), 1813u);
      EXPECT_EQ(text, "grey");
    }
  }
}

TEST(VersionInfo, DamagedAndForeignFilesSayNothing) {
  qmtest::TempFolder folder;
  const std::string path = folder.file("program");
  const std::string note = noteOf({true, false, {}}, kOwner, 1, "040904B0\0Key\0va"s);
  const std::string whole = programWith(true, false, note, note.size());
  std::string text;
  // Also the whole one: its last text has no end.
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    qmtest::writeFile(path, whole.substr(0, size));
    EXPECT_FALSE(readVersionText(path.c_str(), "040904B0", "Key", &text)) << size;
    EXPECT_TRUE(lastError() == 1812 || lastError() == 1814) << size;
  }
  // Headers that claim thousands of large segments at one place.
  std::string many = programWith(true, false, std::string(1 << 20, 'x'), 1 << 20);
  const std::string entry = many.substr(64, 56);
  for (int i = 0; i < 18'000; ++i) many.replace(64 + static_cast<std::size_t>(i) * 56, 56, entry);
  many.replace(56, 2, "\x50\x46");  // their number
  qmtest::writeFile(path, many);
  const qmtest::MemoryPeak peak;
  EXPECT_FALSE(readVersionText(path.c_str(), "040904B0", "Key", &text));
  EXPECT_LT(peak.bytes(), 8u << 20);
  qmtest::writeFile(path, programWith(true, false, note, ~0ull));
  EXPECT_FALSE(readVersionText(path.c_str(), "040904B0", "Key", &text));
  EXPECT_FALSE(readVersionText(folder.path().c_str(), "040904B0", "Key", &text));
  EXPECT_EQ(lastError(), ERROR_ACCESS_DENIED);
  EXPECT_FALSE(readVersionText(folder.file("none").c_str(), "040904B0", "Key", &text));
  EXPECT_EQ(lastError(), ERROR_FILE_NOT_FOUND);
}

}  // namespace
}  // namespace qm::platform
