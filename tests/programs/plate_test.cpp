// The drum and the pictures of the plate.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <random>

#include "programs/imager/Drum.h"
#include "programs/imager/Exposure.h"
#include "programs/imager/PlatePicture.h"
#include "tests/programs/Pages.h"
#include "tests/support/TempFolder.h"

namespace programs {
namespace {

namespace fs = std::filesystem;
using qmtest::Bitmap;

constexpr float kPixelPerMm = 25.4F;  // dots per inch

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

/// Demands that each pixel of the picture shows what share of a square of the drum is burnt, and
/// that the drum's first pixel is a square's first.
void expectShown(const qmtest::Picture& picture, unsigned scale, const DrumSettings& drum,
                 const Bitmap& page) {
  const auto width = static_cast<unsigned>(drum.widthMm);
  const auto height = static_cast<unsigned>(drum.heightMm);
  ASSERT_EQ(picture.width, (width + scale - 1) / scale);
  ASSERT_EQ(picture.height, (height + scale - 1) / scale);
  EXPECT_NEAR(picture.dpi, drum.resolutionDpi / scale, 0.1);
  for (unsigned row = 0; row < picture.height; ++row) {
    for (unsigned column = 0; column < picture.width; ++column) {
      unsigned burnt = 0;
      unsigned spots = 0;
      for (unsigned y = row * scale; y < std::min(height, (row + 1) * scale); ++y) {
        for (unsigned x = column * scale; x < std::min(width, (column + 1) * scale); ++x, ++spots) {
          burnt += pixelOf(drum, page, x, y);
        }
      }
      const double red = 0xC9 - double{0xC9 - 0x1B} * burnt / spots;
      ASSERT_NEAR(picture.redAt(column, row), red, 0.6) << column << ", " << row;
    }
  }
}

/// A drum at least as large as the page, which lies anywhere on it.
DrumSettings randomSettings(const Bitmap& page, std::mt19937& random) {
  DrumSettings settings;
  settings.widthMm = page.width + random() % 20;
  settings.heightMm = page.height + random() % 6;
  settings.resolutionDpi = kPixelPerMm;
  if (random() % 4 != 0) {
    settings.leftMm = static_cast<double>(random() % unsigned(settings.widthMm - page.width + 1));
    settings.topMm = static_cast<double>(random() % unsigned(settings.heightMm - page.height + 1));
  }
  settings.clips = random() % 2 != 0;
  settings.clippedIsExposed = random() % 2 != 0;
  settings.fastLeadingPixels = random() % 60;  // sometimes more than there are
  settings.fastTrailingPixels = random() % 12;
  settings.slowLeadingLines = random() % 4;
  settings.slowTrailingLines = random() % 15;
  return settings;
}

TEST(Drum, RefusesPagesThatDoNotFit) {
  struct Case {
    double drumMm, leftMm, drumDpi, pageDpi;
    QMErrors::QMErrorT code;
  };
  constexpr auto kFits = QMErrors::NoError;
  constexpr auto kTooBig = QMErrors::ImageIsTooBigToFitOnThePlate;
  constexpr auto kBadDpi = QMErrors::ResolutionOutsideValidRange;
  const Case cases[] = {
      {100, -1, 25.4, 25.4, kFits},  {100, 0, 0, 25.4, kFits},     {100, -1, 1200, 1199, kFits},
      {99, -1, 25.4, 0, kTooBig},    {100, 1, 25.4, 0, kTooBig},   {100, 9999, 25.4, 0, kTooBig},
      {100, -1, 1200, 600, kBadDpi}, {100, -1, 0, 30000, kBadDpi}, {1001, -1, 25400, 0, kBadDpi}};
  for (const Case& c : cases) {
    const DrumSettings settings{
        .widthMm = c.drumMm, .heightMm = 200, .resolutionDpi = c.drumDpi, .leftMm = c.leftMm};
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

TEST(PlatePicture, AFailedOneLeavesNoFile) {
  std::mt19937 random(6);
  const Bitmap plate = qmtest::randomBitmap(500, 2000, random);
  for (const std::string name : {"p.png", "p-preview.png"}) {
    const qmtest::TempFolder folder;
    fs::create_directory(folder.file(name));
    EXPECT_EQ(writePicture(folder.file("p"), plate).code, QMErrors::FailedToWriteToFile) << name;
    EXPECT_EQ(filesIn(folder.path()), 1u) << "only the folder that is in the way, " << name;
  }
  const qmtest::TempFolder folder;
  rlimit former{};
  getrlimit(RLIMIT_FSIZE, &former);
  for (const rlim_t size : {0, 4096}) {
    const auto formerHandler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{size, former.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    const Failure failure = writePicture(folder.file("p"), plate);
    setrlimit(RLIMIT_FSIZE, &former);
    std::signal(SIGXFSZ, formerHandler);
    EXPECT_EQ(failure.code, QMErrors::FailedToWriteToFile) << size;
    EXPECT_EQ(filesIn(folder.path()), 0u) << size;
  }
  EXPECT_FALSE(writePicture(folder.file("p"), plate, false));
  EXPECT_EQ(filesIn(folder.path()), 0u) << "given up";
  EXPECT_EQ(writePicture(folder.file("no/p"), plate).code, QMErrors::FailedToOpenFile);
}

TEST(PlatePicture, TwoOfOneNameDoNotMix) {
  std::mt19937 random(8);
  const qmtest::TempFolder folder;
  const Bitmap plates[] = {qmtest::randomBitmap(90, 30, random),
                           qmtest::randomBitmap(90, 30, random)};
  PlatePicture pictures[2];
  for (PlatePicture& picture : pictures) ASSERT_FALSE(picture.open(folder.file("p"), 90, 30, 100));
  for (unsigned y = 0; y < 30; ++y) {
    for (int i : {0, 1}) ASSERT_FALSE(pictures[i].addLine(plates[i].lines[y]));
  }
  for (int i : {1, 0}) {
    ASSERT_FALSE(pictures[i].finish());
    const qmtest::Picture read = qmtest::readPng(folder.file("p.png"));
    ASSERT_EQ(read.width, 90u);
    for (unsigned y = 0; y < 30; ++y) {
      for (unsigned x = 0; x < 90; ++x) ASSERT_EQ(read.burntAt(x, y), plates[i].at(x, y));
    }
  }
  EXPECT_EQ(filesIn(folder.path()), 2u);
}

TEST(Exposure, PutsThePageOntoThePlateAtEveryBitOffsetWithTheClippedMargins) {
  const qmtest::TempFolder folder;
  std::mt19937 random(4);
  const auto ignore = [](unsigned, unsigned) { return true; };
  for (int round = 0; round < 600; ++round) {
    const bool isLong = round % 100 == 0;  // so that the preview is made smaller
    const Bitmap page =
        qmtest::randomBitmap((isLong ? 2400 : 1) + random() % 30, 1 + random() % 6, random);
    qmtest::writeTiff(folder.file("page"), page, {.resolution = kPixelPerMm});
    const JobDescription job{7, folder.file("page"), folder.path(), randomSettings(page, random)};
    std::string picture;
    const Failure failure = exposePage(job, ignore, picture);
    ASSERT_FALSE(failure) << failure.reason;
    ASSERT_EQ(picture, "page-7.png");
    const qmtest::Picture plate = qmtest::readPng(folder.file("page-7.png"));
    EXPECT_EQ(plate.bits, 1);
    SCOPED_TRACE(round);
    expectShown(plate, 1, job.drum, page);
    expectShown(qmtest::readPng(folder.file("page-7-preview.png")), isLong ? 3 : 1, job.drum, page);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
}  // namespace programs
