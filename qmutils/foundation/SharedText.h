// A constant text shared by its copies, freed with the last of them. For classes whose copies show
// the texts of their source.
//
// One allocation a text, made without throwing; copying is one atomic operation. Copies may be used
// and destroyed on different threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

namespace qm {

class SharedText {
 public:
  /// No text: c_str() is null.
  constexpr SharedText() noexcept = default;
  SharedText(const SharedText& other) noexcept : block_(other.block_) {
    if (block_ != nullptr) block_->references.fetch_add(1, std::memory_order_relaxed);
  }
  SharedText(SharedText&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  SharedText& operator=(SharedText other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~SharedText() {
    // Acquire and release: the thread that frees the block sees all that the others did with it.
    if (block_ != nullptr && block_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      block_->~Block();
      ::operator delete(block_);
    }
  }

  /// A copy of `text`; nothing when memory runs out.
  static std::optional<SharedText> copyOf(std::string_view text) noexcept {
    void* memory = ::operator new(sizeof(Block) + text.size() + 1, std::nothrow);
    if (memory == nullptr) return std::nullopt;
    SharedText result;
    result.block_ = new (memory) Block;
    char* characters = result.block_->characters();
    if (!text.empty()) std::memcpy(characters, text.data(), text.size());
    characters[text.size()] = '\0';
    return result;
  }
  /// The same, null giving no text.
  static std::optional<SharedText> copyOf(const char* text) noexcept {
    return text == nullptr ? std::optional<SharedText>(std::in_place)
                           : copyOf(std::string_view(text));
  }

  /// Null when there is no text.
  const char* c_str() const noexcept { return block_ == nullptr ? nullptr : block_->characters(); }
  /// Never null: an empty text when there is none.
  const char* orEmpty() const noexcept { return block_ == nullptr ? "" : block_->characters(); }

 private:
  struct Block {
    std::atomic<std::size_t> references{1};
    char* characters() noexcept { return reinterpret_cast<char*>(this + 1); }
  };
  Block* block_ = nullptr;
};

}  // namespace qm
