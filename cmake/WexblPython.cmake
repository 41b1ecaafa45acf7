# Finds what the wexbinlog Python package is built with: an interpreter that
# imports pybind11, and pybind11's CMake package.
#
# The interpreter: WEXBL_PYTHON_EXECUTABLE when given; else the first of
# /usr/bin/python3 (Debian's, where python3-pybind11 installs) and the
# python3 first on PATH that can import pybind11. So a pyenv or virtualenv
# interpreter on PATH without pybind11 does not hide Debian's.
#
# Sets WEXBL_PYTHON_FOUND, WEXBL_PYTHON_EXECUTABLE and
# WEXBL_PYTHON_INSTALL_DIR (relative to the install prefix).

set(WEXBL_PYTHON_FOUND OFF)
if(NOT WEXBL_PYTHON_EXECUTABLE)
  find_program(WEXBL_PATH_PYTHON3 NAMES python3 NO_CACHE)
  foreach(candidate /usr/bin/python3 ${WEXBL_PATH_PYTHON3})
    if(EXISTS ${candidate})
      execute_process(COMMAND ${candidate} -c "import pybind11"
        RESULT_VARIABLE imported OUTPUT_QUIET ERROR_QUIET)
      if(imported EQUAL 0)
        set(WEXBL_PYTHON_EXECUTABLE ${candidate} CACHE FILEPATH
          "The Python interpreter the wexbinlog package is built for")
        break()
      endif()
    endif()
  endforeach()
endif()
if(NOT WEXBL_PYTHON_EXECUTABLE)
  message(STATUS "Python package skipped: no python3 that imports pybind11 "
    "(Debian: python3-pybind11 pybind11-dev python3-dev)")
  return()
endif()
execute_process(COMMAND ${WEXBL_PYTHON_EXECUTABLE} -c
  "import pybind11; print(pybind11.get_cmake_dir(), end='')"
  RESULT_VARIABLE status OUTPUT_VARIABLE WEXBL_PYBIND11_CMAKE_DIR ERROR_QUIET)
if(NOT status EQUAL 0)
  message(STATUS "Python package skipped: ${WEXBL_PYTHON_EXECUTABLE} cannot import pybind11")
  return()
endif()
# pybind11 looks for the interpreter it is told of.
set(PYTHON_EXECUTABLE ${WEXBL_PYTHON_EXECUTABLE})
find_package(pybind11 CONFIG QUIET HINTS ${WEXBL_PYBIND11_CMAKE_DIR})
if(NOT pybind11_FOUND)
  message(STATUS "Python package skipped: pybind11's CMake package not found")
  return()
endif()

# Where the package is installed: Debian's interpreter reads
# lib/python3/dist-packages under /usr and lib/python3.X/dist-packages
# under /usr/local; other interpreters their platlib.
if(NOT WEXBL_PYTHON_INSTALL_DIR)
  execute_process(COMMAND ${WEXBL_PYTHON_EXECUTABLE} -c [=[
import sys, sysconfig
if any(p.endswith("dist-packages") for p in sys.path):
    if sys.argv[1] == "/usr":
        print("lib/python3/dist-packages", end="")
    else:
        print("lib/python%d.%d/dist-packages" % sys.version_info[:2], end="")
else:
    path = sysconfig.get_path("platlib", "posix_prefix", vars={"platbase": "@P@", "base": "@P@"})
    print(path[len("@P@/"):], end="")
]=] ${CMAKE_INSTALL_PREFIX}
    OUTPUT_VARIABLE dir RESULT_VARIABLE status)
  if(NOT status EQUAL 0 OR dir STREQUAL "")
    set(dir lib/python3/dist-packages)
  endif()
  set(WEXBL_PYTHON_INSTALL_DIR ${dir} CACHE STRING
    "Where the wexbinlog package is installed, relative to the install prefix")
endif()
set(WEXBL_PYTHON_FOUND ON)
message(STATUS "Python package wexbinlog for ${WEXBL_PYTHON_EXECUTABLE}, installed into "
  "<prefix>/${WEXBL_PYTHON_INSTALL_DIR}")
