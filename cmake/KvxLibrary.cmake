# The products made of the layers: libtallowin.so, libtallowin.a and the internal archive that tests link.

set(KVX_LAYERS foundation xml base net core api)
if(KVX_JAVA)
  list(APPEND KVX_LAYERS jni)
endif()
set(kvx_objects "")
set(kvx_seam_objects "")
foreach(layer IN LISTS KVX_LAYERS)
  set_target_properties(kvx_${layer}_seams PROPERTIES EXCLUDE_FROM_ALL ON)
  list(APPEND kvx_objects $<TARGET_OBJECTS:kvx_${layer}>)
  list(APPEND kvx_seam_objects $<TARGET_OBJECTS:kvx_${layer}_seams>)
endforeach()

add_library(tallowin SHARED ${kvx_objects})
set_target_properties(tallowin PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_link_libraries(tallowin PRIVATE OpenSSL::SSL OpenSSL::Crypto PkgConfig::UUID)
target_include_directories(tallowin INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set(KVX_EXPORT_LIST "${PROJECT_BINARY_DIR}/tallowin.map")
configure_file(cmake/tallowin.map.in "${KVX_EXPORT_LIST}" @ONLY)
# Never unmapped: a thread that looks up a host name may be left behind at a deadline.
target_link_options(tallowin PRIVATE "-Wl,--version-script=${KVX_EXPORT_LIST}" -Wl,--no-undefined -Wl,-z,nodelete)
set_target_properties(tallowin PROPERTIES LINK_DEPENDS "${KVX_EXPORT_LIST}")

add_library(tallowin::tallowin ALIAS tallowin)

add_library(tallowin_static STATIC ${kvx_objects})
add_library(tallowin::tallowin_static ALIAS tallowin_static)
set_target_properties(tallowin_static PROPERTIES OUTPUT_NAME tallowin)
# The C++ run-time library by name, for programs in C that the C compiler links.
target_link_libraries(tallowin_static PUBLIC OpenSSL::SSL OpenSSL::Crypto PkgConfig::UUID INTERFACE stdc++ m)
target_include_directories(tallowin_static INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                                     $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

add_library(tallowin_seams STATIC EXCLUDE_FROM_ALL ${kvx_seam_objects})
target_link_libraries(tallowin_seams PUBLIC OpenSSL::SSL OpenSSL::Crypto PkgConfig::UUID)
target_compile_definitions(tallowin_seams PUBLIC KVX_TEST_SEAMS ${KVX_WIDE_SYSTEM_TYPES})
target_include_directories(tallowin_seams PUBLIC "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/include")
