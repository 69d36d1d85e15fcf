# Runs the generator into the build tree and fails when its output differs
# from the committed file.
execute_process(COMMAND ${PYTHON} ${GENERATOR} ${OUTPUT} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "generator failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUTPUT} ${COMMITTED} RESULT_VARIABLE diff)
if(NOT diff EQUAL 0)
  message(FATAL_ERROR "${COMMITTED} is not what ${GENERATOR} writes; regenerate it")
endif()
