# ipc_db_target_command(<target> <variable>): sets <variable> to a path that
# a shell can run to start the program built by <target>, for tests that run
# built programs through /bin/sh instead of through ctest. On the host that
# is the program itself. In a cross build (CMAKE_CROSSCOMPILING_EMULATOR set)
# the shell could not run the target's binary directly, so it is a small
# script beside the program, <target>-run, that starts it under the emulator
# with the same arguments.
function(ipc_db_target_command target variable)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    set(${variable} $<TARGET_FILE:${target}> PARENT_SCOPE)
    return()
  endif()
  set(words "")
  foreach(word IN LISTS CMAKE_CROSSCOMPILING_EMULATOR)
    string(REPLACE "'" "'\\''" word "${word}")
    string(APPEND words "'${word}' ")
  endforeach()
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}-run)
  file(GENERATE OUTPUT ${script}
    CONTENT "#!/bin/sh\n# Runs ${target} under the emulator of this cross build.\nexec ${words}'$<TARGET_FILE:${target}>' \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                     GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(${variable} ${script} PARENT_SCOPE)
endfunction()
