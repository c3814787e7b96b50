# Installs the build into a scratch prefix, then builds the consumer outside
# the tree twice: with find_package(akudoa) and with pkg-config, and runs both.
# Inputs: BUILD_DIR, SOURCE_DIR (this folder), WORK_DIR, CXX.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
file(GLOB_RECURSE pcfile "${prefix}/*/akudoa.pc")
get_filename_component(pcdir "${pcfile}" DIRECTORY)
get_filename_component(libdir "${pcdir}" DIRECTORY)

run(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/cmake" "-DCMAKE_PREFIX_PATH=${prefix}"
    "-DCMAKE_CXX_COMPILER=${CXX}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/cmake")
run(${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${libdir}" "${WORK_DIR}/cmake/consumer")
message(STATUS "find_package: ${last_output}")

set(ENV{PKG_CONFIG_PATH} "${pcdir}")
run(pkg-config --cflags --libs akudoa)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run("${CXX}" -std=c++17 "${SOURCE_DIR}/consumer.cpp" ${flags} -o "${WORK_DIR}/consumer-pc")
run(${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${libdir}" "${WORK_DIR}/consumer-pc")
message(STATUS "pkg-config: ${last_output}")
