# qmutils_version_info(<target> COMPANY <name> PRODUCT <name> VERSION "<a, b, c, d>"
#                      [BLOCK <block>] [STRINGS <key> <text> ...])
#
# Lets a program or library say what it is: CQMAppUtils reads these texts from the file, of the
# running program or of any other. VERSION has four numbers parted by commas, or is taken from a
# version with dots. BLOCK names the block of texts, 040904B0 (American English, looked up first)
# unless it is given, or 080904B0 (British English); call the function once for each block.
function(qmutils_version_info target)
  cmake_parse_arguments(PARSE_ARGV 1 info "" "COMPANY;PRODUCT;VERSION;BLOCK" "STRINGS")
  foreach(required COMPANY PRODUCT VERSION)
    if(NOT DEFINED info_${required})
      message(FATAL_ERROR "qmutils_version_info(${target}): ${required} is missing")
    endif()
  endforeach()
  if(info_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "qmutils_version_info(${target}): unknown ${info_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT DEFINED info_BLOCK)
    set(info_BLOCK 040904B0)
  endif()
  if(info_VERSION MATCHES "^[0-9]+(\\.[0-9]+)*$")
    string(REPLACE "." ", " info_VERSION "${info_VERSION}")
    while(NOT info_VERSION MATCHES ".*,.*,.*,.*")
      string(APPEND info_VERSION ", 0")
    endwhile()
  endif()

  set(texts "CompanyName" "${info_COMPANY}" "ProductName" "${info_PRODUCT}"
    "ProductVersion" "${info_VERSION}" ${info_STRINGS})
  set(literal "\"${info_BLOCK}\\0\"")
  foreach(text IN LISTS texts)
    string(REPLACE "\\" "\\\\" text "${text}")
    string(REPLACE "\"" "\\\"" text "${text}")
    string(APPEND literal "\n    \"${text}\\0\"")
  endforeach()
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}_version_${info_BLOCK}.cpp)
  # A note: the lengths of owner and content, a type, the owner, the content. Files keep notes that
  # are loaded with them when they are stripped.
  file(CONFIGURE OUTPUT ${source} @ONLY CONTENT [[
// Made by qmutils_version_info(); read by CQMAppUtils.
namespace {
constexpr char kTexts[] =
    @literal@;
struct Note {
  unsigned ownerSize, contentSize, type;
  char owner[8];
  char content[sizeof kTexts];
};
constexpr Note make() {
  Note note{8, sizeof kTexts - 1, 1, "qmutils", {}};
  for (unsigned i = 0; i < sizeof kTexts; ++i) note.content[i] = kTexts[i];
  return note;
}
__attribute__((section(".note.qmutils"), used, aligned(4))) constexpr Note kNote = make();
}  // namespace
]])
  target_sources(${target} PRIVATE ${source})
endfunction()
