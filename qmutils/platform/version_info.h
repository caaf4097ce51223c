// What a program or library says about itself: named texts (ProductVersion, CompanyName, ...) in
// blocks, one for each language the texts are written in.
//
// They are read from the file, which need not be loaded, or of this machine's kind. Where the
// system has no form of its own for them they stand in notes of the file, which the build writes
// (qmutils_version_info() of the CMake package): owner "qmutils", type 1, and as content the name
// of the block and then keys and texts in turn, each with a NUL behind it.
#pragma once

#include <string>

namespace qm::platform {

/// The text of a key, which is found without regard to the case of A-Z. Fails (false) with 1812 for
/// a file without such texts, 1813 without the block, 1814 without the key, else as file.h. Any
/// thread may call it; throws std::bad_alloc.
bool readVersionText(const char* path, const char* block, const char* key, std::string* text);

}  // namespace qm::platform
