# Installs the build into a staging prefix, moves the prefix elsewhere (the package must be
# relocatable), then configures, builds and runs the client project against it.
#
# Expects BUILD_DIR, CLIENT_SOURCE_DIR, WORK_DIR, GENERATOR, and optionally CXX_FLAGS and
# LINKER_FLAGS (so that a sanitizer build's client is instrumented like the library).

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}")
    endif()
    message(STATUS "${output}")
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/staged")
file(RENAME "${WORK_DIR}/staged" "${WORK_DIR}/relocated")

run(${CMAKE_COMMAND} -S "${CLIENT_SOURCE_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
    -DCMAKE_BUILD_TYPE=Release
    "-DCMAKE_PREFIX_PATH=${WORK_DIR}/relocated"
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run("${WORK_DIR}/build/krutils_client")
