<?php

/** Starts the payment of a new order and sends the shopper to the payment page. The form of the basket posts here. */

declare(strict_types=1);

require __DIR__ . '/shop.php';

use Kelvane\Tallowin\MessageFactory;

if ($_SERVER['REQUEST_METHOD'] !== 'POST') {
    showPage(405, 'Please use the form of the basket.');
}
try {
    $number = bin2hex(random_bytes(8));
    $payment = (new MessageFactory(account()))->createPayInit();
    foreach ([
        'ORDERID' => $number,
        'AMOUNT' => AMOUNT,
        'CURRENCY' => CURRENCY,
        'SUCCESSLINK' => addressOf('return.php'),
        'FAILLINK' => addressOf('return.php'),
        'BACKLINK' => addressOf('return.php'),
        'NOTIFYADDRESS' => addressOf('notify.php'),
    ] as $name => $value) {
        $payment->setAttribute($name, $value);
    }
    // The token ties the confirmation to this order: store it before the shopper leaves.
    file_put_contents(orderFile($number), json_encode(['token' => $payment->getAttribute('TOKEN'), 'paid' => false]));
    header('Location: ' . $payment->getUrl(), true, 303);
} catch (Throwable $failure) {
    error_log($failure->getMessage());
    showPage(503, 'The payment service cannot be used at the moment. Nothing has been charged.');
}
