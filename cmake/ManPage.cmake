# Writes the manual page of one tool with help2man (cmake -P).
#
#   -DHELP2MAN=path -DNAME=tool -DTOOL=path -DOUTPUT=page.1
#   [-DINCLUDE=file.h2m] [-DEMULATOR=prog|arg|...]
#
# The first line of `TOOL --version` must read "NAME VERSION"; it becomes the
# page's name and version. Later lines (binlog-decode names its gzip inflater
# there) describe one build, not the program, and stay out of the page.
# With EMULATOR ("|" between its words) the tool runs through it: help2man
# then runs a wrapper script named like the tool.
foreach(var HELP2MAN NAME TOOL OUTPUT)
  if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
    message(FATAL_ERROR "ManPage.cmake: ${var} not set")
  endif()
endforeach()

get_filename_component(out_dir "${OUTPUT}" DIRECTORY)
file(MAKE_DIRECTORY "${out_dir}")

set(program "${TOOL}")
set(emulator "")
if(NOT "${EMULATOR}" STREQUAL "")
  string(REPLACE "|" ";" emulator "${EMULATOR}")
  set(program "${out_dir}/run/${NAME}")
  set(script "#!/bin/sh\nexec")
  foreach(word IN LISTS emulator ITEMS "${TOOL}")
    string(REPLACE "'" "'\\''" word "${word}")
    string(APPEND script " '${word}'")
  endforeach()
  string(APPEND script " \"$@\"\n")
  file(WRITE "${out_dir}/run/${NAME}.tmp" "${script}")
  file(COPY "${out_dir}/run/${NAME}.tmp" DESTINATION "${out_dir}/run/tmp"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
      WORLD_READ WORLD_EXECUTE)
  file(RENAME "${out_dir}/run/tmp/${NAME}.tmp" "${program}")
  file(REMOVE "${out_dir}/run/${NAME}.tmp")
endif()

execute_process(COMMAND "${program}" --version
  RESULT_VARIABLE status OUTPUT_VARIABLE version_text ERROR_VARIABLE error_text)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NAME} --version failed (${status}): ${error_text}")
endif()
string(REGEX MATCH "^[^\n]*" version_line "${version_text}")
if(NOT version_line MATCHES "^${NAME} [0-9][^ ]*$")
  message(FATAL_ERROR
    "${NAME} --version must start with the line '${NAME} VERSION', not '${version_line}'")
endif()

set(args --no-info --section=1 "--version-string=${version_line}" "--output=${OUTPUT}.tmp")
if(NOT "${INCLUDE}" STREQUAL "")
  list(APPEND args "--include=${INCLUDE}")
endif()
execute_process(COMMAND "${HELP2MAN}" ${args} "${program}"
  RESULT_VARIABLE status ERROR_VARIABLE error_text)
if(NOT status EQUAL 0)
  file(REMOVE "${OUTPUT}.tmp")
  message(FATAL_ERROR "help2man failed for ${NAME} (${status}): ${error_text}")
endif()
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
