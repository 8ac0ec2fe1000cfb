# Fails when the shared library exports anything beyond its public API: the C
# interface (tarnel_version included) and the members of the classes and the
# functions that the public headers declare. Internal classes (the module's
# implementation, the backends, the queue items) stay hidden, whatever tests
# or tools inside the source tree use.
#
#   cmake -DNM=<nm> -DLIBRARY=<libtarnel64.so> -P check_public_symbols.cmake

if(NOT NM OR NOT LIBRARY)
  message(FATAL_ERROR "usage: cmake -DNM=<nm> -DLIBRARY=<shared library> -P check_public_symbols.cmake")
endif()

set(public_classes
  PowerModule GpuBuffer GpuBufferItems GpuException PowerConfig PowerGridConfig PowerErrorTooManyResults
  PowerSymmetricalComponents PreciseFraction RvcPhaseCalculation RvcMultiPhaseCalculation
  DipSwellPhaseCalculation DipSwellMultiPhaseCalculation ZeroCrossingDetector)
set(public_functions
  isCudaDeviceAvailable backendName cpuWorkerThreadCount setCpuWorkerThreadCount deviceErrorString cufftErrorText throwDeviceError throwCufftError CUFFT_CALL)
list(JOIN public_classes "|" classes)
list(JOIN public_functions "|" functions)
# A member of a public class (not of a class nested in it), or a public function.
set(public_cxx "^tarnel::((${classes})(<[^()]*>)?::[^:()]+(\\(.*)?|(${functions})\\(.*)$")

execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY}
  OUTPUT_VARIABLE symbols RESULT_VARIABLE result ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${errors}")
endif()

set(count 0)
set(unexpected "")
string(REPLACE "\n" ";" lines "${symbols}")
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^[0-9a-fA-F]+ ([A-Za-z]) (.+)$")
    continue()
  endif()
  set(type "${CMAKE_MATCH_1}")
  set(name "${CMAKE_MATCH_2}")
  math(EXPR count "${count} + 1")
  # Functions with C linkage (C++ functions have an argument list), and the
  # reporter variable of the C interface.
  if((type STREQUAL "T" AND name MATCHES "^[A-Za-z_][A-Za-z0-9_]*$") OR name STREQUAL "reportErrorCallbackFunction")
    continue()
  endif()
  # Run-time type data, tables and thunks of a public class count as the class.
  string(REGEX REPLACE "^(typeinfo name for |typeinfo for |vtable for |VTT for |construction vtable for .*-in-|(non-)?virtual thunk to )" "" owner "${name}")
  if(owner MATCHES "^tarnel::(${classes})(<[^()]*>)?$" OR owner MATCHES "${public_cxx}")
    continue()
  endif()
  list(APPEND unexpected "${name}")
endforeach()

if(unexpected)
  list(LENGTH unexpected unexpectedCount)
  list(JOIN unexpected "\n  " text)
  message(FATAL_ERROR "${LIBRARY} exports ${unexpectedCount} of its ${count} symbols beyond the public API:\n  ${text}")
endif()
message(STATUS "all ${count} exported symbols belong to the public API")
