// The drum and the pictures of the plate.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "programs/imager/Drum.h"
#include "programs/imager/PlatePicture.h"
#include "tests/programs/Pages.h"
#include "tests/support/TempFolder.h"

namespace programs {
namespace {

namespace fs = std::filesystem;
using qmtest::Bitmap;

constexpr double kPixelPerMm = 25.4;  // dots per inch

/// What one pixel of the drum carries, worked out the slow way.
bool pixelOf(const DrumSettings& drum, const Bitmap& page, unsigned x, unsigned y) {
  const auto width = static_cast<unsigned>(drum.widthMm);
  const auto height = static_cast<unsigned>(drum.heightMm);
  if (drum.clips && (x < drum.fastLeadingPixels || width - 1 - x < drum.fastTrailingPixels ||
                     y < drum.slowLeadingLines || height - 1 - y < drum.slowTrailingLines)) {
    return drum.clippedIsExposed;
  }
  const unsigned left = drum.leftMm < 0 ? (width - page.width) / 2 : unsigned(drum.leftMm);
  const unsigned top = drum.topMm < 0 ? (height - page.height) / 2 : unsigned(drum.topMm);
  return x >= left && x - left < page.width && y >= top && y - top < page.height &&
         page.at(x - left, y - top);
}

TEST(Drum, CarriesThePageAtEveryBitOffsetAndTheClippedMargins) {
  std::mt19937 random(4);
  for (int round = 0; round < 3000; ++round) {
    const Bitmap page = qmtest::randomBitmap(1 + random() % 30, 1 + random() % 6, random);
    DrumSettings settings;
    settings.widthMm = page.width + random() % 20;
    settings.heightMm = page.height + random() % 6;
    settings.resolutionDpi = kPixelPerMm;
    if (random() % 4 != 0) {
      settings.leftMm = static_cast<double>(random() % unsigned(settings.widthMm - page.width + 1));
      settings.topMm =
          static_cast<double>(random() % unsigned(settings.heightMm - page.height + 1));
    }
    settings.clips = random() % 2 != 0;
    settings.clippedIsExposed = random() % 2 != 0;
    settings.fastLeadingPixels = random() % 60;  // sometimes more than there are
    settings.fastTrailingPixels = random() % 12;
    settings.slowLeadingLines = random() % 4;
    settings.slowTrailingLines = random() % 15;
    Drum drum;
    const Failure failure = drum.layOut(settings, page.width, page.height, 0);
    ASSERT_FALSE(failure) << failure.reason;
    ASSERT_EQ(drum.width(), unsigned(settings.widthMm));
    ASSERT_EQ(drum.height(), unsigned(settings.heightMm));
    Bitmap exposed{drum.width(), drum.height(), {}};
    unsigned next = 0;
    std::vector<std::uint8_t> pageLine;
    for (unsigned y = 0; y < drum.height(); ++y) {
      if (drum.takesPageLine(y)) pageLine = page.lines.at(next++);
      drum.expose(y, pageLine, exposed.lines.emplace_back());
      ASSERT_EQ(exposed.lines.back().size(), (drum.width() + 7) / 8);
      for (unsigned x = 0; x < drum.width(); ++x) {
        ASSERT_EQ(exposed.at(x, y), pixelOf(settings, page, x, y))
            << "round " << round << ", pixel " << x << ", line " << y;
      }
      for (unsigned x = drum.width(); x % 8 != 0; ++x) ASSERT_FALSE(exposed.at(x, y));
    }
    ASSERT_EQ(next, page.height);
  }
}

TEST(Drum, RefusesPagesThatDoNotFit) {
  struct Case {
    double drumMm, leftMm, drumDpi, pageDpi;
    QMErrors::QMErrorT code;
  };
  const Case cases[] = {
      {100, -1, kPixelPerMm, kPixelPerMm, QMErrors::NoError},
      {100, 0, 0, kPixelPerMm, QMErrors::NoError},
      {100, -1, 1200, 1199, QMErrors::NoError},
      {99, -1, kPixelPerMm, 0, QMErrors::ImageIsTooBigToFitOnThePlate},
      {100, 1, kPixelPerMm, 0, QMErrors::ImageIsTooBigToFitOnThePlate},
      {100, 9999, kPixelPerMm, 0, QMErrors::ImageIsTooBigToFitOnThePlate},
      {100, -1, 1200, 600, QMErrors::ResolutionOutsideValidRange},
      {100, -1, 0, 30000, QMErrors::ResolutionOutsideValidRange},
      {1001, -1, 25400, 0, QMErrors::ResolutionOutsideValidRange},
  };
  for (const Case& c : cases) {
    DrumSettings settings;
    settings.widthMm = c.drumMm;
    settings.heightMm = 200;
    settings.leftMm = c.leftMm;
    settings.resolutionDpi = c.drumDpi;
    EXPECT_EQ(Drum().layOut(settings, 100, 100, c.pageDpi).code, c.code)
        << c.drumMm << " mm, left " << c.leftMm << ", " << c.drumDpi << " and " << c.pageDpi;
  }
}

Failure writePicture(const std::string& base, const Bitmap& bitmap, bool finish = true) {
  PlatePicture picture;
  Failure failure = picture.open(base, bitmap.width, bitmap.height, 100);
  for (unsigned y = 0; y < bitmap.height && !failure; ++y) {
    failure = picture.addLine(bitmap.lines[y]);
  }
  return failure || !finish ? failure : picture.finish();
}

std::size_t filesIn(const std::string& folder) {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), {}));
}

TEST(PlatePicture, HoldsEverySpot) {
  const qmtest::TempFolder folder;
  std::mt19937 random(5);
  for (const auto& [width, height] : {std::pair{1u, 1u}, {13u, 9u}, {2401u, 3u}, {64u, 1500u}}) {
    const Bitmap plate = qmtest::randomBitmap(width, height, random);
    const Failure failure = writePicture(folder.path() + "\\plate", plate);
    ASSERT_FALSE(failure) << failure.reason;
    const Bitmap read = qmtest::readPng(folder.file("plate.png"));
    EXPECT_EQ(read.width, width);
    EXPECT_EQ(read.lines, plate.lines) << width << " x " << height;
    EXPECT_EQ(filesIn(folder.path()), 2u) << "plate and preview";
  }
}

TEST(PlatePicture, AFailedOneLeavesNoFile) {
  std::mt19937 random(6);
  const Bitmap plate = qmtest::randomBitmap(500, 2000, random);
  for (const char* full : {"p.png.tmp", "p-preview.png.tmp"}) {
    const qmtest::TempFolder folder;
    fs::create_symlink("/dev/full", folder.file(full));
    EXPECT_EQ(writePicture(folder.file("p"), plate).code, QMErrors::FailedToWriteToFile) << full;
    EXPECT_EQ(filesIn(folder.path()), 0u) << full;
  }
  for (const char* taken : {"p.png", "p-preview.png"}) {
    const qmtest::TempFolder folder;
    fs::create_directory(folder.file(taken));
    EXPECT_EQ(writePicture(folder.file("p"), plate).code, QMErrors::FailedToWriteToFile) << taken;
    EXPECT_EQ(filesIn(folder.path()), 1u) << "only the folder that is in the way, " << taken;
  }
  const qmtest::TempFolder folder;
  EXPECT_FALSE(writePicture(folder.file("p"), plate, false));
  EXPECT_EQ(filesIn(folder.path()), 0u) << "given up";
  EXPECT_EQ(writePicture(folder.file("no/p"), plate).code, QMErrors::FailedToOpenFile);
}

}  // namespace
}  // namespace programs
