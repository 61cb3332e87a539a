<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

/**
 * A call of the native library failed. getCode() is the result code, signed; a small positive number is the system's errno.
 */
final class ResultException extends TallowinException
{
    private const NUMBER_MASK = 0xFFF; // of a code in a family
    private const MIN_HTTP_STATUS = 100; // the HTTP layer's own codes are below

    /** The status of a refused HTTP exchange, such as 503; null for other failures. */
    public readonly ?int $httpStatus;

    /** The system's error number of a directory that cannot be created; null for other failures. */
    public readonly ?int $errno;

    /**
     * @param string $function the flat function that failed
     * @param string $name     the name of the code, such as "KVX_E_SERVER_ERROR"
     * @param string $reason   what the library says about this failure
     */
    public function __construct(
        public readonly string $function,
        int $code,
        public readonly string $name,
        public readonly string $reason,
    ) {
        parent::__construct(sprintf('%s: %s (%s, 0x%08X)', $function, $reason, $name, $code & 0xFFFFFFFF), $code);
        $status = $code & self::NUMBER_MASK;
        $isHttp = ($code & ~self::NUMBER_MASK) === ResultCode::HTTP_FAMILY;
        $this->httpStatus = $isHttp && $status >= self::MIN_HTTP_STATUS ? $status : null;
        $this->errno = $code > 0 ? $code : null;
    }
}
