# Installs a build, moves the installed tree, and lets applications in C and C++ be built from it and run.
# Given: BUILD_DIR, SOURCE_DIR, WORK_DIR (emptied), MODEL_WRITER, CC, CXX, CONFIG, PKG_CONFIG (may be empty).

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed (${status}): ${ARGN}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(ENV{DESTDIR} "")
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --config "${CONFIG}" --prefix ${WORK_DIR}/first)
set(prefix ${WORK_DIR}/moved/here)
file(MAKE_DIRECTORY ${WORK_DIR}/moved)
file(RENAME ${WORK_DIR}/first ${prefix})

# A path into the build or the checkout would still work here, and nowhere else.
file(GLOB_RECURSE texts ${prefix}/*.cmake ${prefix}/*.pc)
foreach(text ${texts})
  file(READ ${text} content)
  foreach(place ${WORK_DIR} ${BUILD_DIR} ${SOURCE_DIR})
    string(FIND "${content}" ${place} at)
    if(NOT at EQUAL -1)
      message(FATAL_ERROR "${text} names ${place}")
    endif()
  endforeach()
endforeach()

set(model ${WORK_DIR}/double.cvm)
run(${MODEL_WRITER} ${model})

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=${CONFIG})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer_c ${model})
run(${WORK_DIR}/build/consumer_cpp ${model})

if(EXISTS ${prefix}/bin/corvalith)
  run(${prefix}/bin/corvalith inspect ${model})
endif()

if(PKG_CONFIG)
  file(GLOB_RECURSE pc ${prefix}/corvalith.pc)
  cmake_path(GET pc PARENT_PATH pc_dir)
  set(ENV{PKG_CONFIG_PATH} ${pc_dir})
  run(${PKG_CONFIG} --cflags --libs corvalith)
  separate_arguments(flags UNIX_COMMAND "${output}")
  run(${PKG_CONFIG} --variable=libdir corvalith)
  string(STRIP "${output}" libdir)
  run(${CC} -std=c99 ${SOURCE_DIR}/tests/consumer/consumer.c ${flags} -o ${WORK_DIR}/consumer_pc)
  run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir} ${WORK_DIR}/consumer_pc ${model})
endif()
