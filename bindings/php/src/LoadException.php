<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

/** The native library cannot be loaded, or is another major version. */
final class LoadException extends TallowinException
{
}
