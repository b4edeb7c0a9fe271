# Installs the build into a staging prefix, moves the prefix elsewhere (the package must be
# relocatable), then builds the client three ways against it and runs each build: with CMake
# (find_package), with qmake (QT += krutils) and with make and pkg-config.
#
# Expects BUILD_DIR, CLIENT_SOURCE_DIR, WORK_DIR, GENERATOR, CXX_COMPILER, QMAKE, MAKE and
# PKGCONFIG_DIR (where krutils.pc lies below the prefix), and optionally CXX_FLAGS and
# LINKER_FLAGS (so that a sanitizer build's clients are instrumented like the library).

function(run)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "WORKING_DIRECTORY" "")
    if(NOT arg_WORKING_DIRECTORY)
        set(arg_WORKING_DIRECTORY "${WORK_DIR}")
    endif()
    execute_process(COMMAND ${arg_UNPARSED_ARGUMENTS} WORKING_DIRECTORY "${arg_WORKING_DIRECTORY}"
                    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed (${result}): ${arg_UNPARSED_ARGUMENTS}\n${output}")
    endif()
    message(STATUS "${output}")
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/staged")
file(RENAME "${WORK_DIR}/staged" "${WORK_DIR}/relocated")
set(prefix "${WORK_DIR}/relocated")

message(STATUS "CMake client")
run(${CMAKE_COMMAND} -S "${CLIENT_SOURCE_DIR}" -B "${WORK_DIR}/cmake" -G "${GENERATOR}"
    -DCMAKE_BUILD_TYPE=Release
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}"
    "-DCMAKE_PREFIX_PATH=${prefix}"
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/cmake")
run("${WORK_DIR}/cmake/krutils_client")

message(STATUS "qmake client")
file(MAKE_DIRECTORY "${WORK_DIR}/qmake")
run(${CMAKE_COMMAND} -E env "QMAKEPATH=${prefix}"
    "${QMAKE}" "${CLIENT_SOURCE_DIR}/krutils_client.pro"
    "QMAKE_CXX=${CXX_COMPILER}" "QMAKE_LINK=${CXX_COMPILER}"
    "QMAKE_CXXFLAGS+=${CXX_FLAGS}" "QMAKE_LFLAGS+=${LINKER_FLAGS}"
    WORKING_DIRECTORY "${WORK_DIR}/qmake")
run("${MAKE}" WORKING_DIRECTORY "${WORK_DIR}/qmake")
run("${WORK_DIR}/qmake/krutils_client")

message(STATUS "pkg-config client")
file(MAKE_DIRECTORY "${WORK_DIR}/pkgconfig")
run(${CMAKE_COMMAND} -E env "PKG_CONFIG_PATH=${prefix}/${PKGCONFIG_DIR}"
    "${MAKE}" -f "${CLIENT_SOURCE_DIR}/Makefile" "SRCDIR=${CLIENT_SOURCE_DIR}"
    "CXX=${CXX_COMPILER}" "CXXFLAGS=${CXX_FLAGS}" "LDFLAGS=${LINKER_FLAGS}"
    WORKING_DIRECTORY "${WORK_DIR}/pkgconfig")
run("${WORK_DIR}/pkgconfig/krutils_client")
