# Script mode: install into a scratch prefix; check that exactly the public
# headers are there and that together they compile against that prefix
# alone; then build and run the consumer through find_package(WzScanDB) and
# through pkg-config. The consumer must write nothing to standard error: by
# default the library's log goes nowhere.
file(REMOVE_RECURSE ${WORK_DIR})
set(PREFIX ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
  set(LAST_ERROR "${err}" PARENT_SCOPE)
endfunction()

function(run_consumer program how)
  file(MAKE_DIRECTORY ${WORK_DIR}/db-${how})
  run(${program} ${WORK_DIR}/db-${how})
  if(NOT LAST_OUTPUT MATCHES "0x[0-9A-F]+\n.*found /srv/data/file.txt")
    message(FATAL_ERROR "consumer (${how}) printed: ${LAST_OUTPUT}")
  endif()
  if(NOT LAST_ERROR STREQUAL "")
    message(FATAL_ERROR "consumer (${how}) wrote to standard error: ${LAST_ERROR}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

# 1. The installed headers are the public ones, and compile on their own.
set(INCLUDE_DIR ${PREFIX}/include/wzscandb)
file(GLOB_RECURSE installed RELATIVE ${INCLUDE_DIR} ${PREFIX}/include/*)
file(READ ${BUILD_DIR}/public-headers.txt expected)
list(SORT installed)
list(SORT expected)
if(NOT installed STREQUAL expected)
  message(FATAL_ERROR "installed headers:\n${installed}\nexpected:\n${expected}")
endif()
set(all_headers "")
foreach(header ${installed})
  string(APPEND all_headers "#include \"${header}\"\n")
endforeach()
file(WRITE ${WORK_DIR}/all-headers.cpp "${all_headers}int main() { return 0; }\n")
separate_arguments(EXTRA_FLAGS UNIX_COMMAND "${CXX_FLAGS}")
run(${CXX} -std=c++17 ${EXTRA_FLAGS} -fsyntax-only -I${INCLUDE_DIR} ${WORK_DIR}/all-headers.cpp)

# 2. find_package(WzScanDB) and WzScanDB::WzScanDB
# The consumer is built with the flags of the build under test, so that a
# sanitizer build links its runtime into the consumer as well.
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-build -G Ninja
    -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run_consumer(${WORK_DIR}/cmake-build/consumer cmake)

# 3. pkg-config
file(GLOB PC_FILE ${PREFIX}/lib*/pkgconfig/wzscandb.pc ${PREFIX}/lib/*/pkgconfig/wzscandb.pc)
if(NOT PC_FILE)
  message(FATAL_ERROR "wzscandb.pc not installed under ${PREFIX}")
endif()
list(GET PC_FILE 0 PC_FILE)
get_filename_component(PC_DIR ${PC_FILE} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${PC_DIR})
run(pkg-config --cflags --libs wzscandb)
string(STRIP "${LAST_OUTPUT}" PC_FLAGS)
separate_arguments(PC_FLAGS UNIX_COMMAND "${PC_FLAGS}")
get_filename_component(LIB_DIR ${PC_DIR} DIRECTORY)
separate_arguments(EXTRA_FLAGS UNIX_COMMAND "${CXX_FLAGS} ${LINK_FLAGS}")
run(${CXX} -std=c++17 ${EXTRA_FLAGS} ${CONSUMER_DIR}/main.cpp ${PC_FLAGS} -Wl,-rpath,${LIB_DIR}
    -o ${WORK_DIR}/consumer-pc)
run_consumer(${WORK_DIR}/consumer-pc pkg-config)
