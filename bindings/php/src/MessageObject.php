<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

/** One message. */
final class MessageObject extends NativeObject
{
    /** A message bound to a directory; of type ERROR until fromString() fills it. */
    public function __construct(string $directory)
    {
        $this->open('Open', $directory);
    }

    /** Sets or replaces an attribute. Never take `$name` from a shopper. */
    public function setAttribute(string $name, string $value): void
    {
        $this->call('SetAttribute', $name, $value);
    }

    /**
     * The value of an attribute.
     *
     * @throws ResultException (ResultCode::NOT_FOUND) when there is none
     */
    public function getAttribute(string $name): string
    {
        return $this->attribute('GetAttribute', $name);
    }

    /** The value of an attribute, or null. */
    public function findAttribute(string $name): ?string
    {
        try {
            return $this->getAttribute($name);
        } catch (ResultException $failure) {
            if ($failure->getCode() === ResultCode::NOT_FOUND) {
                return null;
            }
            throw $failure;
        }
    }

    /**
     * Requires that every attribute has exactly the given value.
     *
     * @param array<string, string> $attributes
     * @throws MismatchException for the first that has not
     * @throws \ValueError when none is named
     */
    public function require(array $attributes): void
    {
        if ($attributes === []) {
            throw new \ValueError('no attribute is named, so nothing would be compared');
        }
        foreach ($attributes as $name => $wanted) {
            $found = $this->findAttribute((string) $name);
            if ($found === null || $found !== $wanted) {
                throw new MismatchException((string) $name, $wanted, $found);
            }
        }
    }

    /** The signed payment URL for the shopper's browser. Sends nothing itself. */
    public function getUrl(): string
    {
        return $this->message('GetURL');
    }

    /**
     * Sends the message as a capture. Blocks on the network.
     *
     * After a failure the payment may have been captured all the same: ask the service before you repeat it.
     */
    public function capture(): void
    {
        $this->call('Capture');
    }

    /** Sends the message as a request of its type, once only, and returns the response. Blocks on the network. */
    public function execute(): MessageObject
    {
        return $this->make('Execute');
    }

    /** Replaces the message by a parsed text, such as the DATA of a confirmation. */
    public function fromString(string $text): void
    {
        $this->call('FromString', $text);
    }

    /** The message as text. */
    public function toString(): string
    {
        return $this->message('ToString');
    }

    protected static function kind(): string
    {
        return 'MessageObject';
    }
}
