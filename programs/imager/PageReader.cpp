#include "programs/imager/PageReader.h"

#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>

#include "programs/imager/Drum.h"
#include "qmutils/foundation/QMFileUtilsC.h"
#include "qmutils/foundation/QMTextFile.h"
#include "qmutils/platform/file.h"

namespace programs {
namespace {

/// The decoder's messages belong into our reports, not on standard error.
thread_local std::string* complaintTarget = nullptr;
thread_local std::string* warningTarget = nullptr;

/// Collects them while the object lives.
class Complaints {
 public:
  Complaints(std::string& target, bool warningsToo) {
    target.clear();
    complaintTarget = &target;
    if (warningsToo) warningTarget = &target;
  }
  ~Complaints() { complaintTarget = warningTarget = nullptr; }
  Complaints(const Complaints&) = delete;
  Complaints& operator=(const Complaints&) = delete;
};

void keep(std::string* target, const char* format, va_list arguments) {
  if (target == nullptr) return;
  char text[256];
  std::vsnprintf(text, sizeof text, format, arguments);
  *target = text;
}

void keepComplaint(const char*, const char* format, va_list arguments) {
  keep(complaintTarget, format, arguments);
}

void keepWarning(const char*, const char* format, va_list arguments) {
  keep(warningTarget, format, arguments);
}

constexpr std::uint64_t kMostTileRowBytes = 512ull << 20;  // a damaged file may claim anything
constexpr double kSameResolution = 0.01;                   // files round it

}  // namespace

PageReader::PageReader() {
  TIFFSetErrorHandler(keepComplaint);
  TIFFSetWarningHandler(keepWarning);
}

PageReader::~PageReader() = default;

void PageReader::Closer::operator()(tiff* handle) const { TIFFClose(handle); }

Failure PageReader::open(const std::string& path) {
  path_ = path;
  if (QMFileUtilsC::FileExists(path.c_str()) == 0) {
    return {QMErrors::UnableToFindFile, "no such page", path};
  }
  const std::string native = qm::platform::nativePath(path.c_str());
  std::error_code ignored;
  // What cannot be read is told apart from what is damaged. Opening a pipe would wait for a writer.
  if (!std::filesystem::is_regular_file(native, ignored) ||
      qm::platform::FilePtr(FOpen(path.c_str(), "rb", nullptr)) == nullptr) {
    return {QMErrors::FailedToOpenFile, "the page cannot be opened", path};
  }
  const Complaints complaints(complaint_, false);
  // Mapping the file would turn one that shrinks meanwhile into a crash.
  tiff_.reset(TIFFOpen(native.c_str(), "rm"));
  if (tiff_ == nullptr) return damaged();
  Failure failure = goToOnlyPage();
  return failure ? failure : readHeader();
}

/// A file of several pages is refused: a plate holds one, and nobody would miss the others before
/// the plate is on the press. Reduced pictures of the page may stand behind it.
Failure PageReader::goToOnlyPage() {
  TIFF* const tiff = tiff_.get();
  const auto isReduced = [tiff] {
    std::uint32_t kind = 0;
    return TIFFGetField(tiff, TIFFTAG_SUBFILETYPE, &kind) != 0 &&
           (kind & FILETYPE_REDUCEDIMAGE) != 0;
  };
  if (isReduced()) {
    return {QMErrors::UnsuitableImageType, "the file begins with a reduced picture", path_};
  }
  while (TIFFLastDirectory(tiff) == 0) {
    if (TIFFReadDirectory(tiff) == 0) return damaged();
    if (!isReduced()) {
      return {QMErrors::UnsuitableImageType, "the file holds more than one page", path_};
    }
  }
  const bool atPage = TIFFCurrentDirectory(tiff) == 0 || TIFFSetDirectory(tiff, 0) != 0;
  return atPage ? Failure{} : damaged();
}

/// What the TIFF library complained of.
Failure PageReader::damaged() const {
  return {QMErrors::BadTiffFile, complaint_.empty() ? "the page is damaged" : complaint_, path_};
}

Failure PageReader::readHeader() {
  TIFF* const tiff = tiff_.get();
  if (TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width_) == 0 ||
      TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height_) == 0 || width_ == 0 || height_ == 0) {
    return {QMErrors::BadTiffFile, "the page has no size", path_};
  }
  Failure failure = checkKind();
  if (failure) return failure;
  if (width_ > Drum::kMostPixels || height_ > Drum::kMostPixels) {
    return {QMErrors::ImageIsTooBigToFitOnThePlate, "the page is larger than any drum", path_};
  }
  std::uint16_t photometric = PHOTOMETRIC_MINISWHITE;
  TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric);
  zeroBurns_ = photometric == PHOTOMETRIC_MINISBLACK;
  failure = readTileSize();
  return failure ? failure : readResolution();
}

