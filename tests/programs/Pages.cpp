#include "tests/programs/Pages.h"

#include <gtest/gtest.h>
#include <png.h>
#include <tiffio.h>

#include <algorithm>
#include <memory>

#include "tests/support/TempFolder.h"

namespace qmtest {
namespace {

using Tiff = std::unique_ptr<TIFF, decltype(&TIFFClose)>;

void writeTags(TIFF* tiff, const Bitmap& bitmap, const TiffForm& form) {
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, bitmap.width);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, bitmap.height);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, form.bits);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, form.samples);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, form.photometric);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, form.compression);
  if (form.group3Options != 0) TIFFSetField(tiff, TIFFTAG_GROUP3OPTIONS, form.group3Options);
  std::uint16_t colours[2] = {0, 0xFFFF};
  if (form.photometric == PHOTOMETRIC_PALETTE) {
    TIFFSetField(tiff, TIFFTAG_COLORMAP, colours, colours, colours);
  }
  TIFFSetField(tiff, TIFFTAG_FILLORDER, form.fillOrder);
  TIFFSetField(tiff, TIFFTAG_ORIENTATION, form.orientation);
  TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, form.subfile);
  TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
  TIFFSetField(tiff, TIFFTAG_XRESOLUTION, form.resolution);
  TIFFSetField(tiff, TIFFTAG_YRESOLUTION,
               form.acrossResolution > 0 ? form.acrossResolution : form.resolution);
  if (form.tileSide != 0) {
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, form.tileSide);
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, form.tileSide);
  } else {
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP,
                 form.rowsPerStrip != 0 ? form.rowsPerStrip : bitmap.height);
  }
}

void writeTiles(TIFF* tiff, const Bitmap& stored, std::uint32_t side) {
  ASSERT_TRUE(TIFFWriteCheck(tiff, 1, "writeTiles"));
  for (std::uint32_t top = 0; top < stored.lines.size(); top += side) {
    for (std::uint32_t left = 0; left < stored.width; left += side) {
      std::vector<std::uint8_t> tile(static_cast<std::size_t>(TIFFTileSize(tiff)));
      for (std::uint32_t y = 0; y < side && top + y < stored.lines.size(); ++y) {
        const auto& line = stored.lines[top + y];
        const std::size_t count = std::min<std::size_t>(side / 8, line.size() - left / 8);
        std::copy_n(&line[left / 8], count, &tile[y * std::size_t{side} / 8]);
      }
      ASSERT_GE(TIFFWriteTile(tiff, tile.data(), left, top, 0, 0), 0);
    }
  }
}

}  // namespace

Bitmap randomBitmap(unsigned width, unsigned height, std::mt19937& random) {
  Bitmap bitmap{width, height, {}};
  bitmap.lines.assign(height, std::vector<std::uint8_t>((width + 7) / 8));
  for (auto& line : bitmap.lines) {
    bool burnt = random() % 2 != 0;
    unsigned next = 0;  // where the colour changes
    for (unsigned x = 0; x < width; ++x) {
      if (x == next) next += 1 + random() % (random() % 4 == 0 ? 70 : 9), burnt = !burnt;
      if (burnt) line[x / 8] |= static_cast<std::uint8_t>(0x80u >> (x % 8));
    }
  }
  return bitmap;
}

void writeTiff(const std::string& path, const Bitmap& bitmap, const TiffForm& form, bool add) {
  const Tiff tiff(TIFFOpen(path.c_str(), add ? "a" : "w"), TIFFClose);
  ASSERT_NE(tiff, nullptr) << path;
  writeTags(tiff.get(), bitmap, form);
  Bitmap stored = bitmap;
  for (auto& line : stored.lines) {
    if (form.photometric == PHOTOMETRIC_MINISBLACK) {
      for (std::uint8_t& byte : line) byte = static_cast<std::uint8_t>(~byte);
    }
    line.resize(line.size() * form.bits * form.samples);
  }
  if (form.tileSide != 0) return writeTiles(tiff.get(), stored, form.tileSide);
  for (unsigned y = 0; y < stored.lines.size(); ++y) {
    ASSERT_GE(TIFFWriteScanline(tiff.get(), stored.lines[y].data(), y, 0), 0) << form.name;
  }
}

Picture readPng(const std::string& path) {
  const std::string file = readFile(path);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&image, file.data(), file.size()) == 0) return {};
  image.format = PNG_FORMAT_RGB;
  Picture picture{image.width, image.height, file[24], 0, {}};
  picture.pixels.resize(PNG_IMAGE_SIZE(image));
  png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr);
  const std::size_t resolution = file.find("pHYs") + 4;
  for (std::size_t i = 0; i < 4; ++i) {
    picture.dpi = picture.dpi * 256 + 0.0254 * static_cast<std::uint8_t>(file.at(resolution + i));
  }
  return picture;
}

}  // namespace qmtest
