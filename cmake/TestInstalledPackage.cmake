# The installed package as a speech client meets it: installs the build into a fresh prefix, then
# builds examples/speak against it twice, with find_package(AudioBufPlayer) and with pkg-config.
# Run by ctest (see tests/CMakeLists.txt):
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DCXX=... [-DSANITIZE=...] -P TestInstalledPackage.cmake
foreach(required BUILD_DIR SOURCE_DIR WORK_DIR CXX)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "TestInstalledPackage.cmake needs -D${required}=...")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}")
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

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/speak -B ${WORK_DIR}/speak -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/speak)

file(GLOB pc_dirs ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pc_dirs}")
execute_process(COMMAND pkg-config --cflags --libs audiobufplayer RESULT_VARIABLE result OUTPUT_VARIABLE pc_flags
  ERROR_VARIABLE pc_error OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config cannot use the installed audiobufplayer.pc: ${pc_error}")
endif()
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run(${CXX} -std=c++20 ${flags} ${SOURCE_DIR}/examples/speak/speak.cpp -o ${WORK_DIR}/speak-pkg-config ${pc_flags})
