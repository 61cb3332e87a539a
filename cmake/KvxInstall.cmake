# Public headers, packages, installation.
#
# include/tallowin/ is what users get: the C headers, and links to the headers of the layers that make up the C++ face.
# These include each other by the names that users have ("tallowin/xmlelement.h"), so they are installed as they are.

file(GLOB public_headers RELATIVE "${PROJECT_SOURCE_DIR}" CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/tallowin/*.h")
set(KVX_PUBLIC_HEADERS "")
foreach(header IN LISTS public_headers)
  file(REAL_PATH "${PROJECT_SOURCE_DIR}/${header}" header)
  list(APPEND KVX_PUBLIC_HEADERS "${header}")
endforeach()

# Two export sets: only programs that link the archive need the development packages of its dependencies.
install(TARGETS tallowin EXPORT tallowinTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS tallowin_static EXPORT tallowinStaticTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${KVX_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tallowin)

include(CMakePackageConfigHelpers)
set(KVX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tallowin)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/tallowinConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
configure_package_config_file(cmake/tallowinConfig.cmake.in "${PROJECT_BINARY_DIR}/tallowinConfig.cmake"
                              INSTALL_DESTINATION ${KVX_PACKAGE_DIR})
install(FILES "${PROJECT_BINARY_DIR}/tallowinConfig.cmake" "${PROJECT_BINARY_DIR}/tallowinConfigVersion.cmake"
        DESTINATION ${KVX_PACKAGE_DIR})
install(EXPORT tallowinTargets NAMESPACE tallowin:: DESTINATION ${KVX_PACKAGE_DIR})
install(EXPORT tallowinStaticTargets NAMESPACE tallowin:: DESTINATION ${KVX_PACKAGE_DIR})

# The prefix is written relative to the file, because `cmake --install --prefix` may choose another one.
file(RELATIVE_PATH KVX_PREFIX_FROM_PKGCONFIG "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KVX_PREFIX_FROM_PKGCONFIG "${KVX_PREFIX_FROM_PKGCONFIG}")
configure_file(packaging/tallowin.pc.in "${PROJECT_BINARY_DIR}/tallowin.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tallowin.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
