<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

/** Prepares the configuration directory of one account. */
final class ConfigurationSetup extends NativeObject
{
    /**
     * @param string $directory created when its parent exists
     * @throws ResultException with `errno` when the directory cannot be created
     */
    public function __construct(string $directory)
    {
        $this->open('SetConfiguration', $directory);
    }

    /**
     * Registers with the payment service at `$url`: loads configuration and defaults, makes and publishes a new key pair.
     *
     * Blocks on the network. Run it as the user that signs later: a new private key is readable for its owner only.
     */
    public function reconfigure(string $url, string $user, #[\SensitiveParameter] string $password): void
    {
        $this->call('Reconfigure', $url, $user, $password);
    }

    /** Sets "UserName", "Password" or "VTAUTOURL" for this object. */
    public function setOption(string $name, #[\SensitiveParameter] string $value): void
    {
        $this->call('SetOption', $name, $value);
    }

    /** The value `$name` of a file of the directory, such as "VTURL" of "config.xml"; without `$name` the whole file. */
    public function getAttribute(string $file, string $name = ''): string
    {
        return $this->attribute('GetAttribute', $file, $name);
    }

    /** Sets the value `$name` of an existing file and rewrites it. An empty `$value` changes nothing. */
    public function setAttribute(string $file, string $name, string $value): void
    {
        $this->call('SetAttribute', $file, $name, $value);
    }

    protected static function kind(): string
    {
        return 'ConfigurationSetup';
    }
}
