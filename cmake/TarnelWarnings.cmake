# Warnings for every target of the project, errors in CI.
function(tarnel_set_warnings target)
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:C>:-Wall -Wextra -Wpedantic>
    $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-Wall,-Wextra>)
  # Clang reports vectorisation hints it cannot honour (as under sanitizer
  # instrumentation); the loops are correct either way.
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wno-pass-failed>)
  if(TARNEL_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE
      $<$<COMPILE_LANGUAGE:CXX>:-Werror>
      $<$<COMPILE_LANGUAGE:C>:-Werror>
      $<$<COMPILE_LANGUAGE:CUDA>:-Werror=all-warnings -Xcompiler=-Werror>)
  endif()
  if(TARNEL_SANITIZE)
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX,C>:-fsanitize=${TARNEL_SANITIZE} -fno-omit-frame-pointer>)
    target_link_options(${target} PRIVATE -fsanitize=${TARNEL_SANITIZE})
  endif()
  # Messages name source files relative to the source tree, never by absolute path.
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX,C>:-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=>
    $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=>)
endfunction()
