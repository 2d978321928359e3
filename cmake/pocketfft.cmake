# pocketfft's header-only library, taken from an installed package and pinned
# by hash. By default it is the copy the `pythran` package ships (listed in the
# build requirements); CORVINA_POCKETFFT_HEADER names another file with the
# same contents.
set(CORVINA_POCKETFFT_SHA256 9ed4da5afa1f7e3fc550324c2cc9353d373a23fda0975dac643fd26c4e311250)
set(CORVINA_POCKETFFT_HEADER "" CACHE FILEPATH "pocketfft header-only library")

if(NOT CORVINA_POCKETFFT_HEADER)
  find_package(Python 3.8 REQUIRED COMPONENTS Interpreter)
  execute_process(
    COMMAND ${Python_EXECUTABLE} -c
      "import importlib.util, os; s = importlib.util.find_spec('pythran'); print(os.path.join(s.submodule_search_locations[0], 'pythonic', 'numpy', 'fft', 'pocketfft.hpp') if s else '')"
    OUTPUT_VARIABLE _pocketfft_header OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT _pocketfft_header OR NOT EXISTS "${_pocketfft_header}")
    message(FATAL_ERROR "pocketfft not found: install the pinned package (pip install pythran==0.19.0) "
                        "or set CORVINA_POCKETFFT_HEADER")
  endif()
  set(CORVINA_POCKETFFT_HEADER "${_pocketfft_header}" CACHE FILEPATH "" FORCE)
endif()

file(SHA256 "${CORVINA_POCKETFFT_HEADER}" _pocketfft_hash)
if(NOT _pocketfft_hash STREQUAL CORVINA_POCKETFFT_SHA256)
  message(FATAL_ERROR "${CORVINA_POCKETFFT_HEADER} has SHA-256 ${_pocketfft_hash}, "
                      "expected ${CORVINA_POCKETFFT_SHA256} (pythran 0.19.0)")
endif()
configure_file("${CORVINA_POCKETFFT_HEADER}" "${PROJECT_BINARY_DIR}/pocketfft/pocketfft_hdronly.h" COPYONLY)
add_library(corvina_pocketfft INTERFACE)
target_include_directories(corvina_pocketfft SYSTEM INTERFACE "${PROJECT_BINARY_DIR}/pocketfft")
