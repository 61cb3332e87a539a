# kvx_layer(NAME SOURCES ...): one layer of the library, compiled twice.
#
# kvx_NAME       goes into libtallowin.so and libtallowin.a.
# kvx_NAME_seams is the same code with the two seams (operating-system calls, allocation) open, for tests only.

# Times after 2038 and large files, where the system's types have 32 bits by default. The seams show these types, so what
# is compiled against them needs the same.
set(KVX_WIDE_SYSTEM_TYPES "")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(KVX_WIDE_SYSTEM_TYPES _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

function(kvx_layer name)
  cmake_parse_arguments(LAYER "" "" "SOURCES" ${ARGN})
  foreach(variant "" _seams)
    set(target kvx_${name}${variant})
    add_library(${target} OBJECT ${LAYER_SOURCES})
    kvx_warnings(${target})
    target_include_directories(${target} PUBLIC "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/include")
    target_link_libraries(${target} PUBLIC OpenSSL::SSL OpenSSL::Crypto PkgConfig::UUID)
    target_compile_definitions(${target} PRIVATE KVX_BUILDING_LIBRARY PUBLIC ${KVX_WIDE_SYSTEM_TYPES})
    if(variant)
      target_compile_definitions(${target} PUBLIC KVX_TEST_SEAMS)
    endif()
  endforeach()
endfunction()
