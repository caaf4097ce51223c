#include <gtest/gtest.h>

#include "programs/imager/JobDescription.h"
#include "qmutils/imager/ICFC.h"
#include "tests/support/TempFolder.h"

namespace programs {
namespace {

TEST(JobLine, NamesNumberPageAndImageControl) {
  JobDescription job;
  std::string icf;
  for (const char* line :
       {"-jobid 17 -fl \"/jobs/page 1.tif\" -pr \"C:\\x y\\job17.icf\"\r\n",
        "  -pr   C:\\x\" \"y\\job17.icf  -fl \"/jobs/page 1.tif\" -jobid \"17\""}) {
    job = {};
    EXPECT_FALSE(parseJobLine(line, job, icf)) << line;
    EXPECT_EQ(job.number, 17u) << line;
    EXPECT_EQ(job.page, "/jobs/page 1.tif") << line;
    EXPECT_EQ(icf, "C:\\x y\\job17.icf") << line;
  }
  for (const char* line :
       {"", "\n-jobid 1 -fl a -pr b", "-jobid 1 -fl a", "-jobid 1 -pr b", "-fl a -pr b",
        "-jobid 1 -fl \"\" -pr b", "-jobid -1 -fl a -pr b", "-jobid 1x -fl a -pr b",
        "-jobid 4294967296 -fl a -pr b", "-jobid 1 -fl a b -pr c", "-jobid 1 -fl a -pr",
        "-jobid 1 -fl a -pr b -new 1"}) {
    job = {};
    icf.clear();
    EXPECT_EQ(parseJobLine(line, job, icf).code, QMErrors::BadCommandLineArguments) << line;
  }
}

class ImageControl : public testing::Test {
 protected:
  Failure read(const std::string& profile) {
    const ICFC icf(profile.c_str());
    EXPECT_EQ(icf.Save(path_.c_str(), ICFC::ExposeInfoC("page", 1)), QMErrors::NoError);
    job_ = {};
    bool recognised = false;
    return readImageControl(path_, job_, &recognised);
  }

  qmtest::TempFolder folder_;
  const std::string path_ = folder_.path() + "\\job.icf";
  JobDescription job_;
};

TEST_F(ImageControl, SetsTheDrum) {
  EXPECT_FALSE(read("Default"));
  EXPECT_EQ(job_.outputFolder, ".");
  EXPECT_EQ(job_.drum.widthMm, 230);
  EXPECT_FALSE(job_.drum.clips);
  EXPECT_FALSE(read(
      "Fine;DrumWidthMM=1030.5;DrumHeightMM=800;ResolutionDPI=2400;PageLeftMM=0;PageTopMM=12.5;"
      "EnableClipping=1;ClipColor=1;FastLeadingPixels=1;FastTrailingPixels=2;"
      "SlowLeadingLines=3;SlowTrailingLines=4;LinesPerSecond=4294967295;Unknown=x;"
      "OutputFolder=/a b/c=d"));
  const DrumSettings& drum = job_.drum;
  EXPECT_EQ((std::vector{drum.widthMm, drum.heightMm, drum.resolutionDpi, drum.leftMm, drum.topMm}),
            (std::vector<double>{1030.5, 800, 2400, 0, 12.5}));
  EXPECT_TRUE(drum.clips && drum.clippedIsExposed);
  EXPECT_EQ((std::vector{drum.fastLeadingPixels, drum.fastTrailingPixels, drum.slowLeadingLines,
                         drum.slowTrailingLines, drum.linesPerSecond}),
            (std::vector{1u, 2u, 3u, 4u, 4294967295u}));
  EXPECT_EQ(job_.outputFolder, "/a b/c=d");
}

TEST_F(ImageControl, BadSettingsAreRefused) {
  for (const char* setting :
       {"DrumWidthMM=", "DrumWidthMM=0", "DrumWidthMM=-1", "DrumWidthMM=10000", "DrumWidthMM=nan",
        "DrumHeightMM=12mm", "DrumHeightMM=inf", "ResolutionDPI=-1", "ResolutionDPI=25401",
        "PageLeftMM=inf", "PageTopMM=nan", "PageTopMM=1e300", "EnableClipping=2", "ClipColor=yes",
        "FastLeadingPixels=-1", "SlowTrailingLines=4294967296", "LinesPerSecond=1.5"}) {
    const Failure failure = read(std::string("Default;") + setting);
    EXPECT_EQ(failure.code, QMErrors::BadMissingMalformedICFFile) << setting;
    EXPECT_EQ(failure.file, path_);
  }
  for (const char* document :
       {"", "no document", "<ImageControl >", "<Other ><Profile Name = \"x\" /></Other >",
        "<ImageControl ><Job Number = \"1\" /></ImageControl >"}) {
    qmtest::writeFile(folder_.file("job.icf"), document);
    bool recognised = false;
    EXPECT_EQ(readImageControl(path_, job_, &recognised).code, QMErrors::BadMissingMalformedICFFile)
        << document;
    EXPECT_EQ(recognised, std::string(document).starts_with("<ImageControl ><Job")) << document;
  }
}

TEST_F(ImageControl, AJobIsReadOnceAndItsFilesAreGone) {
  const std::string jobFile = folder_.path() + "\\job.txt";
  const std::string longName(1500, 'n');
  const std::string line = "-jobid 3 -fl \"" + longName + "\" -pr \"" + path_ + "\"\n";
  qmtest::writeFile(folder_.file("job.txt"), line);
  EXPECT_FALSE(read("Default;ResolutionDPI=600"));
  job_.number = 9;
  const Failure failure = readJob(jobFile, job_);
  EXPECT_FALSE(failure) << failure.reason;
  EXPECT_EQ(job_.number, 3u);
  EXPECT_EQ(job_.page, longName);
  EXPECT_EQ(job_.drum.resolutionDpi, 600);
  job_.number = 9;
  EXPECT_EQ(readJob(jobFile, job_).code, QMErrors::FailedToReadFile);
  EXPECT_EQ(job_.number, 9u);
  qmtest::writeFile(folder_.file("job.txt"), line);
  EXPECT_EQ(readJob(jobFile, job_).code, QMErrors::BadMissingMalformedICFFile)
      << "the image control is gone too";
  EXPECT_EQ(job_.number, 3u) << "the report can name the job";

  // What is no job file, nor an image control document, is somebody's.
  qmtest::writeFile(folder_.file("job.txt"), "a letter");
  EXPECT_EQ(readJob(jobFile, job_).code, QMErrors::BadCommandLineArguments);
  EXPECT_EQ(qmtest::readFile(folder_.file("job.txt")), "a letter");
  qmtest::writeFile(folder_.file("job.txt"), line);
  qmtest::writeFile(folder_.file("job.icf"), "another");
  EXPECT_EQ(readJob(jobFile, job_).code, QMErrors::BadMissingMalformedICFFile);
  EXPECT_EQ(qmtest::readFile(folder_.file("job.icf")), "another");
  EXPECT_EQ(readJob("/dev/zero", job_).code, QMErrors::FailedToReadFile);
}

}  // namespace
}  // namespace programs
