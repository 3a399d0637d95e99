# Writes a header with DER files as arrays:
#   cmake -DHEADER=out.h -DIMAGES="name=file;name=file" -P der_images.cmake
set(text "// Made from DER files by the build.\n\n")
foreach(image ${IMAGES})
  string(REGEX MATCH "^([^=]+)=(.+)$" matched "${image}")
  set(name ${CMAKE_MATCH_1})
  set(file ${CMAKE_MATCH_2})
  file(READ "${file}" hex HEX)
  if(hex STREQUAL "")
    message(FATAL_ERROR "${file} is missing or empty")
  endif()
  string(REGEX REPLACE "(..)" "0x\\1," octets "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..)" "\\1\n    "
         octets "${octets}")
  string(APPEND text "constexpr unsigned char ${name}[] = {\n    ${octets}\n};\n")
endforeach()
file(WRITE "${HEADER}" "${text}")
