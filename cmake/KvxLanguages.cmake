# The interpreters of other languages that the tests use; scripts/setup languages installs them.
#
# KVX_SYSTEM_PYTHON   Debian's Python, which has Debian's modules; the one in the PATH may be another
# KVX_PHP             PHP with its module FFI; empty when there is none
# KVX_PHPUNIT KVX_PHP_FPM KVX_COMPOSER KVX_NODE KVX_NPM KVX_TSC   programs of these names
# KVX_PYTHON_PACKAGING   whether Debian's Python makes and installs packages
# KVX_SETPRIV         ends a child with its parent
# kvx_has_module(VARIABLE MODULE)   whether Debian's Python has a module

find_program(KVX_SYSTEM_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
find_program(KVX_PHP_PROGRAM php)
find_program(KVX_PHPUNIT phpunit)
find_program(KVX_PHP_FPM NAMES php-fpm php-fpm8.4 php-fpm8.3 php-fpm8.2 PATHS /usr/sbin)
find_program(KVX_COMPOSER composer)
find_program(KVX_NODE node)
find_program(KVX_NPM npm)
find_program(KVX_TSC tsc)
find_program(KVX_SETPRIV setpriv)

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

set(KVX_PYTHON_PACKAGING TRUE)
foreach(module pip wheel setuptools)
  kvx_has_module(found_module ${module})
  if(NOT found_module)
    set(KVX_PYTHON_PACKAGING FALSE)
  endif()
endforeach()

# Where tests/node installs the package for Node.js with its dependencies: the fixture node_package.
set(KVX_NODE_MODULES "${PROJECT_BINARY_DIR}/tests/node/node_modules")
