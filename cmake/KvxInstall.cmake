# Public headers, packages, installation.
#
# Inside the tree an include names its layer ("xml/xmlelement.h"). Users get all headers side by side in one folder,
# tallowin/, with includes to match. The folder is laid out in the build tree first, so that examples and tests use the
# headers exactly as they install.

set(KVX_PUBLIC_HEADERS
  api/include/tallowin/codes.h
  api/include/tallowin/export.h
  api/include/tallowin/tallowin.h
  api/include/tallowin/version.h
  foundation/tbexception.h
  foundation/tbmap.h
  foundation/tbmultimap.h
  foundation/tbobject.h
  foundation/tbptr.h
  foundation/tbrbtree.h
  foundation/tbstring.h
  foundation/tbstringstream.h
  foundation/tbstrptr.h
  foundation/tbvector.h
  xml/xmlelement.h
  xml/xmlparser.h
  xml/xmlquery.h
  core/icct.h
  core/kvxbase.h
  core/kvxctx.h
  net/kvxhttp.h
  net/kvxurl.h
  api/cConfigurationSetup.h
  api/cMessageFactory.h
  api/cMessageObject.h
  api/kvxhandle.h
)
set(KVX_STAGED_INCLUDES "${PROJECT_BINARY_DIR}/include")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${KVX_PUBLIC_HEADERS})
foreach(header IN LISTS KVX_PUBLIC_HEADERS)
  get_filename_component(name "${header}" NAME)
  file(READ "${header}" text)
  string(REGEX REPLACE "#include \"(foundation|xml|core|net|api|tallowin)/([^\"]+)\"" "#include \"\\2\"" text "${text}")
  file(CONFIGURE OUTPUT "${KVX_STAGED_INCLUDES}/tallowin/${name}" CONTENT "${text}" @ONLY)
endforeach()

install(TARGETS tallowin tallowin_static EXPORT tallowinTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY "${KVX_STAGED_INCLUDES}/tallowin" DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

include(CMakePackageConfigHelpers)
set(KVX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tallowin)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/tallowinConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
configure_package_config_file(cmake/tallowinConfig.cmake.in "${PROJECT_BINARY_DIR}/tallowinConfig.cmake"
                              INSTALL_DESTINATION ${KVX_PACKAGE_DIR})
install(FILES "${PROJECT_BINARY_DIR}/tallowinConfig.cmake" "${PROJECT_BINARY_DIR}/tallowinConfigVersion.cmake"
        DESTINATION ${KVX_PACKAGE_DIR})
install(EXPORT tallowinTargets NAMESPACE tallowin:: DESTINATION ${KVX_PACKAGE_DIR})

# The prefix is told relative to the file, because `cmake --install --prefix` may choose another one.
file(RELATIVE_PATH KVX_PREFIX_FROM_PKGCONFIG "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KVX_PREFIX_FROM_PKGCONFIG "${KVX_PREFIX_FROM_PKGCONFIG}")
configure_file(packaging/tallowin.pc.in "${PROJECT_BINARY_DIR}/tallowin.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tallowin.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
