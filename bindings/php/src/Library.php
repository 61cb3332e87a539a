<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

use FFI;

/** The native library: where it is, its functions, and what its failures say. */
final class Library
{
    private const VARIABLE = 'TALLOWIN_LIBRARY';
    private const DECLARATIONS = __DIR__ . '/../tallowin.ffi';
    private const REASON_ROOM = 512;

    private static ?FFI $face = null;

    /** The version of the native library. */
    public static function version(): string
    {
        return self::face()->KVX_GetVersion();
    }

    /**
     * The functions of the library, loaded at the first call of a request. Preloaded ones come first.
     *
     * @internal
     */
    public static function face(): FFI
    {
        return self::$face ??= self::load();
    }

    /**
     * Calls a function that returns a result code.
     *
     * @internal
     * @throws ResultException unless it succeeds
     */
    public static function call(string $function, mixed ...$arguments): void
    {
        $code = self::face()->$function(...$arguments);
        if ($code !== ResultCode::OK) {
            throw self::failure($function, $code);
        }
    }

    /**
     * Calls a function that returns a new handle.
     *
     * @internal
     */
    public static function create(string $function): FFI\CData
    {
        $handle = self::face()->$function();
        if ($handle === null || FFI::isNull($handle)) {
            throw self::failure($function, ResultCode::OUT_OF_MEMORY);
        }
        return $handle;
    }

    /**
     * The text that a function copies into a buffer. `$room` is the first size to try.
     *
     * @internal
     */
    public static function textOf(string $function, int $room, mixed ...$arguments): string
    {
        $face = self::face();
        $size = $face->new('int32_t');
        while (true) {
            $size->cdata = $room;
            $buffer = $face->new("char[$room]");
            $code = $face->$function(...$arguments, ...[FFI::addr($size), $buffer]);
            if ($code === ResultCode::OK) {
                return FFI::string($buffer, $size->cdata - 1);
            }
            if ($code !== ResultCode::BUFFER_TOO_SMALL || $size->cdata <= $room) {
                throw self::failure($function, $code);
            }
            $room = $size->cdata;
        }
    }

    /** The exception for a failure that just happened. */
    private static function failure(string $function, int $code): ResultException
    {
        $name = self::face()->KVX_GetErrorName($code);
        return new ResultException($function, $code, $name, self::lastReason() ?: $name);
    }

    /** What the library says about the last failure; empty when memory is exhausted. */
    private static function lastReason(): string
    {
        $face = self::face();
        $size = $face->new('int32_t');
        $size->cdata = self::REASON_ROOM;
        do {
            $room = $size->cdata;
            $buffer = $face->new("char[$room]");
            $code = $face->KVX_GetLastErrorText(FFI::addr($size), $buffer);
            if ($code === ResultCode::OK) {
                return FFI::string($buffer);
            }
        } while ($code === ResultCode::BUFFER_TOO_SMALL && $size->cdata > $room);
        return '';
    }

    private static function load(): FFI
    {
        $file = getenv(self::VARIABLE) ?: null;
        if ($file === null) {
            try {
                return FFI::scope('TALLOWIN');
            } catch (FFI\Exception) {
                // Not preloaded.
            }
        }
        $text = file_get_contents(self::DECLARATIONS);
        preg_match('/^#define FFI_LIB "(.*)"$/m', $text, $soname);
        try {
            $face = FFI::cdef(preg_replace('/^#.*$/m', '', $text), $file ?? $soname[1]);
        } catch (FFI\Exception $failure) {
            throw new LoadException(sprintf(
                '%s cannot be loaded: %s. Install the library, or set %s to its file. '
                . 'On a web server, name tallowin.ffi in ffi.preload and preload.php in opcache.preload.',
                $file ?? $soname[1],
                $failure->getMessage(),
                self::VARIABLE,
            ), 0, $failure);
        }
        $version = $face->KVX_GetVersion();
        if (!str_ends_with($soname[1], '.' . strtok($version, '.'))) {
            throw new LoadException(($file ?? $soname[1]) . " is version $version; this package is for $soname[1].");
        }
        return $face;
    }
}
