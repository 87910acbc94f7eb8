# Writes the files of esmcmap's page as C++: cmake -DOUT=page_files.cpp "-DFILES=a.html;b.css" -P embed.cmake
set(table "")
set(arrays "")
set(number 0)
foreach(file ${FILES})
  get_filename_component(name ${file} NAME)
  get_filename_component(kind ${file} LAST_EXT)
  set(path "/${name}")
  if(kind STREQUAL ".html")
    set(type "text/html; charset=utf-8")
  elseif(kind STREQUAL ".css")
    set(type "text/css; charset=utf-8")
  elseif(kind STREQUAL ".js")
    set(type "text/javascript; charset=utf-8")
  elseif(kind STREQUAL ".svg")
    set(type "image/svg+xml")
  else()
    message(FATAL_ERROR "esmcmap's page has no files of the kind ${name}")
  endif()
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  file(READ ${file} octets HEX)
  string(REGEX REPLACE "(..)" "0x\\1," octets "${octets}")
  string(APPEND arrays "constexpr unsigned char FILE_${number}[] = {${octets}0};\n")
  string(APPEND table "    {\"${path}\", \"${type}\", {reinterpret_cast<const char*>(FILE_${number}), sizeof FILE_${number} - 1}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUT} "// Made by cmake/embed.cmake.\n#include \"esmcmap/serve/page_files.h\"\n\nnamespace esmcmap {\n\n${arrays}
std::span<const page_file> page_files() {
    static const page_file FILES[] = {\n${table}    };
    return FILES;
}

}  // namespace esmcmap\n")
