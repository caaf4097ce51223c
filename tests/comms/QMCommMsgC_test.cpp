#include "qmutils/comms/QMCommMsgC.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"

namespace {

std::string written(const QMCommMsgC& message) {
  std::ostringstream os;
  os << message;
  return os.str();
}

QMErrors::QMErrorT read(const std::string& text, QMCommMsgC* message) {
  std::istringstream is(text);
  is >> *message;
  return message->GetLastError();
}

QMCommMsgC sample(bool xml) {
  QMCommMsgC message(xml);
  message.m_Type = 3;
  message.m_Code = 26;
  message.m_ID = 7;
  message.m_Val = 4096;
  message.SetMessageString("a<b");
  return message;
}

TEST(QMCommMsgC, WritesOneXmlElement) {
  QMCommMsgC message = sample(true);
  message.m_Code = -1;
  message.m_ID = 65535;
  message.SetMessageString("\"&<>'~ \x7F\n\xE9\x80");
  EXPECT_EQ(written(message),
            "<QMCommMsgC m_Type=\"3\" m_Code=\"ffffffff\" m_ID=\"ffff\" m_Val=\"1000\" "
            "m_pString=\"&quot;&amp;&lt;&gt;'~ &#127;&#10;&#65513;&#65408;\" m_pQualifier=\"\" />");
  // Whatever the stream was set to before; afterwards it writes decimal numbers.
  std::ostringstream os;
  os << std::hex << std::uppercase << std::showbase << message << 16;
  EXPECT_EQ(os.str(), written(message) + "16");
}

TEST(QMCommMsgC, XmlReadsBack) {
  QMCommMsgC source = sample(true);
  source.SetMessageString("line\r\nquote\" & <\xE9");
  source.SetQualifierString("C:\\Jobs\\page 1.tif");
  QMCommMsgC copy;
  ASSERT_EQ(read(written(source), &copy), 0);
  EXPECT_EQ(copy.m_Code, 26);
  EXPECT_EQ(copy.m_Val, 4096);
  EXPECT_STREQ(copy.GetMessageString(), source.GetMessageString());
  EXPECT_STREQ(copy.GetQualifierString(), source.GetQualifierString());

  // Types are written hexadecimal and read decimal; ">" is written but refused.
  source.m_Type = 26;
  ASSERT_EQ(read(written(source), &copy), 0);
  EXPECT_EQ(copy.m_Type, 1);
  source.SetMessageString("a>b");
  qmtest::LogCapture log;
  EXPECT_EQ(read(written(source), &copy), 33664);
}

TEST(QMCommMsgC, XmlAttributesComeInAnyOrder) {
  QMCommMsgC message = sample(true);
  ASSERT_EQ(
      read("junk \n< \tQMCommMsgC\r\n m_Val = 'x\"0xFf\"\n\n m_ID=\"12345\"m_pString=\"\" />rest",
           &message),
      0);
  EXPECT_EQ(message.m_Val, 255);
  EXPECT_EQ(message.m_ID, 0x2345);
  // Present but empty: a text of one byte. Absent: as before.
  EXPECT_STREQ(message.GetMessageString(), "");
  EXPECT_EQ(message.m_nStringLen, 1);
  EXPECT_EQ(message.m_Code, 26);
  EXPECT_EQ(message.GetQualifierString(), nullptr);

  // One after the other from one stream; no number at all leaves the former.
  std::istringstream is(written(message) + " <QMCommMsgC m_Code=\"zz\" />");
  is >> message >> message;
  EXPECT_TRUE(is.good());
  EXPECT_EQ(message.GetLastError(), 0);
  EXPECT_EQ(message.m_Code, 26);
}

TEST(QMCommMsgC, XmlEntities) {
  const struct {
    const char *raw, *text;  // null: refused
  } kCases[] = {
      {"&quot;&amp;&lt;", "\"&<"},
      {"&#65;&#10;&#65513;", "A\n\xE9"},
      {"a&#;b", "a"},
      {"&gt;", nullptr},
      {"&#65536;", nullptr},
      {"&#6x;", nullptr},
      {"&;", nullptr},
      {"&apos;", nullptr},
      {"&quotx;", nullptr},
      {"&am p;", nullptr},
      {"a&am", "a"},
      {"a&", "a"},
      {"a&#12", "a"},
      {"&#99999999999999;", nullptr},
      {"/ >", "/ >"},
  };
  qmtest::LogCapture log;
  for (const auto& c : kCases) {
    QMCommMsgC message;
    const auto code = read(std::string("<QMCommMsgC m_pString=\"") + c.raw + "\" />", &message);
    EXPECT_EQ(code, c.text == nullptr ? 33664 : 0) << c.raw;
    EXPECT_STREQ(message.GetMessageString(), c.text) << c.raw;
  }
}

TEST(QMCommMsgC, XmlFailuresAreLoggedAndFailTheStream) {
  const std::string object = " ERROR: QMCommMsgC::FromString(): ";
  const std::string ended = object + "unexpected object termination while ";
  const struct {
    const char* text;
    int code;
    std::string line;
  } kCases[] = {
      {"", 33664, ended + "reading object name: \n"},
      {"<QMCommMsgC/>", 33664, ended + "reading object name: QMCommMsgC\n"},
      {"<QMCommMsg", 33664, ended + "reading object name: QMCommMsg\n"},
      {"<QMCommMsg m_ID=\"1\" />", 2101,
       object + "Invalid comms object name, expected: \"QMCommMsgC\", read: \"QMCommMsg\"\n"},
      {"<QMCommMsgC />", 33664, ended + "reading parameter name: \n"},
      {"<QMCommMsgC m_ID/>", 33664, ended + "reading parameter name: m_ID\n"},
      {"<QMCommMsgC m_ID=/>", 33665, ended + "seeking parameter value.\n"},
      {"<QMCommMsgC m_ID=\"1\" ", 33665, ended + "seeking parameter value.\n"},
      {"<QMCommMsgC m_ID=\"1/>", 33664, ended + "reading parameter value: 1\n"},
      {"<QMCommMsgC m_ID=\"1", 33664, ended + "reading parameter value: 1\n"},
      {"<QMCommMsgC m_pString=\"a&gt;b\" />", 33664, ended + "reading parameter value: a&gt;b\n"},
  };
  for (const auto& c : kCases) {
    qmtest::LogCapture log;
    QMCommMsgC message;
    std::istringstream is(c.text);
    is >> message;
    EXPECT_EQ(message.GetLastError(), c.code) << c.text;
    EXPECT_TRUE(is.fail() && is.bad()) << c.text;
    EXPECT_EQ(log.text(), c.line);
    EXPECT_EQ(log.lines().at(0).level, 0u);
  }
  qmtest::LogCapture log;
  QMCommMsgC message;
  EXPECT_EQ(read("<QMCommMsgC m_ID=\"9\" m_Name=\"x&amp;y\" m_Val=\"1\" />", &message), 2006);
  EXPECT_EQ(log.text(), " ERROR: QMCommMsgC::StoreParameter(): Invalid parameter:m_Name = x&y\n");
  // What came before stays.
  EXPECT_EQ(message.m_ID, 9);
  EXPECT_EQ(message.m_Val, 0);
}

TEST(QMCommMsgC, Q2Form) {
  QMCommMsgC message = sample(false);
  message.SetQualifierString("q");
  EXPECT_EQ(written(message), "3;26;7;4096;a<b;q");
  QMCommMsgC copy(false);
  std::istringstream is("-1;2;65536;4;text;quali;fier\377not read");
  is >> copy;
  EXPECT_EQ(copy.GetLastError(), 0);
  EXPECT_TRUE(is.good());
  EXPECT_EQ(copy.m_Type, -1);
  EXPECT_EQ(copy.m_ID, 0);
  EXPECT_STREQ(copy.GetMessageString(), "text");
  EXPECT_STREQ(copy.GetQualifierString(), "quali;fier");
  EXPECT_EQ(copy.m_nQualifierLen, 11);
  // Empty parts leave no text, failures neither.
  ASSERT_EQ(read("1;2;3;4;;", &copy), 0);
  EXPECT_EQ(copy.GetMessageString(), nullptr);
  EXPECT_EQ(copy.m_nStringLen, 0);
  copy.SetMessageString("former");
  EXPECT_EQ(read(std::string(1024, '1'), &copy), 124);
  EXPECT_EQ(copy.GetMessageString(), nullptr);

  message.SetMessageString(std::string(250, 'x').c_str());
  EXPECT_EQ(written(message), "");
  EXPECT_EQ(message.GetLastError(), 2113);
}

TEST(QMCommMsgC, ToStringEndsWithANulUnlessAskedNotTo) {
  struct Message : QMCommMsgC {
    using QMCommMsgC::ToString;
  } message;
  EXPECT_EQ(message.SetFormat(5), 1);
  EXPECT_EQ(message.SetFormat(0), 5);
  std::ostringstream os;
  EXPECT_EQ(message.ToString(os, 0), 0);
  EXPECT_EQ(message.ToString(os, 1), 0);
  const std::string form = "0;0;0;0;;";
  EXPECT_EQ(os.str(), form + '\0' + form);
}

TEST(QMCommMsgC, CopiesOutliveTheirSource) {
  auto source = std::make_unique<QMCommMsgC>(sample(true));
  QMCommMsgC shared(*source);
  QMCommMsgC assigned;
  assigned = *source;
  EXPECT_EQ(shared.GetMessageString(), source->GetMessageString());
  EXPECT_NE(assigned.GetMessageString(), source->GetMessageString());
  EXPECT_EQ(assigned.m_nStringLen, 4);
  source->SetMessageString("changed");
  source.reset();
  EXPECT_EQ(written(shared), written(sample(true)));
  EXPECT_EQ(written(assigned), written(sample(true)));

  assigned = *&assigned;
  assigned.SetMessageString(assigned.GetMessageString());
  EXPECT_STREQ(assigned.GetMessageString(), "a<b");
  assigned.m_LastError = QMErrors::BufferTooSmall;
  assigned.Clear();
  EXPECT_EQ(assigned.GetMessageString(), nullptr);
  EXPECT_EQ(assigned.m_nStringLen, 0);
  EXPECT_EQ(assigned.GetLastError(), 0);
  EXPECT_EQ(assigned.m_Val, 4096);
}

/// Lets each allocation of an operation on a message fail in turn. It gives the code it ended with.
void expectCodeWhenMemoryRunsOut(const QMCommMsgC& wanted, const auto& operation) {
  bool failed = true;
  for (int n = 1; failed; ++n) {
    QMCommMsgC message(wanted.m_bXMLFormat != 0);
    std::istringstream is(written(wanted));
    qmtest::LogCapture log;
    QMErrors::QMErrorT code;
    {
      qmtest::FailingAllocation nth(n);
      code = operation(message, is);
      failed = nth.hasFailed();
    }
    EXPECT_TRUE(failed || n > 1);
    const bool succeeded = written(message) == written(wanted);
    EXPECT_TRUE(succeeded || (failed && code == 2001)) << "allocation " << n;
  }
}

TEST(QMCommMsgC, RunningOutOfMemoryIsACode) {
  for (const bool xml : {true, false}) {
    QMCommMsgC wanted(xml);
    wanted.SetMessageString("a text that is too long for a string to hold it in itself & more");
    wanted.SetQualifierString("another text that is too long for a string to hold it in itself");
    expectCodeWhenMemoryRunsOut(wanted, [](QMCommMsgC& message, std::istream& is) {
      is >> message;
      return message.GetLastError();
    });
    expectCodeWhenMemoryRunsOut(wanted, [&](QMCommMsgC& message, std::istream&) {
      const auto string = message.SetMessageString(wanted.GetMessageString());
      const auto qualifier = message.SetQualifierString(wanted.GetQualifierString());
      return string != 0 ? string : qualifier;
    });
  }
  const QMCommMsgC source = sample(true);
  QMCommMsgC copy;
  qmtest::LogCapture log;
  {
    qmtest::FailingAllocation first(1);
    copy = source;
  }
  EXPECT_EQ(log.text(), " ERROR: QMCommMsgC::Clone(): failed - Memory allocation failed: 2001\n");
  EXPECT_EQ(copy.GetMessageString(), nullptr);
  EXPECT_EQ(copy.m_Val, 4096);
}

}  // namespace
