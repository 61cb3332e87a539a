<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

use FFI;

/** One handle of the native library. Destroyed with the last reference, or by close(). */
abstract class NativeObject
{
    private const ATTRIBUTE_ROOM = 512;
    private const MESSAGE_ROOM = 8192;

    /** Null when closed: the library then returns KVX_E_BAD_HANDLE. */
    private ?FFI\CData $handle = null;

    /** The class's name in the flat functions. */
    abstract protected static function kind(): string;

    /** Destroys the native object. Closing again does nothing. */
    final public function close(): void
    {
        if ($this->handle !== null) {
            Library::face()->{'Destroy' . static::kind()}($this->handle);
            $this->handle = null;
        }
    }

    final public function __destruct()
    {
        $this->close();
    }

    /** Two objects cannot own one handle. */
    private function __clone()
    {
    }

    /** A handle belongs to its process. */
    final public function __serialize(): array
    {
        throw new \LogicException(static::class . ' cannot be serialized');
    }

    /** Creates the native object and calls the function that gives it its directory. */
    final protected function open(string $function, string $directory): void
    {
        $this->handle = Library::create('Create' . static::kind());
        try {
            $this->call($function, $directory);
        } catch (\Throwable $failure) {
            $this->close(); // PHP runs no destructor when a constructor throws
            throw $failure;
        }
    }

    final protected function call(string $function, string ...$texts): void
    {
        Library::call(static::kind() . '_' . $function, $this->handle, ...self::checked($texts));
    }

    final protected function attribute(string $function, string ...$texts): string
    {
        return Library::textOf(static::kind() . '_' . $function, self::ATTRIBUTE_ROOM, $this->handle, ...self::checked($texts));
    }

    final protected function message(string $function): string
    {
        return Library::textOf(static::kind() . '_' . $function, self::MESSAGE_ROOM, $this->handle);
    }

    final protected function make(string $function, string ...$texts): MessageObject
    {
        $out = Library::face()->new('KVX_HANDLE');
        Library::call(static::kind() . '_' . $function, $this->handle, ...self::checked($texts), ...[FFI::addr($out)]);
        $message = (new \ReflectionClass(MessageObject::class))->newInstanceWithoutConstructor();
        $message->adopt($out);
        return $message;
    }

    private function adopt(FFI\CData $handle): void
    {
        $this->handle = $handle;
    }

    /**
     * @param string[] $texts
     * @return string[]
     * @throws \ValueError for a zero byte, which would end the text for the library
     */
    private static function checked(array $texts): array
    {
        foreach ($texts as $text) {
            if (str_contains($text, "\0")) {
                throw new \ValueError('a text holds a zero byte');
            }
        }
        return $texts;
    }
}
