#include "programs/imager/PlatePicture.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/process.h"

namespace programs {
namespace {

// An aluminium plate, and its coating where the laser has burnt it.
constexpr png_color kPlateColour = {0xC9, 0xD4, 0xD8};
constexpr png_color kBurntColour = {0x1B, 0x2A, 0x41};

constexpr int kAttempts = 100;
constexpr unsigned kPreviewSide = 1200;  // pixels, the longer side

std::uint8_t mixed(std::uint8_t plate, std::uint8_t burnt, double share) {
  return static_cast<std::uint8_t>(std::lround(plate + (burnt - plate) * share));
}

}  // namespace

/// A PNG file written line by line under a temporary name. The PNG library reports an error by a
/// jump, which each call here turns into a failure; no object with a destructor lives across one.
class PlatePicture::Png {
 public:
  ~Png() {
    if (png_ != nullptr) png_destroy_write_struct(&png_, &info_);
    file_.reset();
    if (!temporary_.empty()) std::remove(temporary_.c_str());
  }

  Failure open(const std::string& path, unsigned width, unsigned height, bool oneBit,
               double resolutionDpi) {
    path_ = qm::platform::nativePath(path.c_str());
    if (!createTemporary()) {
      return {QMErrors::FailedToOpenFile, "cannot make the picture: " + systemReason(), path_};
    }
    png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, jumpOnError, ignoreWarning);
    if (png_ != nullptr) info_ = png_create_info_struct(png_);
    if (info_ == nullptr)
      return {QMErrors::MemoryAllocationFailed, "no memory for a picture", path_};
    return writeHeader(width, height, oneBit, resolutionDpi) ? Failure{} : diskFailure();
  }

  Failure addRow(const std::uint8_t* row) { return writeRow(row) ? Failure{} : diskFailure(); }

  /// Writes what is left to the disk, so that no loss of power leaves half a picture under its
  /// name; the file keeps its temporary one.
  Failure close() {
    const bool closed =
        writeEnd() && qm::platform::flushToDisk(file_.get()) && std::fclose(file_.release()) == 0;
    return closed ? Failure{} : diskFailure();
  }

  /// Gives the closed file its name.
  Failure publish() {
    if (!qm::platform::replaceFile(temporary_.c_str(), path_.c_str())) return diskFailure();
    temporary_.clear();
    return {};
  }

  void withdraw() { std::remove(path_.c_str()); }

 private:
  [[noreturn]] static void jumpOnError(png_structp png, png_const_charp) { png_longjmp(png, 1); }
  static void ignoreWarning(png_structp, png_const_charp) {}

  /// A name that no other imager writes to at the same time, nor has left.
  bool createTemporary() {
    const std::string base = path_ + "." + std::to_string(qm::platform::currentProcessId());
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      const std::string name = base + (attempt > 0 ? "-" + std::to_string(attempt) : "") + ".tmp";
      file_.reset(qm::platform::createFileExclusively(name.c_str()));
      if (file_ == nullptr && QMErrors::lastOsError() == QMErrors::fromOsError(ERROR_FILE_EXISTS)) {
        continue;
      }
      if (file_ != nullptr) temporary_ = name;
      break;
    }
    return file_ != nullptr;
  }

  static std::string systemReason() { return QMErrToStr(QMErrors::lastOsError()); }

  Failure diskFailure() const {
    return {QMErrors::FailedToWriteToFile, "cannot write the picture", path_};
  }

  bool writeHeader(unsigned width, unsigned height, bool oneBit, double resolutionDpi) {
    if (setjmp(png_jmpbuf(png_)) != 0) return false;
    png_init_io(png_, file_.get());
    png_set_compression_level(png_, 3);
    png_set_IHDR(png_, info_, width, height, oneBit ? 1 : 8,
                 oneBit ? PNG_COLOR_TYPE_PALETTE : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (oneBit) {
      const png_color palette[] = {kPlateColour, kBurntColour};
      png_set_PLTE(png_, info_, palette, 2);
    }
    const auto perMetre = static_cast<png_uint_32>(std::lround(resolutionDpi / 0.0254));
    png_set_pHYs(png_, info_, perMetre, perMetre, PNG_RESOLUTION_METER);
    png_write_info(png_, info_);
    return true;
  }

  bool writeRow(const std::uint8_t* row) {
    if (setjmp(png_jmpbuf(png_)) != 0) return false;
    png_write_row(png_, row);
    return true;
  }

  bool writeEnd() {
    if (setjmp(png_jmpbuf(png_)) != 0) return false;
    png_write_end(png_, nullptr);
    return true;
  }

  std::string path_;
  std::string temporary_;
  qm::platform::FilePtr file_;
  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
};

