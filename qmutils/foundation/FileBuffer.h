// A stream buffer over a C file, so that streams read and write files which the platform's file
// functions have opened. Internal to the library.
//
// It either reads or writes; after reading, seek before writing. A read failure turns the stream
// bad, a file that takes no more makes it fail. Does not own the file. One thread at a time.
#pragma once

#include <cstdio>
#include <streambuf>

namespace qm {

class FileBuffer : public std::streambuf {
 public:
  explicit FileBuffer(std::FILE* file) : file_(file) {}

 protected:
  int_type underflow() override;
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* text, std::streamsize count) override;
  int sync() override;
  pos_type seekoff(off_type offset, std::ios_base::seekdir direction,
                   std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

 private:
  std::FILE* file_;
  char read_[16 * 1024];
};

}  // namespace qm
