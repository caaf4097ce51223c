// Pages and pictures for the tests of the programs: bitmaps, TIFF files made of them in every form
// that a page may come in, PNG files read back.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace qmtest {

/// 8 pixels a byte, the leftmost in the highest bit; a set bit is burnt, bits behind the last pixel
/// are clear.
struct Bitmap {
  unsigned width = 0;
  unsigned height = 0;
  std::vector<std::vector<std::uint8_t>> lines;

  bool at(unsigned x, unsigned y) const { return (lines[y][x / 8] & (0x80u >> (x % 8))) != 0; }
};

/// Runs of random lengths, as pages have them.
Bitmap randomBitmap(unsigned width, unsigned height, std::mt19937& random);

/// How a page is stored; the numbers are those of the TIFF format.
struct TiffForm {
  const char* name = "none";
  std::uint16_t compression = 1;
  std::uint32_t group3Options = 0;
  std::uint16_t photometric = 0;
  std::uint16_t fillOrder = 1;
  std::uint32_t rowsPerStrip = 0;  ///< 0: all
  std::uint32_t tileSide = 0;      ///< 0: striped
  float resolution = 100;
  float acrossResolution = 0;  ///< 0: the same
};

void writeTiff(const std::string& path, const Bitmap& bitmap, const TiffForm& form = {});
/// A page of 8 bits or of three colours.
void writeDeepTiff(const std::string& path, std::uint16_t bits, std::uint16_t samples);

/// A 1-bit picture; empty when the file is none.
Bitmap readPng(const std::string& path);

}  // namespace qmtest
