# Fails unless LIBRARY exports every name in SYMBOLS as a defined, unmangled symbol.
# Usage: cmake -DLIBRARY=lib.so -DNM=nm "-DSYMBOLS=a;b" -P check_exports.cmake
if(NOT NM)
  set(NM nm)
endif()
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE exported RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()
foreach(symbol ${SYMBOLS})
  # One line per symbol: address, type letter, name; a C++ name would be mangled.
  if(NOT exported MATCHES "(^|\n)[0-9a-fA-F]+ [A-Za-z] ${symbol}(\n|$)")
    message(FATAL_ERROR "${LIBRARY} does not export ${symbol} with C linkage")
  endif()
endforeach()
message(STATUS "${LIBRARY} exports ${SYMBOLS}")
