# Runs one golden case and compares its standard output and standard error
# byte for byte with the expected files.
#
# Variables: DRIVER, ROUTE (read or stream), DICT, STATS, PORT, MAXVAR,
# OFFSET, CAPTURES (comma separated, relative to CAPTURE_DIR), CAPTURE_DIR,
# EXPECTED_OUT and EXPECTED_ERR (the expected files), ACTUAL (path without the
# .out/.err suffix where the outputs are written).
foreach(var DRIVER ROUTE DICT STATS PORT MAXVAR OFFSET CAPTURES CAPTURE_DIR EXPECTED_OUT
    EXPECTED_ERR ACTUAL)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "run_case.cmake: ${var} is not set")
  endif()
endforeach()

string(REPLACE "," ";" capture_list "${CAPTURES}")
get_filename_component(actual_dir "${ACTUAL}" DIRECTORY)
file(MAKE_DIRECTORY "${actual_dir}")

# Captures are named relative to CAPTURE_DIR so that messages naming a file
# read the same in every build tree.
string(REPLACE "|" ";" emulator "${EMULATOR}")
execute_process(
  COMMAND ${emulator} "${DRIVER}" ${ROUTE} "${DICT}" ${STATS} ${PORT} ${MAXVAR} ${OFFSET} ${capture_list}
  WORKING_DIRECTORY "${CAPTURE_DIR}"
  OUTPUT_FILE "${ACTUAL}.out"
  ERROR_FILE "${ACTUAL}.err"
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "driver exited with ${status}")
endif()

find_program(DIFF_PROGRAM diff)
set(mismatch "")
set(EXPECTED_out "${EXPECTED_OUT}")
set(EXPECTED_err "${EXPECTED_ERR}")
foreach(stream out err)
  execute_process(
    COMMAND "${CMAKE_COMMAND}" -E compare_files "${EXPECTED_${stream}}" "${ACTUAL}.${stream}"
    RESULT_VARIABLE differs)
  if(NOT differs EQUAL 0)
    list(APPEND mismatch ${stream})
    if(DIFF_PROGRAM)
      execute_process(COMMAND "${DIFF_PROGRAM}" -u "${EXPECTED_${stream}}" "${ACTUAL}.${stream}")
    else()
      file(READ "${ACTUAL}.${stream}" text)
      message("actual ${stream}:\n${text}")
    endif()
  endif()
endforeach()
if(mismatch)
  message(FATAL_ERROR "output differs from the expected files on: ${mismatch}")
endif()
