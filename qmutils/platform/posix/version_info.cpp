#include "qmutils/platform/version_info.h"

#include <elf.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "qmutils/platform/ascii_case.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/posix/regular_file.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

namespace {

constexpr std::string_view kOwner("qmutils", 8);  // with its NUL, as notes have it
constexpr std::uint32_t kTextsNote = 1;
/// More than any file has; a header that claims more is damaged.
constexpr std::size_t kMostBytes = 1 << 20;

/// A file that is read at any place, within its size.
class InputFile {
 public:
  /// Not isOpen() with the last error set.
  explicit InputFile(const char* path) {
    const NativePath native(path);
    struct stat status {};
    if (native.ok()) file_ = openRegularFile(native.c_str(), O_RDONLY, &status);
    size_ = static_cast<std::uint64_t>(status.st_size);
  }
  bool isOpen() const noexcept { return file_.isOpen(); }

  /// Empty when not all of it is there.
  std::string read(std::uint64_t offset, std::uint64_t size) const {
    std::string bytes;
    if (size > kMostBytes || offset > size_ || size > size_ - offset) return bytes;
    bytes.resize(size);
    for (std::size_t done = 0; done < size;) {
      const ssize_t got =
          pread(file_.get(), bytes.data() + done, size - done, static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return {};
      done += static_cast<std::size_t>(got);
    }
    return bytes;
  }

 private:
  Descriptor file_;
  std::uint64_t size_ = 0;
};

/// Where things stand in files for processors of 64 and of 32 bits.
struct Layout {
  std::size_t header;       // its size
  std::size_t table;        // the table of segments: where its place stands in the header,
  std::size_t entrySize;    // the size of an entry,
  std::size_t count;        // and their number
  std::size_t entry;        // the least size of an entry
  std::size_t place, size;  // of a segment, within its entry
  std::size_t word;         // the size of a place or size
};
constexpr Layout kWide = {sizeof(Elf64_Ehdr),
                          offsetof(Elf64_Ehdr, e_phoff),
                          offsetof(Elf64_Ehdr, e_phentsize),
                          offsetof(Elf64_Ehdr, e_phnum),
                          sizeof(Elf64_Phdr),
                          offsetof(Elf64_Phdr, p_offset),
                          offsetof(Elf64_Phdr, p_filesz),
                          8};
constexpr Layout kNarrow = {sizeof(Elf32_Ehdr),
                            offsetof(Elf32_Ehdr, e_phoff),
                            offsetof(Elf32_Ehdr, e_phentsize),
                            offsetof(Elf32_Ehdr, e_phnum),
                            sizeof(Elf32_Phdr),
                            offsetof(Elf32_Phdr, p_offset),
                            offsetof(Elf32_Phdr, p_filesz),
                            4};

/// Reads notes in the file's own byte order and width.
class ElfReader {
 public:
  explicit ElfReader(const InputFile& file) : file_(file) {
    const std::string identity = file.read(0, EI_NIDENT);
    if (!identity.starts_with(std::string_view(ELFMAG, SELFMAG))) return;
    layout_ = identity[EI_CLASS] == ELFCLASS64 ? kWide : kNarrow;
    bigEndian_ = identity[EI_DATA] == ELFDATA2MSB;
    header_ = file.read(0, layout_.header);
  }

  /// Calls `visit` with the content of each segment of notes until it gives true; gives whether it
  /// did. Damaged files may claim any number of large ones: together they are read up to a limit.
  template <class Visit>
  bool anySegment(const Visit& visit) const {
    if (header_.empty()) return false;
    const std::uint64_t entrySize = number(header_, layout_.entrySize, 2);
    if (entrySize < layout_.entry) return false;
    const std::string table = file_.read(number(header_, layout_.table, layout_.word),
                                         entrySize * number(header_, layout_.count, 2));
    std::uint64_t left = kMostBytes;
    for (std::size_t at = 0; at < table.size(); at += entrySize) {
      const std::string_view entry(table.data() + at, entrySize);
      if (number(entry, 0, 4) != PT_NOTE) continue;
      const std::uint64_t size = number(entry, layout_.size, layout_.word);
      if (size > left) return false;
      left -= size;
      if (visit(file_.read(number(entry, layout_.place, layout_.word), size))) return true;
    }
    return false;
  }

  /// Takes the next note off a segment; false at its end.
  bool takeNote(std::string_view& segment, std::string_view& owner, std::uint32_t& type,
                std::string_view& content) const {
    if (segment.size() < sizeof(Elf64_Nhdr)) return false;
    const std::uint64_t ownerSize = number(segment, 0, 4);
    const std::uint64_t contentSize = number(segment, 4, 4);
    type = static_cast<std::uint32_t>(number(segment, 8, 4));
    segment.remove_prefix(sizeof(Elf64_Nhdr));
    return takePart(segment, ownerSize, owner) && takePart(segment, contentSize, content);
  }

 private:
  std::uint64_t number(std::string_view bytes, std::size_t offset, std::size_t size) const {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const std::size_t at = bigEndian_ ? offset + i : offset + size - 1 - i;
      value = value << 8 | static_cast<unsigned char>(bytes[at]);
    }
    return value;
  }

  /// Parts of a note begin at multiples of 4.
  static bool takePart(std::string_view& rest, std::uint64_t size, std::string_view& part) {
    if (size > rest.size()) return false;
    part = rest.substr(0, size);
    rest.remove_prefix(std::min<std::uint64_t>((size + 3) / 4 * 4, rest.size()));
    return true;
  }

  const InputFile& file_;
  std::string header_;  // empty for a file of another kind
  Layout layout_ = kWide;
  bool bigEndian_ = false;
};

/// Takes the text before the next NUL off; false without one.
bool takeText(std::string_view& rest, std::string_view& text) {
  const std::size_t end = rest.find('\0');
  if (end == std::string_view::npos) return false;
  text = rest.substr(0, end);
  rest.remove_prefix(end + 1);
  return true;
}

}  // namespace

bool readVersionText(const char* path, const char* block, const char* key, std::string* text) {
  const InputFile file(path);
  if (!file.isOpen()) return false;
  const ElfReader elf(file);
  DWORD reason = ERROR_RESOURCE_DATA_NOT_FOUND;
  const auto searchSegment = [&](const std::string& segment) {
    std::string_view rest = segment, owner, content;
    std::uint32_t type = 0;
    while (elf.takeNote(rest, owner, type, content)) {
      if (owner != kOwner || type != kTextsNote) continue;
      reason = std::max(reason, ERROR_RESOURCE_TYPE_NOT_FOUND);
      std::string_view name, found;
      if (!takeText(content, name) || !isSameName(name, block)) continue;
      reason = ERROR_RESOURCE_NAME_NOT_FOUND;
      while (takeText(content, name) && takeText(content, found)) {
        if (!isSameName(name, key)) continue;
        *text = found;
        return true;
      }
    }
    return false;
  };
  return elf.anySegment(searchSegment) || failWith(reason);
}

}  // namespace qm::platform
