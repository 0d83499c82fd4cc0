# Installs the built library into a scratch prefix, then builds and runs a
# small C program against it twice: through find_package(zor CONFIG) and
# through pkg-config.
set(prefix ${BUILD_DIR}/install-check/prefix)
set(work ${BUILD_DIR}/install-check/consumer)
file(REMOVE_RECURSE ${BUILD_DIR}/install-check)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# find_package
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install -B ${work} -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${C_COMPILER})
run(${CMAKE_COMMAND} --build ${work})
run(${work}/consumer)

# pkg-config
file(GLOB pcdir LIST_DIRECTORIES true ${prefix}/lib*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
# A static libzor brings its private dependencies only with --static.
if(STATIC)
  set(pc_static --static)
endif()
execute_process(COMMAND pkg-config ${pc_static} --cflags --libs zor OUTPUT_VARIABLE flags RESULT_VARIABLE rc
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not find zor in ${pcdir}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
get_filename_component(libdir ${pcdir} DIRECTORY)
run(${C_COMPILER} -std=c11 -Wall -Werror ${SOURCE_DIR}/tests/install/consumer.c ${flags}
    -Wl,-rpath,${libdir} -o ${work}/consumer-pc)
run(${work}/consumer-pc)
