# The shared library exports exactly the interface of its public headers:
# every function and variable they declare with external linkage, and
# nothing else (no internal helper, no C++ symbol).
#
# Declared names come from the compiler, not from the ZOR_API marker: GCC's
# -aux-info lists every function declaration with its file and storage
# class; variables are the headers' `extern` declarations without a
# parameter list. Names reserved to the C library (leading underscore, such
# as the __assert_fail that zor_utils.h declares as glibc does) are not ours.
#
# cmake -DLIB=libzor.so -DNM=nm -DC_COMPILER=gcc -DSOURCE_DIR=... -DWORK_DIR=...
#       -DHEADERS=zor_str.h,zor_iter.h,... -P check_exports.cmake
file(MAKE_DIRECTORY ${WORK_DIR})
string(REPLACE "," ";" HEADERS "${HEADERS}")
set(all_headers ${WORK_DIR}/all_headers.c)
file(WRITE ${all_headers} "")
foreach(header ${HEADERS})
  file(APPEND ${all_headers} "#include \"${header}\"\n")
endforeach()

execute_process(
  COMMAND ${C_COMPILER} -std=c11 -fsyntax-only -I${SOURCE_DIR}/utils
          -aux-info ${WORK_DIR}/aux_info.txt ${all_headers}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "compiling the public headers failed")
endif()

set(declared "")
file(STRINGS ${WORK_DIR}/aux_info.txt lines)
foreach(line ${lines})
  # /* /path/utils/zor_iter.h:75:NC */ extern void zor_iter_init (...);
  if(line MATCHES "^/\\* ${SOURCE_DIR}/utils/[^ ]*:[0-9]+:N[CF] \\*/ extern [^(]*[ *]([A-Za-z_][A-Za-z0-9_]*) \\(")
    list(APPEND declared ${CMAKE_MATCH_1})
  endif()
endforeach()
foreach(header ${HEADERS})
  file(STRINGS ${SOURCE_DIR}/utils/${header} lines REGEX "extern ")
  foreach(line ${lines})
    if(line MATCHES "^(ZOR_API )?extern [^();]*[ *]([A-Za-z_][A-Za-z0-9_]*)(\\[[^]]*\\])? *;")
      list(APPEND declared ${CMAKE_MATCH_2})
    endif()
  endforeach()
endforeach()
list(FILTER declared EXCLUDE REGEX "^_")
list(REMOVE_DUPLICATES declared)
list(SORT declared)
list(LENGTH declared declared_count)
if(declared_count LESS 100)
  message(FATAL_ERROR "only ${declared_count} declarations found in the public headers")
endif()

execute_process(COMMAND ${NM} -D --defined-only ${LIB}
                OUTPUT_VARIABLE nm_output RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIB}")
endif()
string(REGEX MATCHALL "[^\n]+" nm_lines "${nm_output}")
set(exported "")
foreach(line ${nm_lines})
  if(line MATCHES " [A-Za-z] ([^ ]+)$")
    list(APPEND exported ${CMAKE_MATCH_1})
  endif()
endforeach()
list(SORT exported)

set(leaked ${exported})
list(REMOVE_ITEM leaked ${declared})
set(missing ${declared})
list(REMOVE_ITEM missing ${exported})
if(leaked OR missing)
  message(FATAL_ERROR "exported but not declared in a public header: ${leaked}\n"
                      "declared in a public header but not exported: ${missing}")
endif()
message(STATUS "${declared_count} names declared and exported")
