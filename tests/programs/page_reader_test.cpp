#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tiffio.h>

#include <filesystem>
#include <set>

#include "programs/imager/PageReader.h"
#include "tests/programs/Pages.h"
#include "tests/support/TempFolder.h"

namespace programs {
namespace {

using qmtest::Bitmap;
using qmtest::TiffForm;

/// Reads a page to its end; the first failure.
Failure readAll(const std::string& path, Bitmap& bitmap) {
  PageReader reader;
  Failure failure = reader.open(path);
  if (failure) return failure;
  bitmap = {reader.width(), reader.height(), {}};
  for (unsigned y = 0; y < reader.height() && !failure; ++y) {
    failure = reader.readLine(bitmap.lines.emplace_back());
  }
  return failure;
}

std::vector<TiffForm> installedCompressions() {
  std::vector<TiffForm> forms = {{"none", COMPRESSION_NONE},
                                 {"PackBits", COMPRESSION_PACKBITS},
                                 {"LZW", COMPRESSION_LZW},
                                 {"Deflate", COMPRESSION_ADOBE_DEFLATE},
                                 {"RLE", COMPRESSION_CCITTRLE},
                                 {"G3 1D", COMPRESSION_CCITTFAX3, GROUP3OPT_FILLBITS},
                                 {"G3 2D", COMPRESSION_CCITTFAX3, GROUP3OPT_2DENCODING},
                                 {"G4", COMPRESSION_CCITTFAX4}};
  std::erase_if(forms, [](const auto& form) { return !TIFFIsCODECConfigured(form.compression); });
  return forms;
}

class Pages : public testing::Test {
 protected:
  /// The result of reading a file with that content to its end.
  QMErrors::QMErrorT codeOf(const std::string& content) {
    Bitmap ignored;
    qmtest::writeFile(path_, content);
    return readAll(path_, ignored).code;
  }

