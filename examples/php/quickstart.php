<?php

/**
 * A payment in twenty lines, between the two markers. The rest stands for code that a shop already has.
 *
 *     php quickstart.php DIRECTORY SERVICE
 *
 * DIRECTORY   the configuration directory; this program creates it and sets it up for the sandbox's account "demo".
 *             Every start sets up again and makes a new merchant key; a shop does this once.
 * SERVICE     set-up address of a running tallowin-sandbox, such as http://127.0.0.1:8080/auto
 *
 * The program prints the payment URL, then reads DATA and SIGNATURE of the confirmation from standard input: one per line,
 * percent-decoded, as PHP has them in $_GET.
 */

declare(strict_types=1);

require __DIR__ . '/vendor/autoload.php';

use Kelvane\Tallowin\{ConfigurationSetup, MessageFactory, MessageObject, MismatchException};

/** A merchant does this once per account. */
function setUp(string $directory, string $service): void
{
    (new ConfigurationSetup($directory))->reconfigure($service, 'demo', 'demo');
}

/** A shop redirects the browser to `$url`; its return page then receives DATA and SIGNATURE. */
function sendShopperTo(string $url): array
{
    echo $url, "\n";
    return [rtrim((string) fgets(STDIN), "\n"), rtrim((string) fgets(STDIN), "\n")];
}

function sell(string $directory): void
{
    // [quickstart]
    $shop = new MessageFactory($directory);
    $order = $shop->createPayInit();
    $order->setAttribute('AMOUNT', '19.90');
    $order->setAttribute('CURRENCY', 'EUR');
    $token = $order->getAttribute('TOKEN');
    [$data, $signature] = sendShopperTo($order->getUrl()); // the shopper returns with DATA and SIGNATURE
    $paid = $shop->verifyPayConfirm($data, $signature);
    $paid->require(['MSGTYPE' => 'PayConfirm', 'RESULT' => 'authorised', 'TOKEN' => $token, 'AMOUNT' => '19.90',
                    'CURRENCY' => 'EUR']);
    $capture = new MessageObject($directory);
    $capture->fromString($data);
    $capture->capture();
    echo "The payment is captured.\n";
    // [/quickstart]
}

if ($argc !== 3) {
    fwrite(STDERR, "usage: php $argv[0] DIRECTORY SERVICE\n");
    exit(2);
}
setUp($argv[1], $argv[2]);
try {
    sell($argv[1]);
} catch (MismatchException $mismatch) {
    fwrite(STDERR, 'not paid: ' . $mismatch->getMessage() . "\n");
    exit(1);
}
