<?php

declare(strict_types=1);

namespace Kelvane\Tallowin\Tests;

use Kelvane\Tallowin\{ConfigurationSetup, MismatchException};

/** Whole payments against a sandbox. */
final class PaymentTest extends MerchantCase
{
    public function testIsSetUpPaidVerifiedCapturedAndCompleted(): void
    {
        $this->setUpAccount();
        $order = $this->order();
        $token = $order->getAttribute('TOKEN');
        $url = $order->getUrl();
        $this->assertStringStartsWith($this->sandbox->addresses['pay'] . '?DATA=', $url);
        [$data, $signature] = $this->sandbox->decide($url, 'pay');
        $paid = $this->factory()->verifyPayConfirm($data, $signature);
        $paid->require(['MSGTYPE' => 'PayConfirm', 'RESULT' => 'authorised', 'TOKEN' => $token, 'AMOUNT' => '19.90',
                        'CURRENCY' => 'EUR']);
        $this->capture($data);
        $this->assertSame(['captured'], $this->sandbox->states());
        $answer = $this->factory()->createPayComplete($paid->getAttribute('ID'), $token)->execute();
        $this->assertSame('PayCompleteResponse', $answer->getAttribute('MSGTYPE'));
        $this->assertSame(['completed'], $this->sandbox->states());
    }

    public function testCanBeAskedAboutByARequestOfAnyType(): void
    {
        $this->setUpAccount();
        $order = $this->order();
        $this->sandbox->decide($order->getUrl(), 'pay');
        $request = $this->factory()->createRequest('Status');
        $request->setAttribute('TOKEN', $order->getAttribute('TOKEN'));
        $this->assertSame('authorised', $request->execute()->getAttribute('STATE'));
    }

    public function testThatWasCancelledIsAMismatch(): void
    {
        $this->setUpAccount();
        $confirmation = $this->factory()->verifyPayConfirm(...$this->sandbox->decide($this->order()->getUrl(), 'cancel'));
        try {
            $confirmation->require(['MSGTYPE' => 'PayConfirm', 'RESULT' => 'authorised']);
            $this->fail('a cancelled payment passes');
        } catch (MismatchException $mismatch) {
            $this->assertSame(['RESULT', 'authorised', 'cancelled'], [$mismatch->name, $mismatch->wanted, $mismatch->found]);
            $this->assertSame('RESULT is "cancelled", not "authorised"', $mismatch->getMessage());
        }
        $this->expectExceptionMessage('NO.SUCH is missing, not "1"');
        $confirmation->require(['NO.SUCH' => '1']);
    }

    public function testThatComparesNothingIsRefused(): void
    {
        $this->setUpAccount();
        $order = $this->order();
        try {
            $order->require(['NO.SUCH' => null]);
            $this->fail('an attribute that is missing equals null');
        } catch (\TypeError) {
            $this->assertNull($order->findAttribute('NO.SUCH'));
        }
        $this->expectException(\ValueError::class);
        $order->require([]);
    }

    public function testSettingsAreReadAndWritten(): void
    {
        $this->setUpAccount();
        $setup = new ConfigurationSetup($this->sandbox->merchant);
        $this->assertSame($this->sandbox->addresses['pay'], $setup->getAttribute('config.xml', 'VTURL'));
        $setup->setAttribute('config.xml', 'VTURL', 'http://127.0.0.1:1/pay');
        $this->assertSame('http://127.0.0.1:1/pay', $setup->getAttribute('config.xml', 'VTURL'));
        $this->assertStringEqualsFile($this->sandbox->merchant . '/config.xml', $setup->getAttribute('config.xml'));
        $setup->setOption('VTAUTOURL', $this->sandbox->addresses['auto']);
        $setup->reconfigure('', 'demo', 'demo');
        $this->assertSame($this->sandbox->addresses['pay'], $setup->getAttribute('config.xml', 'VTURL'));
    }
}
