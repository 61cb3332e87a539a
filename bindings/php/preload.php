<?php

/**
 * For opcache.preload: the classes of this package. Preloaded code may use FFI under ffi.enable=preload, PHP's default;
 * ffi.preload names tallowin.ffi, so that the native library is loaded once, before requests are served.
 */

declare(strict_types=1);

foreach (glob(__DIR__ . '/src/*.php') as $file) {
    opcache_compile_file($file);
}
