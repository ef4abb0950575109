# SPDX-License-Identifier: Apache-2.0
#
# cmake -DOUTPUT=FILE -DHEADER=... -DNAMES=a;b -DFILES=...;... -P write_bytes.cmake
# writes a source with a function for each file that returns its bytes, as the header declares. With
# -DLIST=all a function all() returns the bytes of all files instead, one after the other.
set(text "// Made by write_bytes.cmake.\n#include \"${HEADER}\"\n\nnamespace varda {\n")
foreach(name file IN ZIP_LISTS NAMES FILES)
  file(READ ${file} bytes HEX)
  string(REGEX REPLACE "(................................................................)" "\\1\n" bytes
                       "${bytes}")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(APPEND text "\nstatic const unsigned char ${name}_bytes[] = {\n${bytes}};\n")
  set(view "{reinterpret_cast<const char*>(${name}_bytes), sizeof ${name}_bytes}")
  if(LIST)
    string(APPEND views "      ${view},\n")
  else()
    string(APPEND text "std::string_view ${name}() {\n  return ${view};\n}\n")
  endif()
endforeach()
if(LIST)
  string(APPEND text "\nstd::vector<std::string_view> ${LIST}() {\n  return {\n${views}  };\n}\n")
endif()
file(WRITE ${OUTPUT} "${text}\n}  // namespace varda\n")
