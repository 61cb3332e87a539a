<?php

/** Receives the shopper after the payment page: SUCCESSLINK, FAILLINK and BACKLINK. The confirmation decides, not the link. */

declare(strict_types=1);

require __DIR__ . '/shop.php';

use Kelvane\Tallowin\MismatchException;

try {
    $number = settle(...confirmationOfRequest());
} catch (MismatchException $mismatch) {
    if ($mismatch->name === 'RESULT') {
        showPage(200, 'You have not paid. Nothing has been charged.');
    }
    refuse($mismatch);
} catch (Throwable $failure) {
    refuse($failure);
}
showPage(200, "Thank you. Order $number is paid.");
