// One inter-process message as an object that writes and reads itself as text, in one of two forms:
// an XML-like element, or the compact form of QMMessageText.h ("Q2").
//
//   QMCommMsgC message(false);
//   message.m_Type = 3;
//   message.SetMessageString("go");
//   stream << message;                       // 3;0;0;0;go;
//
// A copy made by the copy constructor shares its texts with the source, at the cost of a counter;
// assignment copies them. Changing one never shows in the other. A message belongs to one thread
// at a time; copies may go to others. Nothing throws: failures are returned, kept for
// GetLastError(), and logged where the texts say so.
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <string_view>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMStringStream.h"
#include "qmutils/foundation/SharedText.h"
#include "qmutils/platform/export.h"

class QMUTILS_API QMCommMsgC {
 public:
  /// All numbers 0, no texts; with `bXML` the text form is the XML element.
  explicit QMCommMsgC(bool bXML = true) noexcept;
  QMCommMsgC(const QMCommMsgC& other) noexcept;
  virtual ~QMCommMsgC();
  /// Through Clone().
  QMCommMsgC& operator=(const QMCommMsgC& other);

  /// Drops both texts and clears the last error; the numbers stay.
  void Clear() noexcept;
  /// Non-zero: XML. Returns the flag before.
  int SetFormat(int bXML) const noexcept;
  /// The result of the last conversion to or from text.
  QMErrors::QMErrorT GetLastError() const noexcept { return m_LastError; }

  /// Null when there is no text. Valid until the text is replaced.
  const char* GetMessageString() const noexcept { return m_pString.c_str(); }
  const char* GetQualifierString() const noexcept { return m_pQualifier.c_str(); }
  /// Store a copy; a null or empty text leaves none. 2001 "Memory allocation failed" leaves none
  /// either.
  QMErrors::QMErrorT SetMessageString(const char* text) noexcept;
  QMErrors::QMErrorT SetQualifierString(const char* text) noexcept;

  std::int32_t m_Type = 0;
  std::int32_t m_Code = 0;
  std::uint16_t m_ID = 0;
  std::int32_t m_Val = 0;
  /// Bytes of the texts with their NULs, at most 65535; 0 when there is no text.
  std::uint16_t m_nStringLen = 0;
  std::uint16_t m_nQualifierLen = 0;
  qm::SharedText m_pString;
  qm::SharedText m_pQualifier;
  mutable int m_bXMLFormat;
  mutable QMErrors::QMErrorT m_LastError = QMErrors::NoError;

 protected:
  /// Writes the text and, unless `bNoTerminator`, a NUL. 0; or in the Q2 form 124 or 2113 for a
  /// message of more than 255 characters, of which nothing is written.
  QMErrors::QMErrorT ToString(std::ostream& os, int bNoTerminator) const;
  /// Reads the form that is set.
  QMErrors::QMErrorT FromString(std::istream& is);
  /// Reads to the end of the stream, or up to a byte 0xFF, with the codes of QMExtractMessage().
  /// On failure both texts are empty and numbers read so far stay.
  QMErrors::QMErrorT FromQ2String(std::istream& is);
  /// Reads one element; attributes may come in any order, absent ones keep their values. Fails with
  /// 2101 "Invalid object name", 33664 "Failed to read XML object", 33665 "Failed to seek in XML
  /// object" (all logged, the stream then failed and bad), 2006 for an unknown attribute.
  QMErrors::QMErrorT FromXMLString(std::istream& is);

 private:
  friend QMUTILS_API std::ostream& operator<<(std::ostream& os, const QMCommMsgC& message);
  friend QMUTILS_API std::istream& operator>>(std::istream& is, QMCommMsgC& message);

  QMErrors::QMErrorT ToQ2String(std::ostream& os) const;
  QMErrors::QMErrorT ToXMLString(std::ostream& os) const;
  void ToXMLAttribute(std::ostream& os, const char* text) const;
  bool FromXMLAttribute(QMstrstream& in, QMstrstream& out) const;
  QMErrors::QMErrorT FromXMLAttributes(std::istream& is);
  QMErrors::QMErrorT failReading(std::istream& is, QMErrors::QMErrorT code, const char* message,
                                 std::string_view readSoFar) const;
  QMErrors::QMErrorT StoreParameter(const char* name, const char* value);
  QMErrors::QMErrorT Clone(const QMCommMsgC& other);
  QMErrors::QMErrorT DuplicateString(const char* source, qm::SharedText* target,
                                     std::uint16_t* length) noexcept;
  QMErrors::QMErrorT StoreText(const char* source, qm::SharedText* target,
                               std::uint16_t* length) noexcept;

  static void eatXMLwhite(std::istream& is);
  static int isXMLwhite(char c) noexcept;
  static int isXMLObjEnd(std::istream& is);
};

/// The text without a NUL behind it.
QMUTILS_API std::ostream& operator<<(std::ostream& os, const QMCommMsgC& message);
QMUTILS_API std::istream& operator>>(std::istream& is, QMCommMsgC& message);
