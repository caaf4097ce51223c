#include "programs/imager/PageReader.h"

#include <tiffio.h>

#include <algorithm>
#include <cstdio>

#include "qmutils/foundation/QMFileUtilsC.h"

namespace programs {
namespace {

/// The decoder's messages belong into our reports, not on standard error. One page is read at a
/// time.
thread_local std::string* complaintTarget = nullptr;

void keepComplaint(const char*, const char* format, va_list arguments) {
  if (complaintTarget == nullptr) return;
  char text[256];
  std::vsnprintf(text, sizeof text, format, arguments);
  *complaintTarget = text;
}

void ignoreWarning(const char*, const char*, va_list) {}

constexpr std::uint32_t kMostPixels = 1u << 20;  // a metre at 25,400 dpi

}  // namespace

PageReader::PageReader() {
  TIFFSetErrorHandler(keepComplaint);
  TIFFSetWarningHandler(ignoreWarning);
}

PageReader::~PageReader() = default;

void PageReader::Closer::operator()(tiff* handle) const { TIFFClose(handle); }

Failure PageReader::open(const std::string& path) {
  path_ = path;
  complaintTarget = &complaint_;
  if (QMFileUtilsC::FileExists(path.c_str()) == 0) {
    return {QMErrors::UnableToFindFile, "no such page", path};
  }
  // Mapping the file would turn one that shrinks meanwhile into a crash.
  tiff_.reset(TIFFOpen(path.c_str(), "rm"));
  if (tiff_ == nullptr) return {QMErrors::BadTiffFile, complaint_, path};
  Failure failure = readHeader();
  complaintTarget = nullptr;
  return failure;
}

Failure PageReader::readHeader() {
  TIFF* const tiff = tiff_.get();
  std::uint16_t bits = 1;
  std::uint16_t samples = 1;
  std::uint16_t photometric = PHOTOMETRIC_MINISWHITE;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric);
  if (TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width_) == 0 ||
      TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height_) == 0 || width_ == 0 || height_ == 0) {
    return {QMErrors::BadTiffFile, "the page has no size", path_};
  }
  if (bits != 1 || samples != 1 ||
      (photometric != PHOTOMETRIC_MINISWHITE && photometric != PHOTOMETRIC_MINISBLACK)) {
    return {QMErrors::UnsuitableImageType, "the page is not 1 bit deep", path_};
  }
  if (width_ > kMostPixels || height_ > kMostPixels) {
    return {QMErrors::ImageIsTooBigToFitOnThePlate, "the page is larger than any drum", path_};
  }
  zeroBurns_ = photometric == PHOTOMETRIC_MINISBLACK;
  if (TIFFIsTiled(tiff) != 0) {
    TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth_);
    TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight_);
    if (tileWidth_ == 0 || tileHeight_ == 0 || tileWidth_ > kMostPixels ||
        tileHeight_ > kMostPixels || tileWidth_ % 8 != 0) {
      return {QMErrors::BadTiffFile, "the page's tiles have no usable size", path_};
    }
  }
  readResolution();
  return {};
}

void PageReader::readResolution() {
  float x = 0;
  std::uint16_t unit = RESUNIT_INCH;
  TIFFGetFieldDefaulted(tiff_.get(), TIFFTAG_RESOLUTIONUNIT, &unit);
  if (TIFFGetField(tiff_.get(), TIFFTAG_XRESOLUTION, &x) == 0 || !(x > 0)) return;
  if (unit == RESUNIT_INCH) resolution_ = x;
  if (unit == RESUNIT_CENTIMETER) resolution_ = x * 2.54;
}

/// Decodes the row of tiles in which the next line lies.
bool PageReader::fillTileRow() {
  const std::size_t lineBytes = (std::size_t{width_} + 7) / 8;
  const std::size_t tileBytes = tileWidth_ / 8;
  std::vector<std::uint8_t> tile(static_cast<std::size_t>(TIFFTileSize(tiff_.get())));
  if (tile.size() < tileBytes * tileHeight_) return false;
  tileRow_.assign(lineBytes * tileHeight_, 0);
  for (std::uint32_t x = 0; x < width_; x += tileWidth_) {
    if (TIFFReadTile(tiff_.get(), tile.data(), x, next_, 0, 0) < 0) return false;
    const std::size_t start = x / 8;
    const std::size_t count = std::min(tileBytes, lineBytes - start);
    for (std::uint32_t y = 0; y < tileHeight_; ++y) {
      std::copy_n(&tile[y * tileBytes], count, &tileRow_[y * lineBytes + start]);
    }
  }
  return true;
}

Failure PageReader::readLine(std::vector<std::uint8_t>& line) {
  const std::size_t lineBytes = (std::size_t{width_} + 7) / 8;
  complaintTarget = &complaint_;
  bool read;
  if (tileWidth_ != 0) {
    read = next_ % tileHeight_ != 0 || fillTileRow();
    if (read) {
      const auto from = tileRow_.begin() + static_cast<std::ptrdiff_t>(
                                               (next_ % tileHeight_) * lineBytes);
      line.assign(from, from + static_cast<std::ptrdiff_t>(lineBytes));
    }
  } else {
    line.assign(std::max(lineBytes, static_cast<std::size_t>(TIFFScanlineSize(tiff_.get()))), 0);
    read = TIFFReadScanline(tiff_.get(), line.data(), next_) >= 0;
    line.resize(lineBytes);
  }
  complaintTarget = nullptr;
  if (!read) return {QMErrors::BadTiffFile, complaint_, path_};
  ++next_;
  if (zeroBurns_) {
    for (std::uint8_t& byte : line) byte = static_cast<std::uint8_t>(~byte);
  }
  if (width_ % 8 != 0) line.back() &= static_cast<std::uint8_t>(0xFF00u >> (width_ % 8));
  return {};
}

}  // namespace programs
