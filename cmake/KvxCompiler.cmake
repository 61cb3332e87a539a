# Warnings, hardening, sanitizers and coverage, for every target of the tree.

set(KVX_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
                 -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wformat=2 -Wundef -Wnull-dereference)
set(KVX_C_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wformat=2
                   -Wundef -Wstrict-prototypes)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Warn wrongly in inlined standard library code as soon as a sanitizer or -O3 is on.
  list(REMOVE_ITEM KVX_WARNINGS -Wnull-dereference)
  if(KVX_SANITIZE)
    list(APPEND KVX_WARNINGS -Wno-maybe-uninitialized)
  endif()
endif()
if(KVX_WARNINGS_ARE_ERRORS)
  list(APPEND KVX_WARNINGS -Werror)
  list(APPEND KVX_C_WARNINGS -Werror)
endif()

# Everything that is linked into a process: unwind tables, because exceptions may pass through frames of C callers.
add_compile_options(-fstack-protector-strong -funwind-tables)
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT KVX_SANITIZE AND NOT "${CMAKE_CXX_FLAGS}" MATCHES "_FORTIFY_SOURCE")
  add_compile_definitions(_FORTIFY_SOURCE=2)
endif()
add_link_options(-Wl,-z,relro,-z,now)

if(KVX_SANITIZE)
  add_compile_options(-fsanitize=${KVX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KVX_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND KVX_SANITIZE MATCHES "thread")
    # What g++ expands in place is not instrumented: only a call is seen by ThreadSanitizer.
    add_compile_options(-fno-builtin-memcpy -fno-builtin-memmove -fno-builtin-memset)
  endif()
endif()
if(KVX_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KVX_COVERAGE needs clang: scripts/coverage reads its profiles")
  endif()
  # Counters live in files that processes share, so that those of a child that is killed or leaves by _exit() count too.
  set(KVX_PROFILE "-fprofile-instr-generate=${CMAKE_BINARY_DIR}/profiles/%c%m.profraw")
  add_compile_options(${KVX_PROFILE} -fcoverage-mapping -fprofile-update=atomic "SHELL:-mllvm -runtime-counter-relocation")
  add_link_options(${KVX_PROFILE})
endif()

# kvx_warnings(TARGET): the warnings for our own code.
function(kvx_warnings target)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:${KVX_WARNINGS}>
                                           $<$<COMPILE_LANGUAGE:C>:${KVX_C_WARNINGS}>)
endfunction()
