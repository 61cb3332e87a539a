<?php

/**
 * What the three pages of the shop share: pay.php starts a payment, return.php receives the shopper, notify.php the service.
 *
 * The environment has the settings; neither directory lies below the web server's:
 *
 *     SHOP_ACCOUNT   the configuration directory, set up once by the user that runs these pages
 *     SHOP_ORDERS    a directory for the orders, one file each; a real shop has a database
 *     SHOP_ADDRESS   the address of these pages, such as https://shop.example/pages
 */

declare(strict_types=1);

require __DIR__ . '/vendor/autoload.php';

use Kelvane\Tallowin\{MessageFactory, MessageObject, TallowinException};

const AMOUNT = '19.90';
const CURRENCY = 'EUR';
const MAX_DATA = 32768; // bytes; before anything is parsed

function account(): string
{
    return getenv('SHOP_ACCOUNT');
}

/** The address of another page of the shop. Not made of the request's Host, which the visitor chooses. */
function addressOf(string $page): string
{
    return getenv('SHOP_ADDRESS') . "/$page";
}

/** The file of an order. Only the shop chooses numbers; the service returns them signed. */
function orderFile(string $number): string
{
    if (!preg_match('/^[0-9a-f]{16}$/D', $number)) {
        throw new UnexpectedValueException('There is no such order.');
    }
    return getenv('SHOP_ORDERS') . "/$number";
}

/**
 * Settles the order of a confirmation, which comes with the shopper, with the service's notification, or with both at once: the
 * first captures, the others find the order paid. Returns the order's number.
 *
 * @throws TallowinException            when the confirmation is no payment of an order, or the capture fails; the order stays
 *                                      open, and the next confirmation tries again
 * @throws UnexpectedValueException     when there is no such order
 */
function settle(string $data, string $signature): string
{
    if (strlen($data) > MAX_DATA || strlen($signature) > MAX_DATA) {
        throw new UnexpectedValueException('The confirmation is too long.');
    }
    $factory = new MessageFactory(account());
    $confirmation = $factory->verifyPayConfirm($data, $signature);
    $confirmation->require(['MSGTYPE' => 'PayConfirm', 'RESULT' => 'authorised']);
    $number = $confirmation->getAttribute('ORDERID');
    $file = @fopen(orderFile($number), 'r+') ?: throw new UnexpectedValueException('There is no such order.');
    flock($file, LOCK_EX); // until it is closed
    $order = json_decode(stream_get_contents($file), true, flags: JSON_THROW_ON_ERROR);
    $confirmation->require(['TOKEN' => $order['token'], 'AMOUNT' => AMOUNT, 'CURRENCY' => CURRENCY]);
    if (!$order['paid']) {
        $capture = new MessageObject(account());
        $capture->fromString($data);
        $capture->capture();
        rewind($file);
        fwrite($file, json_encode(['paid' => true] + $order));
        ftruncate($file, ftell($file));
    }
    return $number;
}

/** DATA and SIGNATURE of the request, which the browser or the service sends. */
function confirmationOfRequest(): array
{
    $texts = [$_GET['DATA'] ?? '', $_GET['SIGNATURE'] ?? ''];
    return array_map(fn ($text) => is_string($text) ? $text : '', $texts);
}

/** Ends the request with a page. */
function showPage(int $status, string $sentence): never
{
    http_response_code($status);
    header('Content-Type: text/html; charset=utf-8');
    echo '<!DOCTYPE html><title>Shop</title><p>', htmlspecialchars($sentence, ENT_QUOTES | ENT_SUBSTITUTE), "</p>\n";
    exit;
}

/** Ends the request after a failure: the visitor reads a sentence, the log the reason. */
function refuse(Throwable $failure): never
{
    error_log((string) $failure->getMessage());
    $isOurs = $failure instanceof TallowinException || $failure instanceof UnexpectedValueException;
    showPage($isOurs ? 400 : 500, 'This is not a payment of an order here. Nothing has been charged a second time.');
}
