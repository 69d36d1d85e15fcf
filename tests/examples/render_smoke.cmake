# Runs the renderer on a small built-in scene at a small size, checks that it
# wrote a valid PNG of that size whose pixels are not all the same, and that
# one thread draws the same image as two.
#   cmake -DRENDER=... -DCHECK=... -DOUTPUT=... -P render_smoke.cmake
foreach(threads 2 1)
  execute_process(COMMAND ${RENDER} --size 160x100 --triangles 30000 --threads ${threads}
                          --output ${OUTPUT}.${threads}.png
                  RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "the renderer failed with ${threads} threads: ${status}")
  endif()
endforeach()
execute_process(COMMAND ${CHECK} ${OUTPUT}.2.png 160 100 RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the image is not right: ${status}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUTPUT}.1.png ${OUTPUT}.2.png
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "one thread and two threads drew different images")
endif()
