# Installs a build, moves the installed tree, and lets applications in C and C++ be built from it and run.
# Given: BUILD_DIR, SOURCE_DIR, WORK_DIR (emptied), MODEL_WRITER, CC, CXX, CONFIG, PKG_CONFIG (may be empty).

function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WORK_DIR}
                  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed (${status}): ${ARGN}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(consumer ${SOURCE_DIR}/tests/consumer)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(ENV{DESTDIR} "")
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --config "${CONFIG}" --strip --prefix ${WORK_DIR}/first)
set(prefix ${WORK_DIR}/moved/here)
file(MAKE_DIRECTORY ${WORK_DIR}/moved)
file(RENAME ${WORK_DIR}/first ${prefix})

# A path into the build or the checkout would still work here, and nowhere else. Debug information has them, so it is
# stripped.
execute_process(COMMAND grep -rlF -e ${WORK_DIR} -e ${BUILD_DIR} -e ${SOURCE_DIR} ${prefix}
                RESULT_VARIABLE status OUTPUT_VARIABLE output)
if(NOT status EQUAL 1)  # none found
  message(FATAL_ERROR "paths of this machine are in (${status}): ${output}")
endif()

set(model ${WORK_DIR}/double.cvm)
run(${MODEL_WRITER} ${model})

run(${CMAKE_COMMAND} -S ${consumer} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=${CONFIG})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer_c ${model})
run(${WORK_DIR}/build/consumer_cpp ${model})

if(EXISTS ${prefix}/bin/corvalith)
  run(${prefix}/bin/corvalith inspect ${model})
endif()

if(NOT PKG_CONFIG)
  message(STATUS "pkg-config is not there: not tested")
  return()
endif()
file(GLOB_RECURSE pc ${prefix}/corvalith.pc)
cmake_path(GET pc PARENT_PATH pc_dir)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(${PKG_CONFIG} --cflags --libs corvalith)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${PKG_CONFIG} --variable=libdir corvalith)
string(STRIP "${output}" libdir)
run(${CC} -std=c99 ${consumer}/consumer.c ${flags} -o ${WORK_DIR}/pc_c)
run(${CXX} -std=c++17 ${consumer}/consumer.cpp ${consumer}/second_user.cpp ${flags} -o ${WORK_DIR}/pc_cpp)
set(ENV{LD_LIBRARY_PATH} ${libdir})
run(${WORK_DIR}/pc_c ${model})
run(${WORK_DIR}/pc_cpp ${model})
