<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

/** Makes and verifies the messages of one configuration directory. Messages do not need their factory after they are made. */
final class MessageFactory extends NativeObject
{
    /** Reads nothing: a wrong directory fails at the first message. */
    public function __construct(string $directory)
    {
        $this->open('Open', $directory);
    }

    /** A new payment with a fresh TOKEN and the account's defaults. */
    public function createPayInit(): MessageObject
    {
        return $this->make('CreatePayInit');
    }

    /**
     * The confirmation that came back with the shopper, when its signature is valid.
     *
     * A valid signature is not a payment: MessageObject::require() the type, the result, the token, amount and currency.
     *
     * @param string $data      the query parameter DATA, percent-decoded as in $_GET; limit its size before the call
     * @param string $signature the query parameter SIGNATURE
     */
    public function verifyPayConfirm(string $data, string $signature): MessageObject
    {
        return $this->make('VerifyPayConfirm', $data, $signature);
    }

    /** A completion; send it with MessageObject::execute(). */
    public function createPayComplete(string $paymentId, string $token): MessageObject
    {
        return $this->make('CreatePayComplete', $paymentId, $token);
    }

    /** A message of any type. */
    public function createRequest(string $type): MessageObject
    {
        return $this->make('CreateRequest', $type);
    }

    protected static function kind(): string
    {
        return 'MessageFactory';
    }
}
