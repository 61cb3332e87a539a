<?php

declare(strict_types=1);

namespace Kelvane\Tallowin\Tests;

use Kelvane\Tallowin\{ConfigurationSetup, MessageFactory, MessageObject, ResultException};
use PHPUnit\Framework\TestCase;

/** A merchant beside a sandbox. */
abstract class MerchantCase extends TestCase
{
    protected const OPTIONS = [];

    protected Sandbox $sandbox;

    protected function setUp(): void
    {
        $this->sandbox = new Sandbox(static::OPTIONS);
    }

    protected function tearDown(): void
    {
        unset($this->sandbox);
    }

    protected function setUpAccount(string $password = 'demo', ?string $service = null): void
    {
        $setup = new ConfigurationSetup($this->sandbox->merchant);
        $setup->reconfigure($service ?? $this->sandbox->addresses['auto'], 'demo', $password);
    }

    protected function factory(): MessageFactory
    {
        return new MessageFactory($this->sandbox->merchant);
    }

    protected function order(): MessageObject
    {
        $order = $this->factory()->createPayInit();
        $order->setAttribute('AMOUNT', '19.90');
        $order->setAttribute('CURRENCY', 'EUR');
        return $order;
    }

    protected function capture(string $data): void
    {
        $message = new MessageObject($this->sandbox->merchant);
        $message->fromString($data);
        $message->capture();
    }

    /** The failure of a call, which must have this name. */
    protected function failure(string $name, callable $call): ResultException
    {
        try {
            $call();
        } catch (ResultException $failure) {
            $this->assertSame($name, $failure->name, $failure->getMessage());
            return $failure;
        }
        $this->fail("$name was expected");
    }
}