Failure PageReader::checkKind() const {
  TIFF* const tiff = tiff_.get();
  std::uint16_t bits = 1;
  std::uint16_t samples = 1;
  std::uint16_t photometric = PHOTOMETRIC_MINISWHITE;
  std::uint16_t orientation = ORIENTATION_TOPLEFT;
  std::uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_ORIENTATION, &orientation);
  const char* reason = nullptr;
  if (bits != 1 || samples != 1) {
    reason = "the page is not 1 bit deep";
  } else if (photometric != PHOTOMETRIC_MINISWHITE && photometric != PHOTOMETRIC_MINISBLACK) {
    reason = "the page is not black and white";
  } else if (orientation != ORIENTATION_TOPLEFT) {
    reason = "the page is stored turned or mirrored";
  } else if (compression == COMPRESSION_JBIG || TIFFIsCODECConfigured(compression) == 0) {
    reason = "the page's compression cannot be read line by line";
  }
  return reason == nullptr ? Failure{} : Failure{QMErrors::UnsuitableImageType, reason, path_};
}

Failure PageReader::readTileSize() {
  if (TIFFIsTiled(tiff_.get()) == 0) return {};
  TIFFGetField(tiff_.get(), TIFFTAG_TILEWIDTH, &tileWidth_);
  TIFFGetField(tiff_.get(), TIFFTAG_TILELENGTH, &tileHeight_);
  const std::uint64_t rowBytes =
      (std::uint64_t{std::max(width_, tileWidth_)} + 7) / 8 * tileHeight_;
  if (tileWidth_ == 0 || tileHeight_ == 0 || tileWidth_ % 8 != 0 || rowBytes > kMostTileRowBytes) {
    return {QMErrors::BadTiffFile, "the page's tiles have no usable size", path_};
  }
  return {};
}

Failure PageReader::readResolution() {
  float x = 0;
  float y = 0;
  std::uint16_t unit = RESUNIT_INCH;
  TIFFGetFieldDefaulted(tiff_.get(), TIFFTAG_RESOLUTIONUNIT, &unit);
  const auto isThere = [this](std::uint32_t tag, float* value) {
    return TIFFGetField(tiff_.get(), tag, value) != 0 && *value > 0 && std::isfinite(*value);
  };
  const bool along = isThere(TIFFTAG_XRESOLUTION, &x);
  const bool across = isThere(TIFFTAG_YRESOLUTION, &y);
  if (!along && !across) return {};
  if (along != across || std::abs(y / x - 1) > kSameResolution) {
    return {QMErrors::ResolutionOutsideValidRange,
            "the page's resolution is not the same along and across", path_};
  }
  if (unit == RESUNIT_INCH) resolution_ = x;
  if (unit == RESUNIT_CENTIMETER) resolution_ = x * 2.54;
  return {};
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

/// The next line as it stands in the file. The decoders mend a damaged line as well as they can and
/// only warn about it; such a page must not get onto a plate.
bool PageReader::readPixels(std::vector<std::uint8_t>& line) {
  const Complaints complaints(complaint_, true);
  const std::size_t lineBytes = (std::size_t{width_} + 7) / 8;
  if (tileWidth_ != 0) {
    const std::uint32_t row = next_ % tileHeight_;
    if (row == 0 && !fillTileRow()) return false;
    const auto from = tileRow_.begin() + static_cast<std::ptrdiff_t>(row * lineBytes);
    line.assign(from, from + static_cast<std::ptrdiff_t>(lineBytes));
    return complaint_.empty();
  }
  line.assign(std::max(lineBytes, static_cast<std::size_t>(TIFFScanlineSize(tiff_.get()))), 0);
  const bool read = TIFFReadScanline(tiff_.get(), line.data(), next_) >= 0;
  line.resize(lineBytes);
  return read && complaint_.empty();
}

Failure PageReader::readLine(std::vector<std::uint8_t>& line) {
  if (!readPixels(line)) return damaged();
  ++next_;
  if (zeroBurns_) {
    for (std::uint8_t& byte : line) byte = static_cast<std::uint8_t>(~byte);
  }
  if (width_ % 8 != 0) line.back() &= static_cast<std::uint8_t>(0xFF00u >> (width_ % 8));
  return {};
}

}  // namespace programs
