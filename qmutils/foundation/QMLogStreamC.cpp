#include "qmutils/foundation/QMLogStreamC.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <locale>
#include <new>
#include <utility>

#include "qmutils/foundation/PointerText.h"
#include "qmutils/platform/c_locale.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/unicode_text.h"

namespace {

// Lines may be delivered while the program ends, so these have trivial destructors.
std::atomic<QMLogOutputFn> outputHook{nullptr};
std::atomic<QMLogSetNameFn> setNameHook{nullptr};
std::atomic<QMLogSetLevelFn> setLevelHook{nullptr};
std::atomic<QMLogGetLevelFn> getLevelHook{nullptr};

constexpr std::size_t kFormatBufferSize = 32768;

template <class Hook>
void install(std::atomic<Hook>& slot, Hook hook) noexcept {
  if (hook != nullptr) slot.store(hook, std::memory_order_release);
}

template <class Hook>
void hand(const std::atomic<Hook>& slot, Hook* destination) noexcept {
  if (destination != nullptr) *destination = slot.load(std::memory_order_acquire);
}

void writeToStandardError(unsigned int, int, char* text) { std::fputs(text, stderr); }

// The base class is told of a buffer of one byte that it never writes to: the real one is set
// right after, and growing it is done here, where running out of memory does not throw.
char noBuffer[1];

}  // namespace

QMLogStrstreambufC::QMLogStrstreambufC() noexcept : std::strstreambuf(noBuffer, 1, noBuffer) {
  useBuffer(local_, kLocalSize, 0);
}

QMLogStrstreambufC::QMLogStrstreambufC(const QMLogStrstreambufC& other) noexcept
    : QMLogStrstreambufC() {
  *this = other;
}

QMLogStrstreambufC& QMLogStrstreambufC::operator=(const QMLogStrstreambufC& other) noexcept {
  m_MessageLevel = other.m_MessageLevel;
  m_Mode = other.m_Mode;
  return *this;
}

QMLogStrstreambufC::~QMLogStrstreambufC() { QMLogStrstreambufC::sync(); }

/// One byte stays free for the terminator.
void QMLogStrstreambufC::useBuffer(char* buffer, std::size_t size, std::size_t used) noexcept {
  setg(buffer, buffer, buffer);
  setp(buffer, buffer + size - 1);
  pbump(static_cast<int>(used));
}

bool QMLogStrstreambufC::grow(std::size_t needed) noexcept {
  const auto used = static_cast<std::size_t>(pptr() - pbase());
  const auto size = static_cast<std::size_t>(epptr() - pbase()) + 1;
  if (needed > INT_MAX / 4 || used > INT_MAX / 4) return false;
  const std::size_t wanted = std::max(2 * size, used + needed + 1);
  std::unique_ptr<char[]> larger(new (std::nothrow) char[wanted]);
  if (larger == nullptr) return false;
  std::memcpy(larger.get(), pbase(), used);
  heap_ = std::move(larger);
  useBuffer(heap_.get(), wanted, used);
  return true;
}

QMLogStrstreambufC::int_type QMLogStrstreambufC::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  if (pptr() == epptr() && !grow(1)) return traits_type::eof();
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

void QMLogStrstreambufC::append(std::string_view text) noexcept {
  const auto room = static_cast<std::size_t>(epptr() - pptr());
  if (text.size() > room && !grow(text.size())) text = text.substr(0, room);
  std::memcpy(pptr(), text.data(), text.size());
  pbump(static_cast<int>(text.size()));
}

bool QMLogStrstreambufC::endsInsideLine() const noexcept {
  return pptr() != pbase() && pptr()[-1] != '\n';
}

int QMLogStrstreambufC::sync() {
  *pptr() = '\0';
  if (*pbase() != '\0') {
    const QMLogOutputFn hook = outputHook.load(std::memory_order_acquire);
    (hook != nullptr ? hook : writeToStandardError)(m_MessageLevel, static_cast<int>(m_Mode),
                                                    pbase());
  }
  freeze(false);
  setp(pbase(), epptr());
  m_Mode = 1;
  return std::strstreambuf::sync();
}

