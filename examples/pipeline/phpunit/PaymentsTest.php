<?php

declare(strict_types=1);

use Kelvane\Tallowin\{MessageFactory, MismatchException};

require_once __DIR__ . '/SandboxCase.php';

/** What a shop tests first: paid, declined, too late, and a confirmation with another amount. */
final class PaymentsTest extends SandboxCase
{
    private MessageFactory $shop;
    private string $token;

    protected function setUp(): void
    {
        parent::setUp();
        // The part of a shop that is tested; yours stands here and in check().
        $this->shop = new MessageFactory($this->merchant());
        $order = $this->shop->createPayInit();
        $order->setAttribute('AMOUNT', '19.90');
        $order->setAttribute('CURRENCY', 'EUR');
        $order->setAttribute('ORDERID', 'A-17');
        $this->token = $order->getAttribute('TOKEN');
        $this->open($order->getUrl());
    }

    private function check(array $confirmation, string $result = 'authorised'): void
    {
        $this->shop->verifyPayConfirm(...$confirmation)->require(['MSGTYPE' => 'PayConfirm', 'RESULT' => $result,
            'TOKEN' => $this->token, 'AMOUNT' => '19.90', 'CURRENCY' => 'EUR']);
    }

    public function testIsPaid(): void
    {
        $this->check($this->decide($this->token, 'pay'));
        $this->assertSame('authorised', $this->payment($this->token)['state']);
    }

    public function testIsDeclined(): void
    {
        $confirmation = $this->decide($this->token, 'decline');
        $this->check($confirmation, 'declined');
        $this->expectException(MismatchException::class);
        $this->check($confirmation);
    }

    public function testIsNotPaidInTime(): void
    {
        $this->stepClock(7200);
        $this->assertSame('expired', $this->payment($this->token)['state']);
    }

    public function testNoticesAnotherAmount(): void
    {
        $this->fault('wrong-amount', 'decision');
        $this->expectException(MismatchException::class);
        $this->expectExceptionMessage('AMOUNT');
        $this->check($this->decide($this->token, 'pay'));
    }
}
