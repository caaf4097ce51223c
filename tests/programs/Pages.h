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
  std::uint16_t bits = 1;      ///< of a sample
  std::uint16_t samples = 1;
  std::uint16_t orientation = 1;
  std::uint32_t subfile = 0;  ///< kind of picture
};

/// Writes a file with that page (a bitmap without lines: only its description), or adds it to one.
void writeTiff(const std::string& path, const Bitmap& bitmap, const TiffForm& form = {},
               bool add = false);

/// A picture read back; empty when the file is none.
struct Picture {
  unsigned width = 0;
  unsigned height = 0;
  int bits = 0;  ///< of a sample in the file
  double dpi = 0;
  std::vector<std::uint8_t> pixels;  ///< red, green, blue

  int redAt(unsigned x, unsigned y) const { return pixels[(std::size_t{y} * width + x) * 3]; }
  bool burntAt(unsigned x, unsigned y) const { return redAt(x, y) == 0x1B; }
};

Picture readPng(const std::string& path);

}  // namespace qmtest
