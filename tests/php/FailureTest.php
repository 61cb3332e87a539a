<?php

declare(strict_types=1);

namespace Kelvane\Tallowin\Tests;

use Kelvane\Tallowin\{ConfigurationSetup, MessageFactory, MessageObject, ResultCode};

/** Every class of failure, as exceptions with code, name and reason. */
final class FailureTest extends MerchantCase
{
    public function testOfTheService(): void
    {
        $failure = $this->failure('KVX_E_SERVER_ERROR', fn () => $this->setUpAccount('guessed'));
        $this->assertSame(ResultCode::SERVER_ERROR, $failure->getCode());
        $this->assertSame('ConfigurationSetup_Reconfigure', $failure->function);
        $this->assertStringContainsString('0x80040213', $failure->getMessage());
        $this->assertStringContainsString("the password of the account 'demo' is another", $failure->reason);
        $this->assertStringContainsString($failure->reason, $failure->getMessage());
        $this->assertStringNotContainsString('guessed', (string) $failure);
        $this->setUpAccount();
        $this->sandbox->arm(['kind' => 'wrong-type', 'exchange' => 'setup']);
        $this->failure('KVX_E_WRONG_RESPONSE', $this->setUpAccount(...));
    }

    public function testOfTheDirectory(): void
    {
        $place = dirname($this->sandbox->merchant);
        $failure = $this->failure('ENOENT', fn () => new ConfigurationSetup("$place/missing/merchant"));
        $this->assertSame([2, 2, null], [$failure->getCode(), $failure->errno, $failure->httpStatus]);
        touch("$place/file");
        $this->assertSame(20, $this->failure('ENOTDIR', fn () => new ConfigurationSetup("$place/file/x"))->errno);
        $failure = $this->failure('KVX_E_CANNOT_OPEN', fn () => (new MessageFactory("$place/unused"))->createPayInit());
        $this->assertNull($failure->errno);
        $this->assertStringContainsString("$place/unused/keys/current: No such file or directory", $failure->reason);
        $this->failure('KVX_E_CANNOT_OPEN', fn () => new MessageObject("$place/unused"));
    }

    public function testOfHttp(): void
    {
        $this->setUpAccount();
        $this->sandbox->arm(['kind' => 'http-status', 'exchange' => 'setup', 'status' => 503]);
        $this->assertSame(503, $this->failure('KVX_E_HTTP_UNAVAILABLE', $this->setUpAccount(...))->httpStatus);
        $this->sandbox->arm(['kind' => 'http-status', 'exchange' => 'setup', 'status' => 418]);
        $this->assertSame(418, $this->failure('KVX_E_HTTP_FAMILY', $this->setUpAccount(...))->httpStatus);
        $this->sandbox->arm(['kind' => 'drop', 'exchange' => 'setup']);
        $this->assertNull($this->failure('KVX_E_HTTP_BAD_REPLY', $this->setUpAccount(...))->httpStatus);
    }

    public function testOfSockets(): void
    {
        $this->setUpAccount();
        $this->sandbox->arm(['kind' => 'reset', 'exchange' => 'setup']);
        $this->failure('KVX_E_SOCKET_RESET', $this->setUpAccount(...));
        $this->sandbox->stop();
        $failure = $this->failure('KVX_E_SOCKET_REFUSED', $this->setUpAccount(...));
        $this->assertStringContainsString('connection refused', $failure->reason);
    }

    public function testOfAConfirmation(): void
    {
        $this->setUpAccount();
        [$data, $signature] = $this->sandbox->decide($this->order()->getUrl(), 'pay');
        foreach ([
            ['KVX_E_INVALID_SIGNATURE', str_replace('19.90', '1.90', $data), $signature],
            ['KVX_E_MISSING_SIGNATURE', $data, ''],
            ['KVX_E_INVALID_FORMAT', 'no document', $signature],
            ['KVX_E_NO_KEY_ID', '<KVX A="1"/>', $signature],
            ['KVX_E_NOT_FOUND', '<KVX KEYID="unknown"/>', $signature],
        ] as [$name, $text, $signed]) {
            $this->failure($name, fn () => $this->factory()->verifyPayConfirm($text, $signed));
        }
    }

    public function testOfNamesTypesAndOptions(): void
    {
        $this->setUpAccount();
        $this->failure('KVX_E_NOT_FOUND', fn () => $this->order()->getAttribute('NOSUCH'));
        $this->assertNull($this->order()->findAttribute('NOSUCH'));
        $this->failure('KVX_E_NO_MESSAGE_TYPE', fn () => $this->factory()->createRequest(''));
        $setup = new ConfigurationSetup($this->sandbox->merchant);
        $this->failure('KVX_E_INVALID_OPTION', fn () => $setup->setOption('NoSuch', '1'));
        $this->failure('KVX_E_CANNOT_OPEN', fn () => $setup->getAttribute('nosuch.xml'));
        $message = new MessageObject($this->sandbox->merchant);
        $this->failure('KVX_E_UNEXPECTED', fn () => $message->getUrl());
        $this->failure('KVX_E_INVALID_FORMAT', fn () => $message->fromString('<KVX'));
    }

    public function testOfACapture(): void
    {
        $this->setUpAccount();
        [$data] = $this->sandbox->decide($this->order()->getUrl(), 'cancel');
        $this->failure('KVX_E_SERVER_ERROR', fn () => $this->capture($data));
        $this->sandbox->arm(['kind' => 'drop', 'exchange' => 'capture']);
        [$data] = $this->sandbox->decide($this->order()->getUrl(), 'pay');
        $this->failure('KVX_E_HTTP_BAD_REPLY', fn () => $this->capture($data));
        $this->assertSame(['cancelled', 'captured'], $this->sandbox->states());
    }

    public function testOfAClosedObject(): void
    {
        $this->setUpAccount();
        $factory = $this->factory();
        $order = $factory->createPayInit();
        foreach ([$factory, $order, $factory, $order] as $object) {
            $object->close();
        }
        $this->failure('KVX_E_BAD_HANDLE', fn () => $factory->createPayInit());
        $this->failure('KVX_E_BAD_HANDLE', fn () => $order->getUrl());
    }
}
