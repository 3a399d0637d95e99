# What the toolchains of other machines share: Debian's cross compiler, the machine's libraries as
# `scripts/sysroot.sh ARCHITECTURE build/sysroots/ARCHITECTURE` lays them out, and a way to run what
# is built.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${machine})
set(CMAKE_C_COMPILER ${compiler}-gcc)
set(CMAKE_CXX_COMPILER ${compiler}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

get_filename_component(repository ${CMAKE_CURRENT_LIST_DIR}/../.. ABSOLUTE)
set(PKI_SYSROOT ${repository}/build/sysroots/${architecture} CACHE PATH
  "Libraries of the machine, from scripts/sysroot.sh")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PKI_SYSROOT)

# The compiler brings its own C library to link with, so this is no sysroot in its sense.
set(CMAKE_FIND_ROOT_PATH ${PKI_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
foreach(language C CXX)
  set(CMAKE_${language}_FLAGS_INIT "-isystem ${PKI_SYSROOT}/usr/include/${triplet}")
endforeach()

# The libraries in the folder need one another, to be linked and to run.
set(folders ${PKI_SYSROOT}/lib/${triplet} ${PKI_SYSROOT}/usr/lib/${triplet})
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,--disable-new-dtags")
  foreach(folder ${folders})
    string(APPEND CMAKE_${kind}_LINKER_FLAGS_INIT " -Wl,-rpath-link,${folder}")
  endforeach()
endforeach()
set(CMAKE_BUILD_RPATH ${folders})

set(CMAKE_CROSSCOMPILING_EMULATOR
  ${repository}/scripts/run_elsewhere.sh ${architecture} ${PKI_SYSROOT})
