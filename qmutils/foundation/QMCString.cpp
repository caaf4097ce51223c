#include "qmutils/foundation/QMCString.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <stdexcept>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMErrors.h"

namespace {

std::string_view textOrEmpty(const char* text) noexcept { return text != nullptr ? text : ""; }

/// Runs an operation that allocates. Strings have no result to return a code in, so a failure shows
/// in the log, and the operation's target keeps its text. False then.
template <class Operation>
bool guarded(Operation operation) noexcept {
  try {
    operation();
    return true;
  } catch (const std::bad_alloc&) {
    qm::logError("QMCString: ", QMErrToStr(QMErrors::MemoryAllocationFailed));
  } catch (const std::length_error&) {
    qm::logError("QMCString: ", QMErrToStr(QMErrors::MemoryAllocationFailed));
  }
  return false;
}

/// A to Z as a to z, independent of the locale.
int lowered(char c) noexcept {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte;
}

}  // namespace

QMCString::QMCString(const char* text) noexcept { assign(textOrEmpty(text)); }
QMCString::QMCString(std::string_view text) noexcept { assign(text); }
QMCString::QMCString(const QMCString& other) noexcept { assign(other.m_Text); }
QMCString::~QMCString() = default;

void QMCString::assign(std::string_view text) noexcept { Assign(text); }

void QMCString::append(std::string_view text) noexcept {
  guarded([&] { m_Text.append(text); });
}

bool QMCString::Assign(std::string_view text) noexcept {
  return guarded([&] { m_Text.assign(text); });
}

QMCString& QMCString::operator=(const QMCString& other) noexcept {
  assign(other.m_Text);
  return *this;
}

QMCString& QMCString::operator=(const char* text) noexcept {
  assign(textOrEmpty(text));
  return *this;
}

QMCString& QMCString::operator=(std::string_view text) noexcept {
  assign(text);
  return *this;
}

QMCString& QMCString::operator=(char c) noexcept {
  assign({&c, 1});
  return *this;
}

QMCString& QMCString::operator+=(const char* text) noexcept {
  append(textOrEmpty(text));
  return *this;
}

QMCString& QMCString::operator+=(char c) noexcept {
  append({&c, 1});
  return *this;
}

char QMCString::GetAt(int position) const noexcept {
  return position >= 0 && position < GetLength() ? m_Text[static_cast<std::size_t>(position)]
                                                 : '\0';
}

int QMCString::Find(char c, int start) const noexcept {
  const std::size_t found = m_Text.find(c, static_cast<std::size_t>(std::max(start, 0)));
  return found == std::string::npos ? -1 : static_cast<int>(found);
}

int QMCString::Find(const char* text, int start) const noexcept {
  const std::string_view wanted = textOrEmpty(text);
  if (wanted.empty()) return 0;
  const std::size_t found = m_Text.find(wanted, static_cast<std::size_t>(std::max(start, 0)));
  return found == std::string::npos ? -1 : static_cast<int>(found);
}

QMCString QMCString::part(int first, int count) const noexcept {
  QMCString result;
  const int from = std::clamp(first, 0, GetLength());
  const int length = std::clamp(count, 0, GetLength() - from);
  result.assign(view().substr(static_cast<std::size_t>(from), static_cast<std::size_t>(length)));
  return result;
}

QMCString QMCString::Left(int count) const noexcept { return part(0, count); }
QMCString QMCString::Right(int count) const noexcept {
  return part(GetLength() - std::clamp(count, 0, GetLength()), count);
}
QMCString QMCString::Mid(int first) const noexcept { return part(first, GetLength()); }
QMCString QMCString::Mid(int first, int count) const noexcept { return part(first, count); }

int QMCString::Compare(const char* text) const noexcept {
  const int order = view().compare(textOrEmpty(text));
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

int QMCString::CompareNoCase(const char* text) const noexcept {
  const char* left = m_Text.c_str();
  const char* right = textOrEmpty(text).data();
  while (*left != '\0' && lowered(*left) == lowered(*right)) {
    ++left;
    ++right;
  }
  return lowered(*left) - lowered(*right);
}

void QMCString::Format(const char* format, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, format);
  FormatV(format, arguments);
  va_end(arguments);
}

void QMCString::FormatV(const char* format, std::va_list arguments) noexcept {
  if (format == nullptr) return Empty();
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  if (length < 0) {
    qm::logError("QMCString::FormatV(): ", "cannot format: ", format);
  } else {
    guarded([&] {
      std::string text(static_cast<std::size_t>(length), '\0');
      std::vsnprintf(text.data(), text.size() + 1, format, again);
      m_Text = std::move(text);
    });
  }
  va_end(again);
}

QMCString operator+(const QMCString& left, char right) noexcept {
  QMCString result(left);
  return result += right;
}

QMCString operator+(char left, const QMCString& right) noexcept {
  QMCString result;
  result += left;
  return result += right;
}

QMCString operator+(const char* left, const QMCString& right) noexcept {
  QMCString result(left);
  return result += right;
}

QMCString operator+(const QMCString& left, const char* right) noexcept {
  QMCString result(left);
  return result += right;
}

QMCString operator+(const QMCString& left, const QMCString& right) noexcept {
  return left + static_cast<const char*>(right);
}
