# Runs the renderer on a small built-in scene at a small size, then checks that it
# wrote a valid PNG of that size whose pixels are not all the same.
#   cmake -DRENDER=... -DCHECK=... -DOUTPUT=... -P render_smoke.cmake
execute_process(COMMAND ${RENDER} --size 160x100 --triangles 30000 --output ${OUTPUT}
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the renderer failed: ${status}")
endif()
execute_process(COMMAND ${CHECK} ${OUTPUT} 160 100 RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the image is not right: ${status}")
endif()
