// A file descriptor that closes itself. For platform/posix/ only.
#pragma once

#include <unistd.h>

#include <utility>

namespace qm::platform {

class Descriptor {
 public:
  Descriptor() noexcept = default;
  explicit Descriptor(int number) noexcept : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const noexcept { return number_; }
  bool isOpen() const noexcept { return number_ >= 0; }
  int release() noexcept { return std::exchange(number_, -1); }
  void reset() noexcept {
    if (number_ >= 0) ::close(std::exchange(number_, -1));
  }

 private:
  int number_ = -1;
};

}  // namespace qm::platform
