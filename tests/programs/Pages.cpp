#include "tests/programs/Pages.h"

#include <gtest/gtest.h>
#include <png.h>
#include <tiffio.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <memory>

namespace qmtest {

namespace {

using Tiff = std::unique_ptr<TIFF, decltype(&TIFFClose)>;

void setSize(TIFF* tiff, unsigned width, unsigned height, std::uint16_t bits,
             std::uint16_t samples) {
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
}

void writeTiles(TIFF* tiff, const Bitmap& stored, std::uint32_t side) {
  std::vector<std::uint8_t> tile(static_cast<std::size_t>(TIFFTileSize(tiff)));
  for (std::uint32_t top = 0; top < stored.height; top += side) {
    for (std::uint32_t left = 0; left < stored.width; left += side) {
      std::fill(tile.begin(), tile.end(), std::uint8_t{0});
      for (std::uint32_t y = 0; y < side && top + y < stored.height; ++y) {
        const auto& line = stored.lines[top + y];
        const std::size_t count = std::min<std::size_t>(side / 8, line.size() - left / 8);
        std::copy_n(&line[left / 8], count, &tile[y * std::size_t{side} / 8]);
      }
      ASSERT_GE(TIFFWriteTile(tiff, tile.data(), left, top, 0, 0), 0);
    }
  }
}

void fillBitmap(png_structp png, png_infop info, Bitmap& bitmap) {
  if (png_get_bit_depth(png, info) != 1) return;
  bitmap.width = png_get_image_width(png, info);
  bitmap.height = png_get_image_height(png, info);
  png_bytepp rows = png_get_rows(png, info);
  for (unsigned y = 0; y < bitmap.height; ++y) {
    auto& line = bitmap.lines.emplace_back(rows[y], rows[y] + png_get_rowbytes(png, info));
    // What stands behind the last pixel has no meaning in a picture.
    if (bitmap.width % 8 != 0)
      line.back() &= static_cast<std::uint8_t>(0xFF00u >> (bitmap.width % 8));
  }
}

}  // namespace

Bitmap randomBitmap(unsigned width, unsigned height, std::mt19937& random) {
  Bitmap bitmap{width, height, {}};
  bitmap.lines.assign(height, std::vector<std::uint8_t>((width + 7) / 8));
  for (auto& line : bitmap.lines) {
    bool burnt = random() % 2 != 0;
    for (unsigned x = 0, run = 0; x < width; ++x, --run) {
      if (run == 0) {
        run = 1 + random() % (random() % 4 == 0 ? 70 : 9);
        burnt = !burnt;
      }
      if (burnt) line[x / 8] |= static_cast<std::uint8_t>(0x80u >> (x % 8));
    }
  }
  return bitmap;
}

void writeTiff(const std::string& path, const Bitmap& bitmap, const TiffForm& form) {
  Bitmap stored = bitmap;
  if (form.photometric == PHOTOMETRIC_MINISBLACK) {
    for (auto& line : stored.lines) {
      for (std::uint8_t& byte : line) byte = static_cast<std::uint8_t>(~byte);
    }
  }
  const Tiff tiff(TIFFOpen(path.c_str(), "w"), TIFFClose);
  ASSERT_NE(tiff, nullptr) << path;
  setSize(tiff.get(), bitmap.width, bitmap.height, 1, 1);
  TIFFSetField(tiff.get(), TIFFTAG_PHOTOMETRIC, form.photometric);
  TIFFSetField(tiff.get(), TIFFTAG_COMPRESSION, form.compression);
  if (form.group3Options != 0) {
    TIFFSetField(tiff.get(), TIFFTAG_GROUP3OPTIONS, form.group3Options);
  }
  TIFFSetField(tiff.get(), TIFFTAG_FILLORDER, form.fillOrder);
  TIFFSetField(tiff.get(), TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
  TIFFSetField(tiff.get(), TIFFTAG_XRESOLUTION, form.resolution);
  TIFFSetField(tiff.get(), TIFFTAG_YRESOLUTION,
               form.acrossResolution > 0 ? form.acrossResolution : form.resolution);
  if (form.tileSide != 0) {
    TIFFSetField(tiff.get(), TIFFTAG_TILEWIDTH, form.tileSide);
    TIFFSetField(tiff.get(), TIFFTAG_TILELENGTH, form.tileSide);
    writeTiles(tiff.get(), stored, form.tileSide);
    return;
  }
  TIFFSetField(tiff.get(), TIFFTAG_ROWSPERSTRIP,
               form.rowsPerStrip != 0 ? form.rowsPerStrip : bitmap.height);
  for (unsigned y = 0; y < bitmap.height; ++y) {
    ASSERT_GE(TIFFWriteScanline(tiff.get(), stored.lines[y].data(), y, 0), 0) << form.name;
  }
}

void writeDeepTiff(const std::string& path, std::uint16_t bits, std::uint16_t samples) {
  const Tiff tiff(TIFFOpen(path.c_str(), "w"), TIFFClose);
  ASSERT_NE(tiff, nullptr) << path;
  setSize(tiff.get(), 4, 1, bits, samples);
  TIFFSetField(tiff.get(), TIFFTAG_PHOTOMETRIC,
               samples == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
  std::vector<std::uint8_t> line(16);
  ASSERT_GE(TIFFWriteScanline(tiff.get(), line.data(), 0, 0), 0);
}

Bitmap readPng(const std::string& path) {
  Bitmap bitmap;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return bitmap;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png)) == 0) {
    png_init_io(png, file);
    png_read_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
    fillBitmap(png, info, bitmap);
  }
  png_destroy_read_struct(&png, &info, nullptr);
  std::fclose(file);
  return bitmap;
}

}  // namespace qmtest
