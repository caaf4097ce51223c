#include "qmutils/app/QMPlaySoundC.h"

#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "qmutils/data/QMXmlC.h"
#include "qmutils/foundation/LogLine.h"

using QMErrors::QMErrorT;

namespace {

constexpr const char* kElement = "QMPlaySoundC";
constexpr const char* kSound = "m_pSound";
constexpr const char* kToXml = "QMPlaySoundC::ToXML(): ";
constexpr const char* kFromXml = "QMPlaySoundC::FromXML(): ";
constexpr const char* kSetSoundName = "QMPlaySoundC::SetSoundName(): ";

/// A copy of the text, null for null; false when there is no memory for it, which is logged.
bool copyText(const char* text, std::unique_ptr<char[]>& copy) {
  if (text == nullptr) {
    copy.reset();
    return true;
  }
  const std::size_t size = std::strlen(text) + 1;
  std::unique_ptr<char[]> fresh(new (std::nothrow) char[size]);
  if (fresh == nullptr) {
    qm::logNoMemory(kSetSoundName);
    return false;
  }
  std::memcpy(fresh.get(), text, size);
  copy = std::move(fresh);
  return true;
}

/// The numbers of a description, by the names and in the order in which they are written. Ends at the
/// first result that is not success.
template <class Sound, class Use>
QMErrorT forEachNumber(Sound& sound, Use use) {
  QMErrorT result = use("m_nRepeats", sound.m_nRepeats);
  if (result == QMErrors::NoError) result = use("m_AltBeepFreq", sound.m_AltBeepFreq);
  if (result == QMErrors::NoError) result = use("m_AltBeepMark", sound.m_AltBeepMark);
  if (result == QMErrors::NoError) result = use("m_AltBeepSpace", sound.m_AltBeepSpace);
  if (result == QMErrors::NoError) result = use("m_bEnabled", sound.m_bEnabled);
  if (result == QMErrors::NoError) result = use("m_bStopOnKbHit", sound.m_bStopOnKbHit);
  return result;
}

/// Reads a property if it is there; its number stays when it cannot be read.
template <class Number>
QMErrorT readNumber(const QMXmlC& element, const char* property, Number& number) {
  const char* const text = element.GetProperty(property);
  if (text == nullptr) return QMErrors::NoError;
  QMistrstream in(text);
  Number read{};
  if (in.bad()) return qm::logNoMemory(kFromXml);
  if (in >> read) {
    number = read;
    return QMErrors::NoError;
  }
  qm::logError(kFromXml, property, " is no number: ", text);
  return QMErrors::InvalidObjectData;
}

}  // namespace

QMPlaySoundC::QMPlaySoundC(const char* sound, unsigned int repeats, unsigned int freq,
                           unsigned int mark, unsigned int space, int bStopOnKbHit)
    : m_nRepeats(repeats),
      m_AltBeepFreq(freq),
      m_AltBeepMark(mark),
      m_AltBeepSpace(space),
      m_bStopOnKbHit(bStopOnKbHit) {
  (void)SetSoundName(sound);  // reported there
}

QMPlaySoundC::QMPlaySoundC(const QMPlaySoundC& other)
    : QMPlaySoundC(other.GetSoundName(), other.m_nRepeats, other.m_AltBeepFreq, other.m_AltBeepMark,
                   other.m_AltBeepSpace, other.m_bStopOnKbHit) {
  m_bEnabled = other.m_bEnabled;
}

QMPlaySoundC& QMPlaySoundC::operator=(const QMPlaySoundC& other) {
  if (!copyText(other.GetSoundName(), m_pSound)) return *this;
  m_nRepeats = other.m_nRepeats;
  m_AltBeepFreq = other.m_AltBeepFreq;
  m_AltBeepMark = other.m_AltBeepMark;
  m_AltBeepSpace = other.m_AltBeepSpace;
  m_bEnabled = other.m_bEnabled;
  m_bStopOnKbHit = other.m_bStopOnKbHit;
  return *this;
}

QMErrorT QMPlaySoundC::SetSoundName(const char* name) {
  return copyText(name, m_pSound) ? QMErrors::NoError : QMErrors::MemoryAllocationFailed;
}

QMErrorT QMPlaySoundC::SetSoundName(QMstrstream& name) try {
  if (name.bad()) return qm::logNoMemory(kSetSoundName);
  const std::string text(name.text());
  return SetSoundName(text.empty() ? nullptr : text.c_str());
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(kSetSoundName);
}

QMErrorT QMPlaySoundC::ToXML(QMXmlC& parent) const {
  QMXmlC* element = nullptr;
  QMErrorT result = parent.AddChild(kElement, &element);
  if (result == QMErrors::NoError) {
    result = element->AddProperty(kSound, GetSoundName());
    const auto add = [element](const char* property, auto number) {
      char text[std::numeric_limits<decltype(number)>::digits10 + 3] = {};  // sign, NUL
      (void)std::to_chars(text, std::end(text) - 1, number);
      return element->AddProperty(property, text);
    };
    if (result == QMErrors::NoError) result = forEachNumber(*this, add);
    // Half an element would be read as a description with other numbers.
    if (result != QMErrors::NoError) (void)parent.RemoveChild(element, 1);
  }
  if (result != QMErrors::NoError) qm::logError(kToXml, "failed while allocating pXML");
  return result;
}

QMErrorT QMPlaySoundC::FromXML(const QMXmlC& element) {
  QMostrstream objectName;
  element.GetObjectName(objectName);
  if (objectName.text() != kElement) {
    qm::logError(kFromXml,
                 "Object is not a QMPlaySoundC: GetObjectName() returned: ", objectName.text());
    return QMErrors::InvalidObjectName;
  }
  QMErrorT first = QMErrors::NoError;
  const auto note = [&first](QMErrorT result) {
    if (first == QMErrors::NoError) first = result;
    return QMErrors::NoError;  // the others are read all the same
  };
  if (const char* const name = element.GetProperty(kSound)) {
    (void)note(SetSoundName(*name != '\0' ? name : nullptr));
  }
  (void)forEachNumber(*this, [&](const char* property, auto& number) {
    return note(readNumber(element, property, number));
  });
  return first;
}
