# pki_run_by_path(TARGET ...): tests start these programs by their path, bin/NAME. Where programs need
# an emulator, the path is a script that calls it, and the program itself is a folder further down.
function(pki_run_by_path)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    return()
  endif()
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "' '" emulator)
  set(folder ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
  foreach(target ${ARGN})
    set(real ${folder}/${CMAKE_LIBRARY_ARCHITECTURE})
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${real})
    file(CONFIGURE OUTPUT ${folder}/${target}
      CONTENT "#!/bin/sh\nexec '${emulator}' '${real}/${target}' \"$@\"\n" @ONLY)
    file(CHMOD ${folder}/${target} PERMISSIONS
      OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endforeach()
endfunction()