unsigned int QMLogStrstreambufC::SetMessageLevel(unsigned int level) noexcept {
  return std::exchange(m_MessageLevel, level);
}

unsigned int QMLogStrstreambufC::SetMode(unsigned int mode) noexcept {
  return std::exchange(m_Mode, mode);
}

unsigned int QMLogStrstreambufC::GetDebugLevel() const noexcept {
  const QMLogGetLevelFn hook = getLevelHook.load(std::memory_order_acquire);
  return hook != nullptr ? hook() : m_MessageLevel + 1;
}

unsigned int QMLogStrstreambufC::SetDebugLevel(unsigned int level) noexcept {
  const unsigned int before = GetDebugLevel();
  if (const QMLogSetLevelFn hook = setLevelHook.load(std::memory_order_acquire)) hook(level);
  return before;
}

void QMLogStrstreambufC::SetLogFileName(char* name) noexcept {
  if (const QMLogSetNameFn hook = setNameHook.load(std::memory_order_acquire)) hook(name);
}

bool QMLogStrstreambufC::IsValidDebugLevel() const noexcept {
  // Asked without GetDebugLevel(), whose "level + 1" would hide a line of the highest level.
  const QMLogGetLevelFn hook = getLevelHook.load(std::memory_order_acquire);
  return hook == nullptr || m_MessageLevel < hook();
}

void QMLogStrstreambufC::SetDBFn(QMLogOutputFn hook) noexcept { install(outputHook, hook); }
void QMLogStrstreambufC::GetDBFn(QMLogOutputFn* hook) noexcept { hand(outputHook, hook); }
void QMLogStrstreambufC::SetDBSetLogNameFn(QMLogSetNameFn hook) noexcept {
  install(setNameHook, hook);
}
void QMLogStrstreambufC::GetDBSetLogNameFn(QMLogSetNameFn* hook) noexcept {
  hand(setNameHook, hook);
}
void QMLogStrstreambufC::SetDBSetLevelFn(QMLogSetLevelFn hook) noexcept {
  install(setLevelHook, hook);
}
void QMLogStrstreambufC::GetDBSetLevelFn(QMLogSetLevelFn* hook) noexcept {
  hand(setLevelHook, hook);
}
void QMLogStrstreambufC::SetDBGetLevelFn(QMLogGetLevelFn hook) noexcept {
  install(getLevelHook, hook);
}
void QMLogStrstreambufC::GetDBGetLevelFn(QMLogGetLevelFn* hook) noexcept {
  hand(getLevelHook, hook);
}

QMLogStreamC::QMLogStreamC(QMLogOutputFn output, QMLogSetNameFn setLogName,
                           QMLogSetLevelFn setLevel, QMLogGetLevelFn getLevel) noexcept {
  SetDBFn(output);
  SetDBSetLogNameFn(setLogName);
  SetDBSetLevelFn(setLevel);
  SetDBGetLevelFn(getLevel);
}

QMLogStreamC::QMLogStreamC(const QMLogStreamC& other) noexcept : QMLogStrstreambufC(other) {}

QMLogStreamC& QMLogStreamC::operator=(const QMLogStreamC& other) noexcept {
  QMLogStrstreambufC::operator=(other);
  return *this;
}

QMLogStreamC::~QMLogStreamC() {
  if (endsInsideLine()) append("\n");
  sync();
}

std::ostream* QMLogStreamC::GetOstream() noexcept {
  if (m_pOstream == nullptr) {
    try {
      m_pOstream = std::make_unique<std::ostream>(this);
      m_pOstream->imbue(std::locale::classic());
    } catch (...) {
      m_pOstream.reset();
    }
  }
  return m_pOstream.get();
}

