# 32-bit x86, whose time_t has 32 bits too. Its programs run on an x86-64 machine as they are.
set(architecture i386)
set(machine i686)
set(compiler i686-linux-gnu)
set(triplet i386-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
  " -Wl,--dynamic-linker=${PKI_SYSROOT}/lib/ld-linux.so.2")
