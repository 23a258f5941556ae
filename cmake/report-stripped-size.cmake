# Strips a copy of a shared library and reports both sizes, on the console
# and in the file REPORT. Run by cmake -P with -DSTRIP -DLIBRARY -DSTRIPPED
# -DREPORT -DLABEL.
execute_process(COMMAND ${STRIP} --strip-all -o ${STRIPPED} ${LIBRARY}
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${STRIP} failed on ${LIBRARY}")
endif()
file(SIZE ${LIBRARY} full_size)
file(SIZE ${STRIPPED} stripped_size)
math(EXPR stripped_kib "(${stripped_size} + 512) / 1024")
get_filename_component(name ${LIBRARY} NAME)
set(text "${name} (${LABEL}): ${stripped_size} bytes stripped (${stripped_kib} KiB), ${full_size} bytes as built")
message(STATUS "${text}")
file(WRITE ${REPORT} "${text}\n")