  const qmtest::TempFolder folder_;
  const std::string path_ = folder_.file("page.tif");
  std::mt19937 random_{1};
};

TEST_F(Pages, ReadTheSameFromEveryForm) {
  const auto forms = installedCompressions();
  ASSERT_GE(forms.size(), 7u);
  for (TiffForm form : forms) {
    for (const auto& [rows, side] : {std::pair{0u, 0u}, {7u, 0u}, {0u, 16u}, {0u, 48u}}) {
      form.rowsPerStrip = rows;
      form.tileSide = side;
      for (unsigned variant = 0; variant < 4; ++variant) {
        form.photometric = variant % 2 != 0 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_MINISWHITE;
        form.fillOrder = variant / 2 != 0 ? FILLORDER_LSB2MSB : FILLORDER_MSB2LSB;
        for (unsigned width : {1u, 7u, 8u, 9u, 48u, 203u}) {
          // The RLE decoder loses the last line of a strip or tile when it takes a single byte, as
          // no line of a real page does.
          if (form.compression == COMPRESSION_CCITTRLE && (side != 0 || width < 100)) continue;
          const Bitmap page = qmtest::randomBitmap(width, 1 + random_() % 60, random_);
          qmtest::writeTiff(path_, page, form);
          Bitmap read;
          const Failure failure = readAll(path_, read);
          ASSERT_FALSE(failure) << form.name << ": " << failure.reason;
          ASSERT_TRUE(read.lines == page.lines)
              << form.name << ", " << rows << " rows a strip, tiles of " << side << ", variant "
              << variant << ", width " << width;
        }
      }
    }
  }
}

TEST_F(Pages, ThatAreDamagedFailAndNeverCrash) {
  const std::set kCodes = {QMErrors::NoError, QMErrors::BadTiffFile, QMErrors::UnsuitableImageType,
                           QMErrors::ResolutionOutsideValidRange,
                           QMErrors::ImageIsTooBigToFitOnThePlate};
  int failed = 0;
  for (TiffForm form : installedCompressions()) {
    for (std::uint32_t side : {0u, 16u}) {
      form.tileSide = side;
      form.rowsPerStrip = 9;
      qmtest::writeTiff(path_, qmtest::randomBitmap(150, 40, random_), form);
      const std::string whole = qmtest::readFile(path_);
      // The directory stands at the end, so a shorter file has none.
      for (std::size_t size = 0; size + 1 < whole.size(); size += 1 + size / 3) {
        EXPECT_EQ(codeOf(whole.substr(0, size)), QMErrors::BadTiffFile) << form.name << size;
      }
      for (int i = 0; i < 60; ++i) {
        std::string changed = whole;
        for (int n = 0; n < 3; ++n) {
          changed[random_() % changed.size()] = static_cast<char>(random_());
        }
        const QMErrors::QMErrorT code = codeOf(changed);
        failed += code == QMErrors::BadTiffFile;
        EXPECT_TRUE(kCodes.contains(code)) << form.name << ": " << code;
      }
    }
    // What these decoders mend and only warn about.
    if (form.compression != COMPRESSION_CCITTRLE && form.compression != COMPRESSION_CCITTFAX3) {
      continue;
    }
    form.tileSide = 0;
    qmtest::writeTiff(path_, qmtest::randomBitmap(2000, 40, random_), form);
    std::string mended = qmtest::readFile(path_);
    mended.replace(mended.size() / 2, 40, 40, '\0');
    EXPECT_EQ(codeOf(mended), QMErrors::BadTiffFile) << form.name;
  }
  EXPECT_GT(failed, 100) << "the damage did not get where it hurts";
  // The data of this one stands behind its directory.
  const std::string sample = qmtest::readFile(SAMPLE_PAGE);
  EXPECT_EQ(codeOf(sample.substr(0, sample.size() / 2)), QMErrors::BadTiffFile);
}

TEST_F(Pages, TellWhatIsWrongWithThem) {
  const Bitmap page = qmtest::randomBitmap(20, 3, random_);
  const TiffForm reduced{.subfile = FILETYPE_REDUCEDIMAGE};
  const std::pair<const char*, TiffForm> unsuitable[] = {
      {"the page is not 1 bit deep", {.photometric = PHOTOMETRIC_MINISBLACK, .bits = 8}},
      {"the page is not 1 bit deep", {.photometric = PHOTOMETRIC_RGB, .samples = 3}},
      {"the page is not black and white", {.photometric = PHOTOMETRIC_PALETTE}},
      {"the page is stored turned or mirrored", {.orientation = ORIENTATION_RIGHTTOP}},
      {"the file begins with a reduced picture", reduced}};
  Bitmap ignored;
  for (const auto& [reason, form] : unsuitable) {
    qmtest::writeTiff(path_, page, form);
    const Failure failure = readAll(path_, ignored);
    EXPECT_EQ(failure.code, QMErrors::UnsuitableImageType) << reason;
    EXPECT_EQ(failure.reason, reason);
  }
  for (const float along : {204.F, 0.F}) {
    qmtest::writeTiff(path_, page, {.resolution = along, .acrossResolution = 98});
    EXPECT_EQ(readAll(path_, ignored).code, QMErrors::ResolutionOutsideValidRange) << along;
  }
  qmtest::writeTiff(path_, {100, 100, {}}, {.tileSide = 1u << 20});
  EXPECT_EQ(readAll(path_, ignored).reason, "the page's tiles have no usable size");
  EXPECT_EQ(codeOf("This is no page."), QMErrors::BadTiffFile);

  EXPECT_EQ(readAll(folder_.file("missing"), ignored).code, QMErrors::UnableToFindFile);
  ASSERT_EQ(mkfifo(folder_.file("pipe").c_str(), 0600), 0);
  for (const std::string& name : {folder_.file("pipe"), folder_.path()}) {
    EXPECT_EQ(readAll(name, ignored).code, QMErrors::FailedToOpenFile) << name;
  }
  qmtest::writeTiff(path_, page);
  qmtest::writeTiff(path_, qmtest::randomBitmap(10, 3, random_), reduced, true);
  PageReader reader;
  ASSERT_FALSE(reader.open(folder_.path() + "\\page.tif"));
  EXPECT_EQ(reader.resolution(), 100);
  EXPECT_EQ(reader.width(), 20u);
  qmtest::writeTiff(path_, page, {}, true);
  EXPECT_EQ(readAll(path_, ignored).reason, "the file holds more than one page");
}

}  // namespace
}  // namespace programs
