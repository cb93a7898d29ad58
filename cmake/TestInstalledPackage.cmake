# The installed package as a speech client meets it: installs the build into a fresh prefix, then,
# with only what was installed and the compiler in its default language mode:
#   - every installed header compiles on its own terms (none needs one that was not installed);
#   - examples/speak builds with find_package(AudioBufPlayer) against the shared library, runs a
#     few sentences on the null output and prints nothing, as a client's normal sentences must;
#   - it builds against the static library, and with pkg-config.
# Run by ctest (see tests/CMakeLists.txt):
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DCXX=... [-DSANITIZE=...] -P TestInstalledPackage.cmake
foreach(required BUILD_DIR SOURCE_DIR WORK_DIR CXX)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "TestInstalledPackage.cmake needs -D${required}=...")
  endif()
endforeach()

# Runs a command; fails the test unless it succeeds. OUTPUT_VARIABLE <var> keeps what it printed.
function(run)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "OUTPUT_VARIABLE" "")
  execute_process(COMMAND ${arg_UNPARSED_ARGUMENTS} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${arg_UNPARSED_ARGUMENTS}\n${output}")
  endif()
  if(arg_OUTPUT_VARIABLE)
    set(${arg_OUTPUT_VARIABLE} "${output}" PARENT_SCOPE)
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Libraries built with a sanitizer need it in every program that links them.
set(flags "")
if(SANITIZE)
  set(flags -fsanitize=${SANITIZE})
endif()

file(GLOB pc_dirs ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pc_dirs}")
foreach(part IN ITEMS cflags libs)
  execute_process(COMMAND pkg-config --${part} audiobufplayer RESULT_VARIABLE result OUTPUT_VARIABLE pc_${part}
    ERROR_VARIABLE pc_error OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config cannot use the installed audiobufplayer.pc: ${pc_error}")
  endif()
  separate_arguments(pc_${part} UNIX_COMMAND "${pc_${part}}")
endforeach()

set(include_dir ${prefix}/include/qen)
file(GLOB_RECURSE headers RELATIVE ${include_dir} ${include_dir}/*)
set(all_headers ${WORK_DIR}/all_headers.cpp)
file(WRITE ${all_headers} "")
foreach(header IN LISTS headers)
  file(APPEND ${all_headers} "#include \"${header}\"\n")
endforeach()
run(${CXX} -fsyntax-only -Wall -Wextra -Werror ${all_headers} ${pc_cflags})

set(speak_configure ${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/speak -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${speak_configure} -B ${WORK_DIR}/speak)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/speak)
set(speak ${WORK_DIR}/speak/speak)
run(readelf -d ${speak} OUTPUT_VARIABLE dynamic)
if(NOT dynamic MATCHES "NEEDED[^\n]*libaudiobufplayer\\.so\\.")
  message(FATAL_ERROR "speak does not use the shared library:\n${dynamic}")
endif()
run(${speak} null OUTPUT_VARIABLE printed)
if(NOT printed STREQUAL "")
  message(FATAL_ERROR "speak printed while its sentences ended normally:\n${printed}")
endif()

run(${speak_configure} -B ${WORK_DIR}/speak-static -DSPEAK_STATIC=ON)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/speak-static)

run(${CXX} ${flags} ${SOURCE_DIR}/examples/speak/speak.cpp -o ${WORK_DIR}/speak-pkg-config ${pc_cflags} ${pc_libs})
