# Public headers, packages, installation. Included last, because it installs whatever was built.
#
# `cmake --install BUILD --component NAME` installs one part, without --component all of them:
#
#   lib      what programs load: libtallowin.so.1
#   dev      what programs are built with: headers, the archive, package config, pkg-config
#   ledger   the order ledger: libtallowin-ledger.so.1
#   ledger-dev  what programs over the ledger are built with: headers, package config, pkg-config
#   java     tallowin.jar, its sources and reference, and its POM, in the layout of a Maven repository
#   tools    the command line
#   sandbox  the sandbox, and its unit for systemd's user manager
#   doc      pages and examples
#
# Nothing installed holds the prefix, so the tree can be installed with another one, or moved as a whole.
#
# include/tallowin/ is what users get: the C headers, and links to the headers of the layers that make up the C++ face.
# These include each other by the names that users have ("tallowin/xmlelement.h"), so they are installed as they are.

file(GLOB public_headers RELATIVE "${PROJECT_SOURCE_DIR}" CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/tallowin/*.h"
     "${PROJECT_SOURCE_DIR}/include/tallowin/*.hpp")
set(KVX_PUBLIC_HEADERS "")
set(KVX_LEDGER_HEADERS "")
foreach(header IN LISTS public_headers)
  file(REAL_PATH "${PROJECT_SOURCE_DIR}/${header}" path)
  if(header MATCHES "/ledger\\.")
    list(APPEND KVX_LEDGER_HEADERS "${path}")
  else()
    list(APPEND KVX_PUBLIC_HEADERS "${path}")
  endif()
endforeach()

# Two export sets: only programs that link the archive need the development packages of its dependencies.
install(TARGETS tallowin EXPORT tallowinTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib NAMELINK_COMPONENT dev)
install(TARGETS tallowin_static EXPORT tallowinStaticTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(FILES ${KVX_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tallowin COMPONENT dev)

include(CMakePackageConfigHelpers)
set(KVX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tallowin)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/tallowinConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
configure_package_config_file(cmake/tallowinConfig.cmake.in "${PROJECT_BINARY_DIR}/tallowinConfig.cmake"
                              INSTALL_DESTINATION ${KVX_PACKAGE_DIR})
install(FILES "${PROJECT_BINARY_DIR}/tallowinConfig.cmake" "${PROJECT_BINARY_DIR}/tallowinConfigVersion.cmake"
        DESTINATION ${KVX_PACKAGE_DIR} COMPONENT dev)
install(EXPORT tallowinTargets NAMESPACE tallowin:: DESTINATION ${KVX_PACKAGE_DIR} COMPONENT dev)
install(EXPORT tallowinStaticTargets NAMESPACE tallowin:: DESTINATION ${KVX_PACKAGE_DIR} COMPONENT dev)

# The prefix is written relative to the file, because `cmake --install --prefix` may choose another one.
file(RELATIVE_PATH KVX_PREFIX_FROM_PKGCONFIG "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KVX_PREFIX_FROM_PKGCONFIG "${KVX_PREFIX_FROM_PKGCONFIG}")
configure_file(packaging/tallowin.pc.in "${PROJECT_BINARY_DIR}/tallowin.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tallowin.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The ledger loads the library that is installed with it.
if(TARGET tallowin_ledger)
  set_target_properties(tallowin_ledger PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS tallowin_ledger EXPORT tallowinLedgerTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ledger NAMELINK_COMPONENT ledger-dev)
  install(FILES ${KVX_LEDGER_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tallowin COMPONENT ledger-dev)
  install(EXPORT tallowinLedgerTargets NAMESPACE tallowin:: DESTINATION ${KVX_PACKAGE_DIR} COMPONENT ledger-dev)
  configure_file(packaging/tallowin-ledger.pc.in "${PROJECT_BINARY_DIR}/tallowin-ledger.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/tallowin-ledger.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ledger-dev)
endif()

# The command line loads the library that is installed with it, wherever that is.
if(TARGET tallowin_tool)
  file(RELATIVE_PATH KVX_LIBRARY_FROM_BIN "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(tallowin_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${KVX_LIBRARY_FROM_BIN}")
  install(TARGETS tallowin_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

if(TARGET tallowin-sandbox)
  install(TARGETS tallowin-sandbox RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT sandbox)
  install(FILES packaging/tallowin-sandbox.service DESTINATION lib/systemd/user COMPONENT sandbox)
  install(FILES packaging/tallowin-sandbox.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT sandbox)
endif()

install(FILES README.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc FILES_MATCHING PATTERN "*.md")
install(DIRECTORY examples/c examples/cpp examples/java DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT doc)
# The look of the shop in Java.
install(FILES examples/common/shop/candle.svg examples/common/shop/flame.svg examples/common/shop/shop.css
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/common/shop COMPONENT doc)
