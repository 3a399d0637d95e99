# Writes a header with DER files as arrays:
#   cmake -DHEADER=out.h -DIMAGES="name=file;name=file" -P der_images.cmake
# Each file is one SEQUENCE, from its first octet to its last.

# The leading blank keeps the text on one line.
function(refuse file what)
  message(FATAL_ERROR " ${file}: ${what}; what is built in is one certificate in DER,"
    " made from PEM by: openssl x509 -in CERT.pem -outform DER -out ${file}")
endfunction()

# Of DER, in `hex`: tag and length (30 81 LL, or 30 82 LL LL) say how long it is.
function(check_is_one_sequence file hex)
  if(hex STREQUAL "")
    refuse("${file}" "empty")
  endif()
  string(REGEX MATCH "^30(81([89a-f].)|82(0[1-9a-f]..|[1-9a-f]...))" matched "${hex}")
  if(NOT matched)
    refuse("${file}" "no SEQUENCE")
  endif()
  string(LENGTH "${matched}" header_digits)
  string(LENGTH "${hex}" digits)
  math(EXPR said "0x${CMAKE_MATCH_2}${CMAKE_MATCH_3} + ${header_digits} / 2")
  math(EXPR size "${digits} / 2")
  if(NOT said EQUAL size)
    refuse("${file}" "${size} octets that say they are ${said}")
  endif()
endfunction()

set(text "// Made from DER files by the build.\n\n")
foreach(image ${IMAGES})
  string(REGEX MATCH "^([^=]+)=(.+)$" matched "${image}")
  set(name ${CMAKE_MATCH_1})
  set(file ${CMAKE_MATCH_2})
  file(READ "${file}" hex HEX)
  check_is_one_sequence("${file}" "${hex}")
  string(REGEX REPLACE "(..)" "0x\\1," octets "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..)" "\\1\n    "
         octets "${octets}")
  string(APPEND text "constexpr unsigned char ${name}[] = {\n    ${octets}\n};\n")
endforeach()
file(WRITE "${HEADER}" "${text}")
