# Script mode: install, then build and run the consumer both ways.
file(REMOVE_RECURSE ${WORK_DIR})
set(PREFIX ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

# 1. find_package(WzScanDB) and WzScanDB::WzScanDB
# The consumer is built with the flags of the build under test, so that a
# sanitizer build links its runtime into the consumer as well.
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-build -G Ninja
    -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
if(NOT LAST_OUTPUT MATCHES "0x[0-9A-F]+")
  message(FATAL_ERROR "consumer (cmake) printed no GUID: ${LAST_OUTPUT}")
endif()

# 2. pkg-config
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
run(${WORK_DIR}/consumer-pc)
if(NOT LAST_OUTPUT MATCHES "0x[0-9A-F]+")
  message(FATAL_ERROR "consumer (pkg-config) printed no GUID: ${LAST_OUTPUT}")
endif()
