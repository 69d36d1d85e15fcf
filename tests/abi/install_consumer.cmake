# Installs the build into a scratch prefix, then builds and runs a consumer
# project against it through find_package(qelr) and through pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)

find_program(PKG_CONFIG pkg-config)
find_program(CC_PROGRAM cc)
if(PKG_CONFIG AND CC_PROGRAM)
  file(GLOB_RECURSE pc_file ${prefix}/*/qelr.pc)
  get_filename_component(pc_dir "${pc_file}" DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} ${pc_dir})
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs qelr OUTPUT_VARIABLE flags
                  RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not find qelr")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  string(REGEX MATCH "-L[^ ;]+" libdir_flag "${flags}")
  string(SUBSTRING "${libdir_flag}" 2 -1 libdir)
  run(${CC_PROGRAM} -std=c99 -Wall -Werror ${CONSUMER_SOURCE}/main.c ${flags}
      -Wl,-rpath,${libdir} -o ${WORK_DIR}/consumer_pc)
  run(${WORK_DIR}/consumer_pc)
endif()
