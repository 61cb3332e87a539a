<?php

/** Finds the classes of the package as Composer's autoloader does, and those of the tests. */

declare(strict_types=1);

$root = getenv('KVX_ROOT');
$package = json_decode(file_get_contents("$root/bindings/php/composer.json"), true);
$folders = ['Kelvane\\Tallowin\\Tests\\' => __DIR__ . '/'];
$folders += array_map(fn ($folder) => "$root/bindings/php/$folder", $package['autoload']['psr-4']);

spl_autoload_register(function (string $class) use ($folders): void {
    foreach ($folders as $prefix => $folder) {
        if (str_starts_with($class, $prefix)) {
            require $folder . strtr(substr($class, strlen($prefix)), '\\', '/') . '.php';
            return;
        }
    }
});
