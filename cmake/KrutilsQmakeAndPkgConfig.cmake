# Files for clients that do not build with CMake: a Qt module for qmake (QT += krutils, with the
# install prefix on QMAKEPATH) and a pkg-config file. Like the CMake package they find the
# headers and libraries relative to themselves, so that the installed tree can be moved.

set(KRUTILS_QMAKE_MODULE_DIR mkspecs/modules)
set(KRUTILS_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Where the installed directory `to` lies as seen from the installed file's directory `from`
# (both relative to the prefix), written from `base`, the file's own way of naming its
# directory. An absolute `to` stays as it is: it does not move with the prefix.
function(krutils_install_path out base from to)
    if(IS_ABSOLUTE "${to}")
        set(${out} "${to}" PARENT_SCOPE)
    else()
        file(RELATIVE_PATH path "/prefix/${from}" "/prefix/${to}")
        string(REGEX REPLACE "/$" "" path "${path}")
        set(${out} "${base}/${path}" PARENT_SCOPE)
    endif()
endfunction()

# qmake: one module per library, krutils depending on krdefine and on Qt's modules. LZ4 and
# POSIX threads, which the public headers expose, reach the link line through the module's
# "uses" and the QMAKE_LIBS_<USE> variables defined beside it.
krutils_install_path(KRUTILS_QMAKE_INCLUDEDIR "$$PWD"
    ${KRUTILS_QMAKE_MODULE_DIR} ${CMAKE_INSTALL_INCLUDEDIR})
krutils_install_path(KRUTILS_QMAKE_LIBDIR "$$PWD" ${KRUTILS_QMAKE_MODULE_DIR} ${CMAKE_INSTALL_LIBDIR})
set(lz4_flags ${LZ4_LDFLAGS}) # as pkg-config gave them, less the linker's own directories
foreach(dir ${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES})
    list(REMOVE_ITEM lz4_flags -L${dir})
endforeach()
list(JOIN lz4_flags " " KRUTILS_QMAKE_LZ4_LIBS)
list(JOIN LZ4_INCLUDE_DIRS " " KRUTILS_QMAKE_LZ4_INCDIR)
foreach(module krdefine krutils)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/qt_lib_${module}.pri.in
                   ${PROJECT_BINARY_DIR}/${KRUTILS_QMAKE_MODULE_DIR}/qt_lib_${module}.pri @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${KRUTILS_QMAKE_MODULE_DIR}/qt_lib_${module}.pri
            DESTINATION ${KRUTILS_QMAKE_MODULE_DIR})
endforeach()

# pkg-config: one file for both libraries.
krutils_install_path(KRUTILS_PKGCONFIG_PREFIX "\${pcfiledir}" ${KRUTILS_PKGCONFIG_DIR} .)
krutils_install_path(KRUTILS_PKGCONFIG_LIBDIR "\${pcfiledir}"
    ${KRUTILS_PKGCONFIG_DIR} ${CMAKE_INSTALL_LIBDIR})
krutils_install_path(KRUTILS_PKGCONFIG_INCLUDEDIR "\${pcfiledir}"
    ${KRUTILS_PKGCONFIG_DIR} ${CMAKE_INSTALL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/krutils.pc.in ${PROJECT_BINARY_DIR}/krutils.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/krutils.pc DESTINATION ${KRUTILS_PKGCONFIG_DIR})
