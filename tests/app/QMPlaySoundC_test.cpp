#include "qmutils/app/QMPlaySoundC.h"

#include <gtest/gtest.h>

#include <sstream>

#include "qmutils/data/QMXmlC.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"

namespace {

using QMErrors::QMErrorT;

std::string textOf(const QMPlaySoundC& sound) {
  std::ostringstream text;
  text << (sound.GetSoundName() != nullptr ? sound.GetSoundName() : "(none)") << ' '
       << sound.m_nRepeats << ' ' << sound.m_AltBeepFreq << ' ' << sound.m_AltBeepMark << ' '
       << sound.m_AltBeepSpace << ' ' << sound.m_bEnabled << ' ' << sound.m_bStopOnKbHit;
  return text.str();
}

TEST(QMPlaySoundC, CopiesHaveNamesOfTheirOwn) {
  char name[] = "a.wav";
  QMPlaySoundC sound(name, 1, 2, 3, 4, 5);
  name[0] = 'x';
  sound.m_bEnabled = 0;
  QMPlaySoundC copy(sound), assigned(nullptr, 0, 0, 0, 0, 0);
  EXPECT_EQ(textOf(assigned), "(none) 0 0 0 0 1 0");
  assigned = sound;
  assigned = *&assigned;
  EXPECT_EQ(sound.SetSoundName(sound.GetSoundName() + 1), QMErrors::NoError);
  EXPECT_EQ(textOf(sound), ".wav 1 2 3 4 0 5");
  EXPECT_EQ(textOf(copy), "a.wav 1 2 3 4 0 5");
  EXPECT_EQ(textOf(assigned), "a.wav 1 2 3 4 0 5");

  QMstrstream stream;
  stream << "b.wav" << std::ends << "rest";
  EXPECT_EQ(copy.SetSoundName(stream), QMErrors::NoError);
  EXPECT_STREQ(copy.GetSoundName(), "b.wav");
  QMstrstream empty;
  EXPECT_EQ(copy.SetSoundName(empty), QMErrors::NoError);
  EXPECT_EQ(copy.GetSoundName(), nullptr);
}

TEST(QMPlaySoundC, GoesThroughXml) {
  QMXmlC root("Sounds", 0, nullptr);
  const QMPlaySoundC alarm("C:\\Sounds\\a.wav", 0xFFFFFFFFu, 1000, 300, 200, -1);
  const QMPlaySoundC tone(nullptr, 2, 440, 1, 0, 0);
  EXPECT_EQ(alarm.ToXML(root), QMErrors::NoError);
  EXPECT_EQ(tone.ToXML(root), QMErrors::NoError);
  std::stringstream text;
  text << root;
  EXPECT_NE(text.str().find("<QMPlaySoundC m_pSound = \"C:\\Sounds\\a.wav\" "
                            "m_nRepeats = \"4294967295\" m_AltBeepFreq = \"1000\" "
                            "m_AltBeepMark = \"300\" m_AltBeepSpace = \"200\" m_bEnabled = \"1\" "
                            "m_bStopOnKbHit = \"-1\""),
            std::string::npos)
      << text.str();
  QMXmlC read(nullptr, 0, nullptr);
  text >> read;
  QMPlaySoundC sound("old", 9, 9, 9, 9, 9);
  QMXmlC* const first = read.GetFirstChild();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(sound.FromXML(*first), QMErrors::NoError);
  EXPECT_EQ(textOf(sound), textOf(alarm));
  EXPECT_EQ(sound.FromXML(*first->GetNextSibling()), QMErrors::NoError);
  EXPECT_EQ(textOf(sound), textOf(tone)) << "an empty name is none";
}

TEST(QMPlaySoundC, BadXmlLeavesWhatItCannotRead) {
  const qmtest::LogCapture log(1);
  QMPlaySoundC sound("old.wav", 1, 2, 3, 4, 5);
  QMXmlC other("QMPlateC", 0, nullptr);
  other.AddProperty("m_nRepeats", "7");
  EXPECT_EQ(sound.FromXML(other), QMErrors::InvalidObjectName);
  EXPECT_EQ(log.text(),
            " ERROR: QMPlaySoundC::FromXML(): Object is not a QMPlaySoundC: GetObjectName() "
            "returned: QMPlateC\n");

  QMXmlC element("QMPlaySoundC", 0, nullptr);
  EXPECT_EQ(sound.FromXML(element), QMErrors::NoError);
  EXPECT_EQ(textOf(sound), "old.wav 1 2 3 4 1 5") << "nothing there";
  element.AddProperty("m_nRepeats", "many");
  element.AddProperty("m_AltBeepFreq", "4294967296");
  element.AddProperty("m_AltBeepMark", " 30 ms");
  element.AddProperty("m_AltBeepSpace", "");
  element.AddProperty("m_bEnabled", "-2147483649");
  element.AddProperty("m_bStopOnKbHit", "-1");
  element.AddProperty("m_pSound", "new.wav");
  EXPECT_EQ(sound.FromXML(element), QMErrors::InvalidObjectData);
  EXPECT_EQ(textOf(sound), "new.wav 1 2 30 4 1 -1");
  EXPECT_TRUE(log.contains(" ERROR: QMPlaySoundC::FromXML(): m_nRepeats is no number: many\n"));
}

TEST(QMPlaySoundC, RunningOutOfMemoryChangesNothing) {
  const std::string longName(100, 'n');
  const QMPlaySoundC sound(longName.c_str(), 1, 2, 3, 4, 5);
  QMXmlC root("Sounds", 0, nullptr);
  int failures = 0;
  for (int n = 1;; ++n, ++failures) {
    const qmtest::LogCapture log(1);
    qmtest::FailingAllocation nth(n);
    const QMErrorT result = sound.ToXML(root);
    if (!nth.hasFailed()) break;
    EXPECT_EQ(result, QMErrors::MemoryAllocationFailed) << n;
    EXPECT_TRUE(log.contains(" ERROR: QMPlaySoundC::ToXML(): failed while allocating pXML\n"));
    EXPECT_EQ(root.GetFirstChild(), nullptr) << "half an element";
  }
  EXPECT_GT(failures, 8);

  QMPlaySoundC assigned("old", 0, 0, 0, 0, 0), read("old", 0, 0, 0, 0, 0);
  const auto failsOnce = [](const auto& operation) {
    const qmtest::LogCapture log(1);
    const qmtest::FailingAllocation first(1);
    operation();
    EXPECT_TRUE(first.hasFailed());
    EXPECT_TRUE(log.contains(" ERROR: QMPlaySoundC::SetSoundName(): Memory allocation failed"));
  };
  failsOnce([&] { assigned = sound; });
  EXPECT_EQ(textOf(assigned), "old 0 0 0 0 1 0");
  failsOnce([&] { EXPECT_EQ(assigned.SetSoundName("new"), QMErrors::MemoryAllocationFailed); });
  EXPECT_EQ(textOf(assigned), "old 0 0 0 0 1 0");
  failsOnce([&] { EXPECT_EQ(textOf(QMPlaySoundC(sound)), "(none) 1 2 3 4 1 5"); });
}

}  // namespace
