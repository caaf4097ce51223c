#include "qmutils/foundation/FileBuffer.h"

#include <ios>

namespace qm {

FileBuffer::int_type FileBuffer::underflow() {
  const std::size_t got = std::fread(read_, 1, sizeof read_, file_);
  // What was read before a failure counts; the next call finds the failure again.
  if (got == 0 && std::ferror(file_) != 0) throw std::ios_base::failure("read failure");
  setg(read_, read_, read_ + got);
  return got != 0 ? traits_type::to_int_type(*gptr()) : traits_type::eof();
}

FileBuffer::int_type FileBuffer::overflow(int_type c) {
  return traits_type::eq_int_type(c, traits_type::eof()) || std::fputc(c, file_) != EOF
             ? traits_type::not_eof(c)
             : traits_type::eof();
}

std::streamsize FileBuffer::xsputn(const char* text, std::streamsize count) {
  return static_cast<std::streamsize>(
      std::fwrite(text, 1, static_cast<std::size_t>(count), file_));
}

int FileBuffer::sync() { return std::fflush(file_) == 0 ? 0 : -1; }

FileBuffer::pos_type FileBuffer::seekoff(off_type offset, std::ios_base::seekdir direction,
                                         std::ios_base::openmode) {
  int whence = SEEK_SET;
  if (direction == std::ios_base::end) whence = SEEK_END;
  if (direction == std::ios_base::cur) {
    whence = SEEK_CUR;
    offset -= egptr() - gptr();  // the file is ahead by what has not been taken yet
  }
  if (std::fseek(file_, static_cast<long>(offset), whence) != 0) return pos_type(off_type(-1));
  setg(read_, read_, read_);
  return pos_type(std::ftell(file_));
}

FileBuffer::pos_type FileBuffer::seekpos(pos_type position, std::ios_base::openmode which) {
  return seekoff(position, std::ios_base::beg, which);
}

}  // namespace qm
