# Checks that the shared library exports every function of the C interface,
# and its reporter variable, under the plain C name.
#
#   cmake -DNM=<nm> -DLIBRARY=<libtarnel64.so> -P check_exports.cmake

if(NOT NM OR NOT LIBRARY)
  message(FATAL_ERROR "usage: cmake -DNM=<nm> -DLIBRARY=<shared library> -P check_exports.cmake")
endif()

set(functions
  powerModule_create powerModule_destroy registerErrorReporter
  powerModule_createWithBackend powerModule_createCpuWithMemoryCapacity
  powerModule_getLastErrorMessage powerModule_getThreadLastErrorMessage
  setClarkeOrParkCurrentsEnabled getClarkeOrParkCurrentsEnabled
  setClarkeOrParkVoltagesEnabled getClarkeOrParkVoltagesEnabled
  setClarkeOrParkWaveformsEnabled getClarkeOrParkWaveformsEnabled
  setClarkeTransformEnabled getClarkeTransformEnabled
  setCurrentEnabled getCurrentEnabled
  setDipSwellEnabled getDipSwellEnabled
  setFullFftEnabled getFullFftEnabled
  setFundamentalPeriodValuesEnabled getFundamentalPeriodValuesEnabled
  setInterHarmonicsEnabled getInterHarmonicsEnabled
  setLineToLineResultsEnabled getLineToLineResultsEnabled
  setMechanicalAngleUsed getMechanicalAngleUsed
  setParkTransformEnabled getParkTransformEnabled
  setPeriodSymmetricalComponentsEnabled getPeriodSymmetricalComponentsEnabled
  setPeriodValuesEnabled getPeriodValuesEnabled
  setRvcEnabled getRvcEnabled
  setSymmetricalComponentsEnabled getSymmetricalComponentsEnabled
  setThdEnabled getThdEnabled
  setWaveformsEnabled getWaveformsEnabled
  setDipHysteresis getDipHysteresis
  setDipThreshold getDipThreshold
  setMechAngleOffset getMechAngleOffset
  setNominalLineToLineVoltage getNominalLineToLineVoltage
  setNominalVoltage getNominalVoltage
  setSwellHysteresis getSwellHysteresis
  setSwellThreshold getSwellThreshold
  setHighestRequestedHarmonic getHighestRequestedHarmonic
  setPolePairs getPolePairs
  setThdHighestHarmonic getThdHighestHarmonic
  setGridConfigType
  setHalfPeriodValuesCount getHalfPeriodValuesCount
  setPeriodValuesOverlapInPercent getPeriodValuesOverlapInPercent
  setPeriodCount
  getCurrentsCount getPhasesCount getVoltagesCount
  setRvcSteadyStateLengthInNumberOfPeriodValues getRvcSteadyStateLengthInNumberOfPeriodValues
  setRvcThresholdInPercentOfAverage getRvcThresholdInPercentOfAverage
  setRvcThresholdHysteresisInPercentOfThreshold getRvcThresholdHysteresisInPercentOfThreshold
  setBufferLength setSampleRate setStaticFrequency setVariableFrequency syncCuda
  beginUpdate endUpdate reset writeSamples skipSamples
  scheduleForCalculation scheduleForPeriodCalculation scheduleForPeriodCalculationFromZeroCrossing
  isAnyResultReady getResults getPeriodResults
  getWaveformBufferUInput getWaveformBufferUStar getWaveformBufferUDelta getWaveformBufferI
  getWaveformBufferClarkeU getWaveformBufferClarkeI getWaveformBufferParkU getWaveformBufferParkI
  getWaveformBufferMechAngles)

list(LENGTH functions functionCount)
list(REMOVE_DUPLICATES functions)
list(LENGTH functions distinctCount)
# The 99 functions of the interface, the two extra create functions and the
# two that read the text of the last failure.
if(NOT functionCount EQUAL 103 OR NOT distinctCount EQUAL 103)
  message(FATAL_ERROR "the list of functions has ${functionCount} entries, ${distinctCount} distinct; expected 103")
endif()

execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE symbols RESULT_VARIABLE result ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${errors}")
endif()

# One "<type>:<name>" entry per symbol; nm prints "<address> <type> <name>".
set(exported "")
string(REPLACE "\n" ";" lines "${symbols}")
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-fA-F]+ ([A-Za-z]) ([^ ]+)$")
    list(APPEND exported "${CMAKE_MATCH_1}:${CMAKE_MATCH_2}")
  endif()
endforeach()

set(missing "")
foreach(name IN LISTS functions)
  list(FIND exported "T:${name}" found)
  if(found EQUAL -1)
    list(APPEND missing "function ${name}")
  endif()
endforeach()

# The reporter variable lives in initialised or zeroed data.
set(variableFound FALSE)
foreach(type B D)
  list(FIND exported "${type}:reportErrorCallbackFunction" found)
  if(NOT found EQUAL -1)
    set(variableFound TRUE)
  endif()
endforeach()
if(NOT variableFound)
  list(APPEND missing "variable reportErrorCallbackFunction")
endif()

if(missing)
  list(JOIN missing "\n  " text)
  message(FATAL_ERROR "not exported under its C name from ${LIBRARY}:\n  ${text}")
endif()
message(STATUS "all ${functionCount} functions and reportErrorCallbackFunction are exported")
