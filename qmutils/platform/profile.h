// Settings files of sections and keys (INI files), read and written by key. A repeated look-up in a
// file that nobody changes costs one question to the system and takes no file apart. Any thread may
// call the functions; none throws. Where they fail they give false and set the last error (3 no
// such folder; 5 denied, or no regular file; 8 no memory; 32 others are writing; 87 what cannot be
// written; 112 disk full; 206 a path that is too long).
//
//   width=1000               a key before any section belongs to the section with the empty name
//   [Drum]
//   ; a comment line
//   Name = "Drum 2 "         quotes keep the blanks at the ends; they are not part of the value
//
// Lines end with CR LF, LF or CR. A section is a line whose first character is '[', its name goes
// up to the line's last ']'; a section that comes again is not looked at. A key goes up to the
// first '=' and the first of its name wins; a line without '=' says nothing. Blanks (spaces, tabs)
// around names and values do not count, nor does the case of A-Z in names. A value in double or
// single quotes loses one pair of them; there are no comments behind a value. A file may begin with
// the mark of UTF-8 or of UTF-16 (either order), which is then read as UTF-8; all other bytes are
// handed out as they are.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace qm::platform {

/// Puts the value of a key into `value`, or the default without the spaces at its end (null: an
/// empty text) when there is no such key or no such file: both are no failure. Null names are found
/// nowhere. After a failure `value` is the default too, or empty without memory.
bool readProfile(const char* path, const char* section, const char* key, const char* defaultText,
                 std::string* value) noexcept;

/// Sets the value of a key. A missing file is created, a missing section added at the end of the
/// file, a missing key at the end of its section, before blank lines and comments that follow.
/// Everything else in the file stays, byte for byte. Fails with 87 when the value would not read
/// back as it is (line ends, '=' in a key, characters that the file's encoding does not have).
///
/// The file is replaced in one step as ReplacementFile does it, which also lets one writer at a
/// time change a file: of many keys that threads and programs write at once, none is lost.
bool writeProfile(const char* path, const char* section, const char* key,
                  const char* value) noexcept;

struct ProfileSection {
  std::string name;
  std::vector<std::pair<std::string, std::string>> values;  ///< keys, and what they have
};

/// All sections, or the one of that name, as they are at one moment: in the order of the file, each
/// name once as it is first spelt. The empty section is listed when it has keys. A missing file or
/// section gives none.
bool listProfile(const char* path, const char* section,
                 std::vector<ProfileSection>* sections) noexcept;

}  // namespace qm::platform
