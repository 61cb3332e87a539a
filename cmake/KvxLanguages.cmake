# The interpreters of other languages that the tests use; scripts/setup languages installs them.
#
# KVX_SYSTEM_PYTHON   Debian's Python, which has Debian's modules; the one in the PATH may be another
# KVX_PHP             PHP with its module FFI; empty when there is none
# kvx_has_module(VARIABLE MODULE)   whether Debian's Python has a module

find_program(KVX_SYSTEM_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
find_program(KVX_PHP_PROGRAM php)

set(KVX_PHP "")
if(KVX_PHP_PROGRAM)
  execute_process(COMMAND "${KVX_PHP_PROGRAM}" -r "exit(extension_loaded('FFI') ? 0 : 1);" RESULT_VARIABLE found_ffi
                  OUTPUT_QUIET ERROR_QUIET)
  if(found_ffi EQUAL 0)
    set(KVX_PHP "${KVX_PHP_PROGRAM}")
  endif()
endif()

function(kvx_has_module variable module)
  set(status 1)
  if(KVX_SYSTEM_PYTHON)
    execute_process(COMMAND "${KVX_SYSTEM_PYTHON}" -c "import ${module}" RESULT_VARIABLE status ERROR_QUIET)
  endif()
  if(status EQUAL 0)
    set(${variable} TRUE PARENT_SCOPE)
  else()
    set(${variable} FALSE PARENT_SCOPE)
  endif()
endfunction()
