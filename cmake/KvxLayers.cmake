# kvx_layer(NAME DEPENDS ... SOURCES ...): one layer of the library, compiled twice.
#
# kvx_NAME       goes into libtallowin.so and libtallowin.a.
# kvx_NAME_seams is the same code with the two seams (operating-system calls, allocation) open, for tests only.
#
# DEPENDS names the layers below and the packages this layer is compiled with. A layer passes on what it depends on.

# Times after 2038 and large files, where the system's types have 32 bits by default. The seams show these types, so what
# is compiled against them needs the same.
set(KVX_WIDE_SYSTEM_TYPES "")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(KVX_WIDE_SYSTEM_TYPES _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

function(kvx_layer name)
  cmake_parse_arguments(LAYER "" "" "DEPENDS;SOURCES" ${ARGN})
  foreach(variant "" _seams)
    set(target kvx_${name}${variant})
    add_library(${target} OBJECT ${LAYER_SOURCES})
    kvx_warnings(${target})
    target_include_directories(${target} PUBLIC "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/include")
    foreach(dependency IN LISTS LAYER_DEPENDS)
      if(NOT dependency MATCHES "::")
        set(dependency kvx_${dependency}${variant})
      endif()
      target_link_libraries(${target} PUBLIC ${dependency})
    endforeach()
    target_compile_definitions(${target} PUBLIC ${KVX_WIDE_SYSTEM_TYPES})
    if(variant)
      target_compile_definitions(${target} PUBLIC KVX_TEST_SEAMS)
    endif()
  endforeach()
endfunction()