std::ostream* QMLogStreamC::shownOstream() noexcept {
  return IsValidDebugLevel() ? GetOstream() : nullptr;
}

// An ostream costs more to make than the rest of a line, so pieces that need no formatting go
// straight into the buffer, as long as no ostream has been told otherwise.
bool QMLogStreamC::writesPlainText() const noexcept {
  return m_pOstream == nullptr ||
         (m_pOstream->width() == 0 && (m_pOstream->flags() & std::ios_base::unitbuf) == 0);
}

bool QMLogStreamC::writesPlainNumbers() const noexcept {
  constexpr auto kShaping = std::ios_base::basefield | std::ios_base::showpos;
  return m_pOstream == nullptr ||
         (writesPlainText() && (m_pOstream->flags() & kShaping) == std::ios_base::dec);
}

template <class Integer>
QMLogStreamC& QMLogStreamC::writeInteger(Integer value) {
  if (!IsValidDebugLevel()) return *this;
  if (writesPlainNumbers()) {
    char digits[24];
    append({digits, std::to_chars(digits, std::end(digits), value).ptr});
  } else {
    *m_pOstream << value;
  }
  return *this;
}

QMLogStreamC& QMLogStreamC::operator<<(short value) { return writeInteger(value); }
QMLogStreamC& QMLogStreamC::operator<<(unsigned short value) { return writeInteger(value); }
QMLogStreamC& QMLogStreamC::operator<<(int value) { return writeInteger(value); }
QMLogStreamC& QMLogStreamC::operator<<(unsigned int value) { return writeInteger(value); }
QMLogStreamC& QMLogStreamC::operator<<(long value) { return writeInteger(value); }
QMLogStreamC& QMLogStreamC::operator<<(unsigned long value) { return writeInteger(value); }
QMLogStreamC& QMLogStreamC::operator<<(long long value) { return writeInteger(value); }
QMLogStreamC& QMLogStreamC::operator<<(unsigned long long value) { return writeInteger(value); }

QMLogStreamC& QMLogStreamC::operator<<(double value) {
  if (std::ostream* os = shownOstream()) *os << value;
  return *this;
}

QMLogStreamC& QMLogStreamC::operator<<(char value) { return *this << std::string_view(&value, 1); }

QMLogStreamC& QMLogStreamC::operator<<(const void* value) {
  if (!IsValidDebugLevel()) return *this;
  return *this << qm::PointerText(value).view();
}

QMLogStreamC& QMLogStreamC::operator<<(const char* text) {
  if (text == nullptr || !IsValidDebugLevel()) return *this;
  return *this << std::string_view(text);
}

QMLogStreamC& QMLogStreamC::operator<<(std::string_view text) {
  if (!IsValidDebugLevel()) return *this;
  if (writesPlainText()) {
    append(text);
  } else {
    *m_pOstream << text;
  }
  return *this;
}

QMLogStreamC& QMLogStreamC::operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
  if (std::ostream* os = shownOstream()) manipulator(*os);
  return *this;
}

QMLogStreamC& QMLogStreamC::operator<<(std::ios& (*manipulator)(std::ios&)) {
  if (std::ostream* os = shownOstream()) manipulator(*os);
  return *this;
}

QMLogStreamC& QMLogStreamC::deliver() {
  append("\n");
  sync();
  return *this;
}

QMLogStreamC& QMLogStreamC::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
  if (!IsValidDebugLevel()) return *this;
  using Manipulator = std::ostream& (*)(std::ostream&);
  if (m_pOstream == nullptr && manipulator == static_cast<Manipulator>(std::endl)) return deliver();
  if (std::ostream* os = GetOstream()) manipulator(*os);
  return *this;
}

QMLogStreamC& QMLogStreamC::operator<<(QMMessageLevel level) noexcept {
  SetMessageLevel(level.level);
  return *this;
}

