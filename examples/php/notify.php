<?php

/**
 * Receives the service's notification (NOTIFYADDRESS), which comes even when the shopper closes the browser. The service repeats
 * it until the status is 2xx.
 */

declare(strict_types=1);

require __DIR__ . '/shop.php';

use Kelvane\Tallowin\MismatchException;

try {
    settle(...confirmationOfRequest());
} catch (MismatchException $mismatch) {
    if ($mismatch->name !== 'RESULT') {
        refuse($mismatch);
    } // a declined or cancelled payment: noted, nothing to do
} catch (Throwable $failure) {
    refuse($failure);
}
http_response_code(204);
