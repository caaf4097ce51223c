// The test tool's commands that sound, as a user calls them.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "tests/support/Program.h"
#include "tests/support/SoundCapture.h"
#include "tests/transport/PseudoTerminal.h"

namespace {

using qmtest::Program;

Program command(const std::string& line) { return Program(TESTTOOL " " + line); }

TEST(SoundCommands, BeepSoundsAsAsked) {
  const qmtest::SoundCapture capture;
  Program beep = command("beep --freq 500 --mark 100 --space 0 --repeats 2");
  EXPECT_EQ(beep.wait(), 0);
  EXPECT_EQ(beep.output() + beep.errors(), "");
  EXPECT_NEAR(double(capture.samples().size()), 4800, 960);

  capture.useDevice("nothing");
  Program failing = command("beep --repeats forever");
  EXPECT_EQ(failing.wait(), 1);
  EXPECT_EQ(failing.errors(),
            " ERROR: BeepC::run():  Error: 20 (0x14) The device cannot be found.\n");
}

TEST(SoundCommands, PlayPlaysWhatIsAWaveFile) {
  const qmtest::SoundCapture capture;
  const std::string wave = makeWave(capture.folder(), "good.wav", 100);
  EXPECT_EQ(command("play --space 0 " + wave).wait(), 0);
  EXPECT_NEAR(double(capture.samples().size()), 800, 160);

  // The tone that stands in fails as well.
  capture.useDevice("capture:FILE=/dev/full");
  EXPECT_EQ(command("play " + makeWave(capture.folder(), "b.wav", 10'000)).wait(), 1);

  const std::string mute = capture.folder().file("mute.wav"), odd = wave + "e";
  qmtest::writeFile(mute, "");
  qmtest::writeFile(odd, qmtest::readFile(wave));
  const std::pair<std::string, const char*> cases[] = {
      {mute, "Error: 13 (0xD) The data is invalid."},
      {mute + "x", "Error: 2 (0x2) The file cannot be found."},
      {odd, "its name must end in .wav"},
  };
  for (const auto& [file, reason] : cases) {
    Program play = command("play " + file);
    EXPECT_EQ(play.wait(), 1);
    EXPECT_EQ(play.errors(), "testtool play: " + file + ": " + reason + "\n");
  }
}

TEST(SoundCommands, EndByKeyAndInterrupt) {
  const qmtest::SoundCapture capture;
  const std::string wave = makeWave(capture.folder(), "long.wav", 600'000);
  const qmtest::PseudoTerminal terminal;
  const std::string started = "_beginthreadex() succeeded for Thread: BeepC";
  Program beep = command("beep --repeats forever --mark 20 --space 1 --log 1 <" + terminal.name());
  ASSERT_TRUE(beep.awaitText(started));
  terminal.send("x\n");
  EXPECT_EQ(beep.wait(), 0);
  EXPECT_TRUE(beep.awaitText("key hit so stopping sound."));

  // The key waits for the end of the file; Ctrl-C does not.
  const qmtest::PseudoTerminal second;
  Program play = command("play --log 1 " + wave + " <" + second.name());
  ASSERT_TRUE(play.awaitText("playing sound: " + wave));
  second.send("x\n");
  play.signal(SIGINT);
  EXPECT_EQ(play.wait(), 130);

  Program endless = command("beep --mark 4294967295 --log 1 </dev/null");
  ASSERT_TRUE(endless.awaitText(started));
  endless.signal(SIGINT);
  EXPECT_EQ(endless.wait(), 130);
}

TEST(SoundCommands, RefuseWhatTheyCannotTake) {
  for (const char* wrong : {"beep x", "beep --freq 36", "beep --freq 32768", "beep --mark -1",
                            "beep --repeats always", "beep --repeats 4294967295", "beep --log",
                            "play", "play ''", "play a.wav b.wav", "play a.wav --space x"}) {
    EXPECT_EQ(command(wrong).wait(), 2) << wrong;
  }
}

}  // namespace
