# Writes OUTPUT, a C++ source defining frfcam::cli::kPageFiles from the
# files FILES (a ;-list) so that the tool serves its page without reading
# anything at run time. Run with cmake -P.
set(body "")
set(table "")
set(i 0)
foreach(path IN LISTS FILES)
  get_filename_component(name "${path}" NAME)
  get_filename_component(ext "${path}" EXT)
  if(ext STREQUAL ".html")
    set(type "text/html; charset=utf-8")
  elseif(ext STREQUAL ".js")
    set(type "text/javascript; charset=utf-8")
  elseif(ext STREQUAL ".css")
    set(type "text/css; charset=utf-8")
  else()
    set(type "application/octet-stream")
  endif()
  file(READ "${path}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(APPEND body "const unsigned char kFile${i}[] = {${bytes}0};\n")
  string(APPEND table "    {\"${name}\", \"${type}\", kFile${i}, ${size}},\n")
  math(EXPR i "${i} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp"
  "// Generated from tools/view/page by cmake/EmbedPage.cmake.\n"
  "#include \"view/page_files.h\"\n\nnamespace frfcam::cli {\nnamespace {\n${body}}  // namespace\n\n"
  "const PageFile kPageFiles[] = {\n${table}    {nullptr, nullptr, nullptr, 0}};\n\n"
  "}  // namespace frfcam::cli\n")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
