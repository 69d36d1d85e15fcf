# Code that the linker may merge between objects (weak definitions: inline
# functions and template instances) must carry its instruction set in its
# name. An AVX2 copy of, say, an inline helper outside the qelr::avx2
# namespace could otherwise be chosen by the linker for the SSE3 code as
# well. Checks every object of one variant's kernels.
string(REPLACE "|" ";" objects "${OBJECTS}")
set(strays "")
foreach(object IN LISTS objects)
  execute_process(COMMAND nm -C --defined-only ${object} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${object}")
  endif()
  string(REPLACE "\n" ";" lines "${out}")
  foreach(line IN LISTS lines)
    if(line MATCHES "^[0-9a-fA-F]+ W (.+)$" AND NOT CMAKE_MATCH_1 MATCHES "^qelr::${ISA}::")
      list(APPEND strays "${CMAKE_MATCH_1}")
    endif()
  endforeach()
endforeach()
if(strays)
  list(REMOVE_DUPLICATES strays)
  list(JOIN strays "\n  " text)
  message(FATAL_ERROR "weak code outside qelr::${ISA}:\n  ${text}")
endif()
