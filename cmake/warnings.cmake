# One set of warnings for everything, all of them errors. OpenSSL 3.0 marks parts of its 0.9.8
# interface deprecated that have no other door (ERR_get_state); that one warning stays out.
add_library(pki_warnings INTERFACE)
target_compile_options(pki_warnings INTERFACE
  -Wall -Wextra -Werror -Wpointer-arith -Wcast-qual -Wundef -Wvla -Wformat=2
  # Files that are compiled together see each other's globals.
  $<$<NOT:$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wshadow>
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast>
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>)
target_compile_definitions(pki_warnings INTERFACE OPENSSL_SUPPRESS_DEPRECATED)
