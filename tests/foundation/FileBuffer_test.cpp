#include "qmutils/foundation/FileBuffer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <istream>
#include <memory>
#include <string>

#include "tests/support/TempFolder.h"

namespace {

TEST(FileBuffer, AFailedSeekLosesNothing) {
  const qmtest::TempFolder folder;
  qmtest::writeFile(folder.file("digits"), "0123456789");
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
      std::fopen(folder.file("digits").c_str(), "rb"), std::fclose);
  qm::FileBuffer buffer(file.get());
  std::istream is(&buffer);
  EXPECT_EQ(is.get(), '0');
  EXPECT_EQ(is.tellg(), std::streampos(1));
  EXPECT_FALSE(is.seekg(-1000, std::ios::cur));
  is.clear();
  EXPECT_EQ(is.get(), '1');
  is.seekg(3, std::ios::cur);
  EXPECT_EQ(is.get(), '5');
  is.seekg(-1, std::ios::end);
  EXPECT_EQ(is.get(), '9');
}

/// Gives some bytes and then fails.
ssize_t readOnce(void* cookie, char* bytes, size_t) {
  bool& given = *static_cast<bool*>(cookie);
  if (given) return -1;
  given = true;
  bytes[0] = 'a';
  bytes[1] = 'b';
  return 2;
}

TEST(FileBuffer, WhatWasReadBeforeAFailureCounts) {
  bool given = false;
  const cookie_io_functions_t functions = {readOnce, nullptr, nullptr, nullptr};
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(fopencookie(&given, "r", functions),
                                                             std::fclose);
  qm::FileBuffer buffer(file.get());
  std::istream is(&buffer);
  EXPECT_EQ(is.get(), 'a');
  EXPECT_EQ(is.get(), 'b');
  EXPECT_EQ(is.get(), EOF);
  EXPECT_TRUE(is.bad());
}

}  // namespace
