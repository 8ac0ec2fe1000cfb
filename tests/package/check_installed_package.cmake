# Installs the build into a scratch prefix and moves the installed tree
# elsewhere, as a user copying it or a package manager would; then uses it as
# programs do: a C++ consumer through find_package(tarnel64), a C consumer
# built with the flags of pkg-config, and the installed analyser run from its
# folder with nothing added to the loader's search path.
#
#   cmake -DBUILD_DIR=<build> -DWORK_DIR=<scratch> -DCONSUMER_DIR=<consumer> -DPKG_CONSUMER=<main.c>
#         -DC_COMPILER=<cc> -DPKG_CONFIG=<pkg-config> -DLIBDIR=<lib> -DVERSION=<x.y.z> -DANALYSER=<ON|OFF>
#         -P check_installed_package.cmake

function(run what)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "OUTPUT" "COMMAND")
  execute_process(COMMAND ${arg_COMMAND} RESULT_VARIABLE failed OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(failed)
    message(FATAL_ERROR "${what} failed (${failed}):\n${output}${errors}")
  endif()
  if(arg_OUTPUT)
    string(STRIP "${output}" output)
    set(${arg_OUTPUT} "${output}" PARENT_SCOPE)
  endif()
endfunction()

set(installed ${WORK_DIR}/installed)
set(prefix ${WORK_DIR}/moved)
file(REMOVE_RECURSE ${WORK_DIR})
run("installing the build" COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${installed})
file(RENAME ${installed} ${prefix})
set(library_path LD_LIBRARY_PATH=${prefix}/${LIBDIR})

# The CMake package, its version file included.
run("find_package(tarnel64 ${VERSION} EXACT) on the moved prefix"
    COMMAND ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer -DCMAKE_PREFIX_PATH=${prefix}
            -DEXPECTED_VERSION=${VERSION})
run("building against the installed package" COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run("the consumer of the installed package" COMMAND ${CMAKE_COMMAND} -E env ${library_path} ${WORK_DIR}/consumer/consumer)

# pkg-config, with nothing but the moved tree's pkg-config folder to search.
set(pc_env ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH= PKG_CONFIG_LIBDIR=${prefix}/${LIBDIR}/pkgconfig)
run("pkg-config --modversion tarnel64" COMMAND ${pc_env} ${PKG_CONFIG} --modversion tarnel64 OUTPUT pc_version)
if(NOT pc_version STREQUAL VERSION)
  message(FATAL_ERROR "pkg-config gives version '${pc_version}', the build is ${VERSION}")
endif()
run("pkg-config --cflags --libs tarnel64" COMMAND ${pc_env} ${PKG_CONFIG} --cflags --libs tarnel64 OUTPUT pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run("compiling a C program with the flags of pkg-config (${pc_flags})"
    COMMAND ${C_COMPILER} ${PKG_CONSUMER} ${pc_flags} -o ${WORK_DIR}/pkgconfig-consumer)
run("the program built with pkg-config" COMMAND ${CMAKE_COMMAND} -E env ${library_path} ${WORK_DIR}/pkgconfig-consumer)

# The analyser finds the library from its own place.
if(ANALYSER)
  set(analyser ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${prefix}/bin/tarnel-analyse)
  run("the installed analyser's --version" COMMAND ${analyser} --version OUTPUT analyser_version)
  if(NOT analyser_version STREQUAL "tarnel-analyse ${VERSION} (library ${VERSION})")
    message(FATAL_ERROR "tarnel-analyse --version prints '${analyser_version}'; the build is ${VERSION}")
  endif()
  run("the installed analyser on a synthetic recording" COMMAND ${analyser} --duration 1 --backend cpu)
endif()