/// Each preview pixel shows how much of its square of the plate is burnt.
class PlatePicture::Preview {
 public:
  Failure open(const std::string& path, unsigned width, unsigned height, double resolutionDpi) {
    scale_ = (std::max(width, height) + kPreviewSide - 1) / kPreviewSide;
    sourceWidth_ = width;
    remaining_ = height;
    const unsigned columns = (width + scale_ - 1) / scale_;
    counts_.assign(columns, 0);
    row_.resize(std::size_t{columns} * 3);
    return png_.open(path, columns, (height + scale_ - 1) / scale_, false, resolutionDpi / scale_);
  }

  Failure addLine(const std::vector<std::uint8_t>& line) {
    for (std::size_t byte = 0; byte < line.size(); ++byte) {
      if (line[byte] == 0) continue;
      for (unsigned bit = 0; bit < 8; ++bit) {
        if ((line[byte] & (0x80u >> bit)) != 0) ++counts_[(byte * 8 + bit) / scale_];
      }
    }
    --remaining_;
    return ++lines_ == scale_ || remaining_ == 0 ? addRow() : Failure{};
  }

  Png& file() { return png_; }

 private:
  Failure addRow() {
    for (std::size_t column = 0; column < counts_.size(); ++column) {
      const unsigned columns =
          std::min<unsigned>(scale_, sourceWidth_ - static_cast<unsigned>(column) * scale_);
      const double share = static_cast<double>(counts_[column]) / (double{1} * columns * lines_);
      row_[column * 3] = mixed(kPlateColour.red, kBurntColour.red, share);
      row_[column * 3 + 1] = mixed(kPlateColour.green, kBurntColour.green, share);
      row_[column * 3 + 2] = mixed(kPlateColour.blue, kBurntColour.blue, share);
      counts_[column] = 0;
    }
    lines_ = 0;
    return png_.addRow(row_.data());
  }

  Png png_;
  unsigned scale_ = 1;
  unsigned sourceWidth_ = 0;
  unsigned remaining_ = 0;
  unsigned lines_ = 0;
  std::vector<unsigned> counts_;
  std::vector<std::uint8_t> row_;
};

PlatePicture::PlatePicture() = default;
PlatePicture::~PlatePicture() = default;

Failure PlatePicture::open(const std::string& base, unsigned width, unsigned height,
                           double resolutionDpi) {
  plate_ = std::make_unique<Png>();
  preview_ = std::make_unique<Preview>();
  Failure failure = plate_->open(base + ".png", width, height, true, resolutionDpi);
  return failure ? failure : preview_->open(base + "-preview.png", width, height, resolutionDpi);
}

Failure PlatePicture::addLine(const std::vector<std::uint8_t>& line) {
  Failure failure = plate_->addRow(line.data());
  return failure ? failure : preview_->addLine(line);
}

Failure PlatePicture::finish() {
  Failure failure = plate_->close();
  if (!failure) failure = preview_->file().close();
  // The preview first, so that there is no plate without one.
  if (!failure) failure = preview_->file().publish();
  if (failure) return failure;
  failure = plate_->publish();
  if (failure) preview_->file().withdraw();
  return failure;
}

}  // namespace programs
