// In-memory text streams of the interface: QMostrstream collects text, QMistrstream reads one,
// QMstrstream does both. The _c names are the same single-byte streams, the _w names hold 16-bit
// text.
//
// They grow by themselves; when memory runs out the stream turns bad, nothing is thrown. Numbers
// have the form of the "C" locale, whatever the program sets: the texts end up in logs, messages
// and files that programs read. A stream belongs to one thread at a time.
//
// Callers may end a text with std::ends, as they had to when it was handed out as a character
// array. text() therefore stops before the first NUL:
//
//   QMostrstream reason;
//   reason << "cannot open " << name << std::ends;
//   QMErrorC::Stack("ReaderC::open", code, reason);   // takes "cannot open plate.xml"
#pragma once

#include <locale>
#include <new>
#include <sstream>
#include <string_view>

namespace qm {

/// Base is std::basic_ostringstream, -istringstream or -stringstream.
template <class Base>
class TextStream : public Base {
 public:
  using Char = typename Base::char_type;
  using View = std::basic_string_view<Char>;

  TextStream() { this->imbue(std::locale::classic()); }
  /// Starts with `text`; what is written to a QMstrstream goes behind it. A null pointer counts as
  /// an empty text.
  explicit TextStream(View text) : TextStream() { start(text); }
  explicit TextStream(const Char* text) : TextStream(text == nullptr ? View() : View(text)) {}

  /// Everything written so far (or given to read), up to the first NUL. Valid until the next
  /// change of the stream.
  View text() const noexcept {
    const View all = this->view();
    return all.substr(0, all.find(Char{}));
  }

 private:
  void start(View text) try {
    this->str(std::basic_string<Char>(text));
    if constexpr (requires(TextStream & stream) { stream.seekp(0, std::ios_base::end); }) {
      this->seekp(0, std::ios_base::end);
    }
  } catch (const std::bad_alloc&) {
    this->setstate(std::ios_base::badbit);
  }
};

}  // namespace qm

using QMstrstream = qm::TextStream<std::stringstream>;
using QMostrstream = qm::TextStream<std::ostringstream>;
using QMistrstream = qm::TextStream<std::istringstream>;

using QMstrstream_c = QMstrstream;
using QMostrstream_c = QMostrstream;
using QMistrstream_c = QMistrstream;

using QMstrstream_w = qm::TextStream<std::basic_stringstream<char16_t>>;
using QMostrstream_w = qm::TextStream<std::basic_ostringstream<char16_t>>;
using QMistrstream_w = qm::TextStream<std::basic_istringstream<char16_t>>;
