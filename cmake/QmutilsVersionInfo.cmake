# qmutils_version_info(<target> COMPANY <name> PRODUCT <name> VERSION <version>
#                      [BLOCK <block>] [STRINGS <key> <text> ...])
#
# Lets a program or shared library say what it is: CQMAppUtils reads these texts from the file, of
# the running program or of any other. VERSION has four numbers parted by commas ("5, 0, 1, 2"), or
# up to four by dots (5.0.1). BLOCK names the block of texts, 040904B0 (American English, looked up
# first) unless it is given, or 080904B0 (British English); call the function once for each block.
# STRINGS are further keys, each with its text.
function(qmutils_version_info target)
  if(WIN32)
    message(STATUS "qmutils_version_info(${target}): notes are read on Linux only")
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 info "" "COMPANY;PRODUCT;VERSION;BLOCK" "STRINGS")
  foreach(required COMPANY PRODUCT VERSION)
    if(NOT DEFINED info_${required})
      message(FATAL_ERROR "qmutils_version_info(${target}): ${required} is missing")
    endif()
  endforeach()
  if(DEFINED info_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "qmutils_version_info(${target}): unknown ${info_UNPARSED_ARGUMENTS}")
  endif()
  get_target_property(type ${target} TYPE)
  if(NOT type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)$")
    message(FATAL_ERROR "qmutils_version_info(${target}): no program and no shared library")
  endif()
  if(NOT DEFINED info_BLOCK)
    set(info_BLOCK 040904B0)
  elseif(NOT info_BLOCK MATCHES "^[0-9A-Fa-f]+$")
    message(FATAL_ERROR "qmutils_version_info(${target}): ${info_BLOCK} names no block")
  endif()
  if(info_VERSION MATCHES "^[0-9]+(\\.[0-9]+)?(\\.[0-9]+)?(\\.[0-9]+)?$")
    string(REPLACE "." ", " info_VERSION "${info_VERSION}")
    while(NOT info_VERSION MATCHES ".*,.*,.*,.*")
      string(APPEND info_VERSION ", 0")
    endwhile()
  elseif(NOT info_VERSION MATCHES "^[0-9]+[ \t]*,[ \t]*[0-9]+[ \t]*,[ \t]*[0-9]+[ \t]*,[ \t]*[0-9]+$")
    message(FATAL_ERROR "qmutils_version_info(${target}): ${info_VERSION} is no version")
  endif()
  list(LENGTH info_STRINGS count)
  math(EXPR remainder "${count} % 2")
  if(remainder)
    message(FATAL_ERROR "qmutils_version_info(${target}): a key without a text in STRINGS")
  endif()

  # The texts as hexadecimal bytes, each with a NUL behind it: whatever they hold, nothing of it
  # means anything to CMake or the compiler.
  set(bytes "")
  _qmutils_append_text("${info_BLOCK}")
  foreach(pair "CompanyName:COMPANY" "ProductName:PRODUCT" "ProductVersion:VERSION")
    string(REPLACE ":" ";" pair "${pair}")
    list(GET pair 0 key)
    list(GET pair 1 argument)
    _qmutils_append_text("${key}")
    _qmutils_append_text("${info_${argument}}")
  endforeach()
  foreach(text IN LISTS info_STRINGS)
    _qmutils_append_text("${text}")
  endforeach()
  string(LENGTH "${bytes}" size)
  math(EXPR size "${size} / 2")
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")

  # A note: the lengths of owner and content, a type, the owner, the content. It is loaded with the
  # file, so it stays when the file is stripped.
  get_property(languages GLOBAL PROPERTY ENABLED_LANGUAGES)
  set(extension c)
  if(CXX IN_LIST languages)
    set(extension cpp)
  endif()
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}_version_${info_BLOCK}.${extension})
  file(CONFIGURE OUTPUT ${source} @ONLY CONTENT [[
/* Made by qmutils_version_info(); read by CQMAppUtils. */
static const struct {
  unsigned owner_size, content_size, type;
  char owner[8];
  unsigned char content[@size@];
} note __attribute__((section(".note.qmutils"), used, aligned(4))) = {
    8, @size@, 1, "qmutils", {@bytes@}};
]])
  target_sources(${target} PRIVATE ${source})
endfunction()

# Appends a text to the caller's `bytes`.
function(_qmutils_append_text text)
  string(HEX "${text}" hex)
  set(bytes "${bytes}${hex}00" PARENT_SCOPE)
endfunction()
