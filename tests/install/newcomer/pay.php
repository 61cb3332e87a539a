<?php
spl_autoload_register(fn (string $name) => require getenv('BINDINGS') . '/php/src/' . basename(strtr($name, '\\', '/')) . '.php');

use Kelvane\Tallowin\{MessageFactory, MessageObject};

$shop = new MessageFactory($argv[1]);
$order = $shop->createPayInit();
$order->setAttribute('AMOUNT', '19.90');
$order->setAttribute('CURRENCY', 'EUR');
$token = $order->getAttribute('TOKEN');
echo $order->getUrl(), "\n";
[$data, $signature] = [rtrim(fgets(STDIN), "\n"), rtrim(fgets(STDIN), "\n")];
$paid = $shop->verifyPayConfirm($data, $signature);
$paid->require(['MSGTYPE' => 'PayConfirm', 'TOKEN' => $token, 'AMOUNT' => '19.90', 'CURRENCY' => 'EUR']);
$capture = new MessageObject($argv[1]);
$capture->fromString($data);
$capture->capture();
echo $paid->getAttribute('RESULT'), "\n";
