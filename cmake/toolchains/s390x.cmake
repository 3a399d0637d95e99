# A big-endian machine, of 64 bits. Its programs run under qemu-user.
set(architecture s390x)
set(machine s390x)
set(compiler s390x-linux-gnu)
set(triplet s390x-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
set(PKI_EMULATED ON)  # what tests measure there is the emulator
