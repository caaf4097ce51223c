// A counted string of bytes, NUL-terminated, with positions as int and -1 for "not found".
//
// Null pointers count as empty texts. Copies are independent. An object belongs to one thread at a
// time. When memory runs out the string keeps the text it had (a new one is empty) and an error
// line is logged; nothing throws.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

#include "qmutils/platform/export.h"

class QMUTILS_API QMCString {
 public:
  QMCString() noexcept = default;
  QMCString(const char* text) noexcept;
  explicit QMCString(std::string_view text) noexcept;
  QMCString(const QMCString& other) noexcept;
  QMCString(QMCString&& other) noexcept = default;
  virtual ~QMCString();

  QMCString& operator=(const QMCString& other) noexcept;
  QMCString& operator=(QMCString&& other) noexcept = default;
  QMCString& operator=(const char* text) noexcept;
  QMCString& operator=(std::string_view text) noexcept;
  /// A string of this one character.
  QMCString& operator=(char c) noexcept;
  /// For who must know: false when there was no memory for it. May be a part of this string.
  bool Assign(std::string_view text) noexcept;
  QMCString& operator+=(const char* text) noexcept;
  QMCString& operator+=(char c) noexcept;

  /// Never null; valid until the string changes.
  operator const char*() const noexcept { return m_Text.c_str(); }
  std::string_view view() const noexcept { return m_Text; }

  int GetLength() const noexcept { return static_cast<int>(m_Text.size()); }
  bool IsEmpty() const noexcept { return m_Text.empty(); }
  void Empty() noexcept { m_Text.clear(); }

  /// The character at a position; NUL outside the text.
  char GetAt(int position) const noexcept;
  char operator[](int position) const noexcept { return GetAt(position); }

  /// The first position at or after `start`, or -1. An empty text is found at 0.
  int Find(char c) const noexcept { return Find(c, 0); }
  int Find(char c, int start) const noexcept;
  int Find(const char* text) const noexcept { return Find(text, 0); }
  int Find(const char* text, int start) const noexcept;

  // Substrings. Counts past the end stop there; 0 or less gives an empty string; a position below
  // 0 counts as 0.
  QMCString Left(int count) const noexcept;
  QMCString Right(int count) const noexcept;
  QMCString Mid(int first) const noexcept;
  QMCString Mid(int first, int count) const noexcept;

  /// -1, 0 or 1, byte by byte; of two texts that begin alike the shorter is smaller.
  int Compare(const char* text) const noexcept;
  /// Less than, equal to or greater than 0, letters A-Z counting as a-z.
  int CompareNoCase(const char* text) const noexcept;

  /// Replace the content with a printf-style text of any length; the arguments may point into this
  /// string.
  void Format(const char* format, ...) noexcept QMUTILS_PRINTF(2, 3);
  void FormatV(const char* format, std::va_list arguments) noexcept;

 private:
  void assign(std::string_view text) noexcept;
  void append(std::string_view text) noexcept;
  QMCString part(int first, int count) const noexcept;

  std::string m_Text;
};

QMUTILS_API QMCString operator+(const QMCString& left, char right) noexcept;
QMUTILS_API QMCString operator+(char left, const QMCString& right) noexcept;
QMUTILS_API QMCString operator+(const char* left, const QMCString& right) noexcept;
QMUTILS_API QMCString operator+(const QMCString& left, const char* right) noexcept;
QMUTILS_API QMCString operator+(const QMCString& left, const QMCString& right) noexcept;

// Compare the texts; without these the pointers would be compared.
inline bool operator==(const QMCString& left, const QMCString& right) noexcept {
  return left.view() == right.view();
}
inline bool operator==(const QMCString& left, const char* right) noexcept {
  return left.Compare(right) == 0;
}
