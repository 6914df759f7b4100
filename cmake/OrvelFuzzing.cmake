# libFuzzer targets of the fuzz preset (ORVEL_FUZZ, clang only): every fuzz target and every
# library it exercises are built with the same sanitizers, the libraries with coverage
# feedback for the fuzzer.

if(ORVEL_FUZZ AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "ORVEL_FUZZ needs clang (use the fuzz preset)")
endif()

set(ORVEL_FUZZ_SANITIZERS -fsanitize=address,undefined -fno-sanitize-recover=all
    -fno-omit-frame-pointer)

# orvel_instrument_for_fuzzing(target... [OPTIONS extra compile options...])
#   Builds the libraries with coverage feedback and the fuzz targets' sanitizers; whatever
#   links them gets the sanitizers' runtime.
function(orvel_instrument_for_fuzzing)
  cmake_parse_arguments(ARG "" "" "OPTIONS" ${ARGN})
  foreach(library ${ARG_UNPARSED_ARGUMENTS})
    target_compile_options(${library} PRIVATE
      -fsanitize=fuzzer-no-link ${ORVEL_FUZZ_SANITIZERS} ${ARG_OPTIONS})
    target_link_options(${library} INTERFACE -fsanitize=address,undefined)
  endforeach()
endfunction()

# orvel_add_fuzzer(name SOURCES files... [LIBS libraries...] [OPTIONS compile options...])
#   A libFuzzer program.
function(orvel_add_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;OPTIONS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer ${ORVEL_FUZZ_SANITIZERS} ${ARG_OPTIONS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
endfunction()
