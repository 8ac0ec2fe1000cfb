# Decides whether the libFuzzer harnesses can be built: they need clang with
# its fuzzer runtime. Where either is missing the harnesses are skipped with a
# note and the rest of the build is unchanged. Where they can be built they
# run under the address and undefined-behaviour sanitizers, so those become
# the default sanitizers of the whole build.
set(TARNEL_FUZZING_SUPPORTED OFF)
if(TARNEL_BUILD_FUZZERS)
  include(CheckCXXSourceCompiles)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(STATUS "Fuzz harnesses skipped: they need clang (configure with CMAKE_CXX_COMPILER=clang++)")
  elseif(TARNEL_SANITIZE MATCHES "thread")
    message(STATUS "Fuzz harnesses skipped: they cannot run under the thread sanitizer")
  else()
    set(CMAKE_REQUIRED_FLAGS "-fsanitize=fuzzer")
    check_cxx_source_compiles(
      "#include <cstddef>
       #include <cstdint>
       extern \"C\" int LLVMFuzzerTestOneInput(const uint8_t*, size_t) { return 0; }"
      TARNEL_HAVE_LIBFUZZER)
    unset(CMAKE_REQUIRED_FLAGS)
    if(TARNEL_HAVE_LIBFUZZER)
      set(TARNEL_FUZZING_SUPPORTED ON)
      if(NOT TARNEL_SANITIZE)
        set(TARNEL_SANITIZE "address,undefined")
      endif()
    else()
      message(STATUS "Fuzz harnesses skipped: clang cannot link the libFuzzer runtime (install libclang-rt-dev)")
    endif()
  endif()
endif()
