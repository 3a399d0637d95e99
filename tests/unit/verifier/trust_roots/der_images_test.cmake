# What is built in has to be one certificate in DER, octet by octet:
#   cmake -DSCRIPT=der_images.cmake -DCERT=cert.der -DOPENSSL=openssl -DWORK=folder -P this
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}")

# Runs the script on ${WORK}/${name}; sets `result`, `said` and `made`.
macro(build_in name)
  file(REMOVE "${WORK}/images.h")
  execute_process(COMMAND ${CMAKE_COMMAND} -DHEADER=${WORK}/images.h "-DIMAGES=some_der=${WORK}/${name}"
    -P ${SCRIPT} RESULT_VARIABLE result OUTPUT_VARIABLE said ERROR_VARIABLE said)
  set(made FALSE)
  if(EXISTS "${WORK}/images.h")
    set(made TRUE)
  endif()
endmacro()

function(expect_taken name)
  build_in("${name}")
  if(result OR NOT made)
    message(SEND_ERROR "${name} was refused: ${said}")
  endif()
endfunction()

function(expect_refused name why)
  build_in("${name}")
  if(NOT result OR made)
    message(SEND_ERROR "${name} was taken")
  elseif(NOT said MATCHES "\n *[^\n]*/${name}: ${why}; [^\n]*openssl x509 [^\n]*-outform DER[^\n]*\n")
    message(SEND_ERROR "${name}: not in one line '${why}': ${said}")
  endif()
endfunction()

# octets(NAME SIZE printf-text): a file of that head, filled up to SIZE with the certificate's octets.
function(octets name size head)
  execute_process(COMMAND sh -c
    "{ printf '${head}'; cat '${CERT}' '${CERT}'; } | head -c ${size} >'${WORK}/${name}'"
    COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(SIZE "${CERT}" size)
math(EXPR shorter "${size} - 1")
math(EXPR longer "${size} + 1")
math(EXPR double "${size} * 2")

octets(whole.der ${size} "")
expect_taken(whole.der)
file(READ "${WORK}/images.h" header)
string(REGEX MATCHALL "0x[0-9a-f][0-9a-f]" values "${header}")
list(LENGTH values count)
if(NOT count EQUAL size OR NOT header MATCHES "unsigned char some_der\\[\\] = {")
  message(SEND_ERROR "an image of ${count} octets: ${header}")
endif()

octets(empty.der 0 "")
expect_refused(empty.der "empty")
octets(cut.der ${shorter} "")
expect_refused(cut.der "${shorter} octets that say they are ${size}")
octets(long.der ${longer} "")
expect_refused(long.der "${longer} octets that say they are ${size}")
octets(two.der ${double} "")
expect_refused(two.der "${double} octets that say they are ${size}")
octets(tag.der 1 "")
expect_refused(tag.der "no SEQUENCE")

execute_process(COMMAND ${OPENSSL} x509 -inform DER -in "${CERT}" -out "${WORK}/pem.der"
  COMMAND_ERROR_IS_FATAL ANY)
expect_refused(pem.der "no SEQUENCE")

# A length of one octet, which DER has between 128 and 255.
octets(short.der 131 "\\060\\201\\200")
expect_taken(short.der)
octets(short_cut.der 130 "\\060\\201\\200")
expect_refused(short_cut.der "130 octets that say they are 131")
octets(not_shortest.der 130 "\\060\\201\\177")
expect_refused(not_shortest.der "no SEQUENCE")
octets(not_shortest_either.der 259 "\\060\\202\\000\\377")
expect_refused(not_shortest_either.der "no SEQUENCE")
octets(set.der 260 "\\061\\202\\001\\000")
expect_refused(set.der "no SEQUENCE")
