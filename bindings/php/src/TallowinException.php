<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

/** The base of all exceptions of this package. */
abstract class TallowinException extends \RuntimeException
{
}
