<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

/** An attribute of a message is not what it must be. */
final class MismatchException extends TallowinException
{
    /**
     * @param string  $name   the attribute
     * @param string  $wanted what it must be
     * @param ?string $found  its value; null when the message has no such attribute
     */
    public function __construct(
        public readonly string $name,
        public readonly string $wanted,
        public readonly ?string $found,
    ) {
        $is = $found === null ? 'missing' : "\"$found\"";
        parent::__construct("$name is $is, not \"$wanted\"");
    }
}
