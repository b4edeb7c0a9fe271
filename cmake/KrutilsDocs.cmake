# The API reference: Doxygen over the public headers into <build dir>/docs/html. The target
# "docs" builds it (./setup.sh docs), and so does the test "docs", which fails on any warning.

find_program(KRUTILS_DOXYGEN doxygen)
if(NOT KRUTILS_DOXYGEN)
    set(KRUTILS_DOXYGEN doxygen) # the target and the test then say that it is not found
endif()
set(KRUTILS_DOCS_OUTPUT_DIR ${PROJECT_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${KRUTILS_DOCS_OUTPUT_DIR}/Doxyfile @ONLY)
add_custom_target(docs
    COMMAND ${KRUTILS_DOXYGEN} ${KRUTILS_DOCS_OUTPUT_DIR}/Doxyfile
    COMMENT "API reference: ${KRUTILS_DOCS_OUTPUT_DIR}/html/index.html"
    VERBATIM)
