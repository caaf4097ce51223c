#include <gtest/gtest.h>
#include <tiffio.h>

#include <filesystem>

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

QMErrors::QMErrorT codeOf(const std::string& path) {
  Bitmap ignored;
  return readAll(path, ignored).code;
}

std::vector<TiffForm> installedCompressions() {
  const TiffForm all[] = {
      {"none", COMPRESSION_NONE},
      {"PackBits", COMPRESSION_PACKBITS},
      {"LZW", COMPRESSION_LZW},
      {"Deflate", COMPRESSION_ADOBE_DEFLATE},
      {"old Deflate", COMPRESSION_DEFLATE},
      {"RLE", COMPRESSION_CCITTRLE},
      {"G3 1D", COMPRESSION_CCITTFAX3},
      {"G3 1D with fill bits", COMPRESSION_CCITTFAX3, GROUP3OPT_FILLBITS},
      {"G3 2D", COMPRESSION_CCITTFAX3, GROUP3OPT_2DENCODING},
      {"G4", COMPRESSION_CCITTFAX4},
  };
  std::vector<TiffForm> installed;
  for (const TiffForm& form : all) {
    if (TIFFIsCODECConfigured(form.compression) != 0) installed.push_back(form);
  }
  return installed;
}

/// The RLE decoder loses the last line of a strip or tile when it takes a single byte, as no line
/// of a real page does.
bool isUsual(const TiffForm& form, unsigned width) {
  return form.compression != COMPRESSION_CCITTRLE || (form.tileSide == 0 && width > 100);
}

TEST(PageReader, ReadsTheSameLinesFromEveryForm) {
  const qmtest::TempFolder folder;
  const std::string path = folder.file("page.tif");
  std::mt19937 random(1);
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
          if (!isUsual(form, width)) continue;
          const Bitmap page = qmtest::randomBitmap(width, 1 + random() % 60, random);
          qmtest::writeTiff(path, page, form);
          Bitmap read;
          const Failure failure = readAll(path, read);
          ASSERT_FALSE(failure) << form.name << ": " << failure.reason;
          ASSERT_TRUE(read.lines == page.lines)
              << form.name << ", " << rows << " rows a strip, tiles of " << side << ", variant "
              << variant << ", width " << width;
        }
      }
    }
  }
}

TEST(PageReader, DamagedPagesFailAndNeverCrash) {
  const qmtest::TempFolder folder;
  const std::string path = folder.file("page.tif");
  std::mt19937 random(2);
  int failed = 0;
  for (TiffForm form : installedCompressions()) {
    for (std::uint32_t side : {0u, 16u}) {
      form.tileSide = side;
      form.rowsPerStrip = 9;
      qmtest::writeTiff(path, qmtest::randomBitmap(150, 40, random), form);
      const std::string whole = qmtest::readFile(path);
      // The directory stands at the end, so a shorter file has none.
      for (std::size_t size = 0; size + 1 < whole.size(); size += 1 + size / 3) {
        qmtest::writeFile(path, whole.substr(0, size));
        EXPECT_EQ(codeOf(path), QMErrors::BadTiffFile) << form.name << " cut to " << size;
      }
      for (int i = 0; i < 60; ++i) {
        std::string damaged = whole;
        for (int change = 0; change < 3; ++change) {
          damaged[random() % damaged.size()] = static_cast<char>(random());
        }
        qmtest::writeFile(path, damaged);
        const QMErrors::QMErrorT code = codeOf(path);
        failed += code == QMErrors::BadTiffFile;
        EXPECT_TRUE(code == QMErrors::NoError || code == QMErrors::BadTiffFile ||
                    code == QMErrors::UnsuitableImageType ||
                    code == QMErrors::ResolutionOutsideValidRange ||
                    code == QMErrors::ImageIsTooBigToFitOnThePlate)
            << form.name << ": " << code;
      }
    }
  }
  EXPECT_GT(failed, 100) << "the damage did not get where it hurts";
  // The data of this one stands behind its directory.
  const std::string sample = qmtest::readFile(SAMPLE_PAGE);
  qmtest::writeFile(path, sample.substr(0, sample.size() / 2));
  EXPECT_EQ(codeOf(path), QMErrors::BadTiffFile);
  qmtest::writeFile(path, "This is no page.");
  EXPECT_EQ(codeOf(path), QMErrors::BadTiffFile);
}

TEST(PageReader, LinesThatTheDecoderMendsAreDamageToo) {
  const qmtest::TempFolder folder;
  const std::string path = folder.file("page.tif");
  std::mt19937 random(8);
  for (const TiffForm& form : installedCompressions()) {
    if (form.compression != COMPRESSION_CCITTRLE && form.compression != COMPRESSION_CCITTFAX3) {
      continue;
    }
    qmtest::writeTiff(path, qmtest::randomBitmap(2000, 40, random), form);
    std::string damaged = qmtest::readFile(path);
    damaged.replace(damaged.size() / 2, 40, 40, '\x5A');
    qmtest::writeFile(path, damaged);
    EXPECT_EQ(codeOf(path), QMErrors::BadTiffFile) << form.name;
  }
}

TEST(PageReader, TilesOfAbsurdSizeAreRefused) {
  const qmtest::TempFolder folder;
  const std::string path = folder.file("page.tif");
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  for (const auto& [tag, value] : {std::pair{TIFFTAG_IMAGEWIDTH, 100u},
                                   {TIFFTAG_IMAGELENGTH, 100u},
                                   {TIFFTAG_TILEWIDTH, 1u << 20},
                                   {TIFFTAG_TILELENGTH, 1u << 20}}) {
    TIFFSetField(tiff, static_cast<std::uint32_t>(tag), value);
  }
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 1);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
  TIFFWriteDirectory(tiff);
  TIFFClose(tiff);
  EXPECT_EQ(codeOf(path), QMErrors::BadTiffFile);
}

TEST(PageReader, TellsWhatIsWrongWithAPage) {
  const qmtest::TempFolder folder;
  std::mt19937 random(3);
  const Bitmap page = qmtest::randomBitmap(20, 3, random);
  qmtest::writeDeepTiff(folder.file("grey.tif"), 8, 1);
  qmtest::writeDeepTiff(folder.file("rgb.tif"), 8, 3);
  TiffForm fax{"fax", COMPRESSION_CCITTFAX4};
  fax.resolution = 204;
  fax.acrossResolution = 98;
  qmtest::writeTiff(folder.file("fax.tif"), page, fax);
  std::filesystem::create_directory(folder.file("folder"));
  qmtest::writeTiff(folder.file("folder/page.tif"), page);
  const std::pair<const char*, QMErrors::QMErrorT> cases[] = {
      {"missing.tif", QMErrors::UnableToFindFile},
      {"folder", QMErrors::FailedToOpenFile},
      {"grey.tif", QMErrors::UnsuitableImageType},
      {"rgb.tif", QMErrors::UnsuitableImageType},
      {"fax.tif", QMErrors::ResolutionOutsideValidRange},
      {"folder\\page.tif", QMErrors::NoError},
  };
  for (const auto& [name, code] : cases) EXPECT_EQ(codeOf(folder.file(name)), code) << name;
  PageReader reader;
  ASSERT_FALSE(reader.open(folder.path() + "\\folder\\page.tif"));
  EXPECT_EQ(reader.resolution(), 100);
}

}  // namespace
}  // namespace programs
