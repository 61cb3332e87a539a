# kvx_layer(NAME SOURCES ...): one layer of the library, compiled twice.
#
# kvx_NAME       goes into libtallowin.so and libtallowin.a.
# kvx_NAME_seams is the same code with the two seams (operating-system calls, allocation) open, for tests only.
function(kvx_layer name)
  cmake_parse_arguments(LAYER "" "" "SOURCES" ${ARGN})
  foreach(variant "" _seams)
    set(target kvx_${name}${variant})
    add_library(${target} OBJECT ${LAYER_SOURCES})
    kvx_warnings(${target})
    target_include_directories(${target} PUBLIC "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/api/include")
    target_link_libraries(${target} PUBLIC OpenSSL::SSL OpenSSL::Crypto PkgConfig::UUID)
    target_compile_definitions(${target} PRIVATE KVX_BUILDING_LIBRARY)
    if(variant)
      target_compile_definitions(${target} PUBLIC KVX_TEST_SEAMS)
    endif()
  endforeach()
endfunction()
