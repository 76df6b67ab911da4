# Writes OUT, a C++ source that builds every file of DIR into the program, for the local
# backend's pages. Run at build time (cmake -DDIR=... -DOUT=... -DHEADER=... -DFUNCTION=...
# -P EmbedFiles.cmake): OUT defines FUNCTION, declared in HEADER (a path from the source root),
# which returns a file's bytes by name. OUT is rewritten only when its text changes, so an
# unchanged page rebuilds nothing.
file(GLOB names RELATIVE "${DIR}" "${DIR}/*")
list(SORT names)
set(arrays "")
set(lookups "")
set(index 0)
foreach(name IN LISTS names)
  # Notes for the people working on the page (*.md) are not part of it.
  if(IS_DIRECTORY "${DIR}/${name}" OR name MATCHES "^\\." OR name MATCHES "\\.md$"
     OR NOT name MATCHES "^[A-Za-z0-9._-]+$")
    continue()
  endif()
  file(READ "${DIR}/${name}" hex HEX)
  if(hex STREQUAL "")
    string(APPEND lookups "    if (name == \"${name}\") return std::string_view();\n")
  else()
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    # Long lines are fine for a compiler, but keep the file readable in an editor.
    string(REGEX REPLACE "((0x..,){24})" "\\1\n" bytes "${bytes}")
    string(APPEND arrays "constexpr unsigned char file${index}[] = {\n${bytes}};\n")
    string(APPEND lookups "    if (name == \"${name}\") {\n"
                          "        return std::string_view(reinterpret_cast<const char*>(file${index}),\n"
                          "                                sizeof file${index});\n"
                          "    }\n")
  endif()
  math(EXPR index "${index} + 1")
endforeach()

set(text "// Generated from ${DIR} by cmake/EmbedFiles.cmake; do not edit.
#include \"${HEADER}\"

namespace virela::devserver {
namespace {
${arrays}}  // namespace

std::optional<std::string_view> ${FUNCTION}(std::string_view name) {
${lookups}    return std::nullopt;
}

}  // namespace virela::devserver
")
set(old "")
if(EXISTS "${OUT}")
  file(READ "${OUT}" old)
endif()
if(NOT old STREQUAL text)
  file(WRITE "${OUT}" "${text}")
endif()