void QMLogStreamC::Format(unsigned int level, unsigned int mode, const char* format, ...) {
  SetMessageLevel(level);
  if (!IsValidDebugLevel() || format == nullptr) return;
  SetMode(mode);
  char text[kFormatBufferSize];
  std::va_list arguments;
  va_start(arguments, format);
  const int length = qm::platform::formatInCLocale(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length < 0) text[0] = '\0';
  append(text);
  deliver();
}

template <class Stream>
QMLogStreamC& QMLogStreamC::peek(Stream& stream) {
  using Traits = typename Stream::traits_type;
  if (!IsValidDebugLevel() || stream.fail()) return *this;
  // Works on the buffer below the stream, so that the stream's state stays as it is.
  auto* buffer = stream.rdbuf();
  const auto start = buffer->pubseekoff(0, std::ios_base::cur, std::ios_base::in);
  qm::platform::Utf8Encoder encoder;
  for (auto c = buffer->sgetc(); !Traits::eq_int_type(c, Traits::eof()); c = buffer->snextc()) {
    const auto character = Traits::to_char_type(c);
    if (character == 0 || character == static_cast<typename Traits::char_type>(0xFF)) break;
    if constexpr (sizeof character == 1) {
      append({&character, 1});
    } else {
      append(encoder.add(character));
    }
  }
  append(encoder.finish());
  buffer->pubseekpos(start, std::ios_base::in);
  return *this;
}

QMLogStreamC& QMLogStreamC::PeekString(QMistrstream& stream) { return peek(stream); }
QMLogStreamC& QMLogStreamC::PeekString(QMstrstream& stream) { return peek(stream); }
QMLogStreamC& QMLogStreamC::PeekString(QMistrstream_w& stream) { return peek(stream); }
QMLogStreamC& QMLogStreamC::PeekString(QMstrstream_w& stream) { return peek(stream); }

QMLogStreamC& QMLogStreamC::_LogAssert() { return *this << " ASSERT: "; }
QMLogStreamC& QMLogStreamC::_LogError() { return *this << " ERROR: "; }
QMLogStreamC& QMLogStreamC::_LogWarning() { return *this << " WARNING: "; }
QMLogStreamC& QMLogStreamC::_LogInfo() { return *this << " INFO: "; }

QMLogStreamC& QMLogStreamC::_LogThread() {
  char digits[16];
  const char* end =
      std::to_chars(digits, std::end(digits), qm::platform::currentThreadId(), 16).ptr;
  return *this << " thread: 0x" << std::string_view(digits, end);
}

void QMLogStreamC::GetHooks(QMLogOutputFn* output, QMLogSetNameFn* setLogName,
                            QMLogSetLevelFn* setLevel, QMLogGetLevelFn* getLevel) noexcept {
  GetDBFn(output);
  GetDBSetLogNameFn(setLogName);
  GetDBSetLevelFn(setLevel);
  GetDBGetLevelFn(getLevel);
}

unsigned int QMLogStreamC::GetDebugLevel() noexcept {
  const QMLogGetLevelFn hook = getLevelHook.load(std::memory_order_acquire);
  return hook != nullptr ? hook() : 1;
}

std::ios_base::fmtflags QMLogStreamC::setf(std::ios_base::fmtflags flags) noexcept {
  return setf(flags, flags);
}

std::ios_base::fmtflags QMLogStreamC::setf(std::ios_base::fmtflags flags,
                                           std::ios_base::fmtflags mask) noexcept {
  std::ostream* os = GetOstream();
  return os != nullptr ? os->setf(flags, mask) : std::ios_base::skipws | std::ios_base::dec;
}

void QMLogStreamC::flush() {
  if (m_pOstream != nullptr) {
    m_pOstream->flush();
  } else if (pptr() != pbase()) {
    sync();
  }
}

std::ostream& operator<<(std::ostream& os, QMMessageLevel level) {
  if (auto* buffer = dynamic_cast<QMLogStrstreambufC*>(os.rdbuf())) {
    buffer->SetMessageLevel(level.level);
  }
  return os;
}
