<?php

declare(strict_types=1);

use Kelvane\Tallowin\ConfigurationSetup;
use PHPUnit\Framework\TestCase;

/**
 * A test with a sandbox, which is started once per class and stopped at its end. Copy this file beside your tests.
 *
 * Every test has an account of its own: what other tests do, also at the same time, does not concern it.
 * tallowin-sandbox is looked for in TALLOWIN_SANDBOX and in the path.
 */
abstract class SandboxCase extends TestCase
{
    private const SECONDS = 30;
    private const PASSWORD = 'secret';

    /** @var resource */
    private static $process;
    private static string $directory;
    private static string $setUpAddress;
    private static string $base;

    protected string $account;

    public static function setUpBeforeClass(): void
    {
        self::$directory = sys_get_temp_dir() . '/tallowin-tests-' . bin2hex(random_bytes(8));
        mkdir(self::$directory, 0700);
        $command = [getenv('TALLOWIN_SANDBOX') ?: 'tallowin-sandbox', '--data', self::$directory . '/data', '--json'];
        self::$process = proc_open($command, [1 => ['pipe', 'w'], 2 => STDERR], $pipes);
        try {
            $addresses = json_decode((string) fgets($pipes[1]), true, 8, JSON_THROW_ON_ERROR);
            self::$setUpAddress = $addresses['auto'];
            self::$base = $addresses['dashboard'];
            self::assertTrue(self::ask('GET', self::$base . 'health')['ready']);
        } catch (Throwable $failure) {
            self::tearDownAfterClass();
            throw $failure;
        }
    }

    public static function tearDownAfterClass(): void
    {
        proc_terminate(self::$process);
        proc_close(self::$process);
        $files = new RecursiveIteratorIterator(
            new RecursiveDirectoryIterator(self::$directory, FilesystemIterator::SKIP_DOTS),
            RecursiveIteratorIterator::CHILD_FIRST
        );
        foreach ($files as $file) {
            $file->isDir() && !$file->isLink() ? rmdir($file->getPathname()) : unlink($file->getPathname());
        }
        rmdir(self::$directory);
    }

    protected function setUp(): void
    {
        $this->account = 'test-' . bin2hex(random_bytes(8));
        self::control('POST', 'accounts', ['user' => $this->account, 'password' => self::PASSWORD]);
    }

    protected function tearDown(): void
    {
        self::control('POST', 'reset', ['account' => $this->account]);
    }

    /** A configuration directory that is set up for the test's account. */
    protected function merchant(): string
    {
        $directory = self::$directory . '/' . $this->account;
        (new ConfigurationSetup($directory))->reconfigure(self::$setUpAddress, $this->account, self::PASSWORD);
        return $directory;
    }

    /** Opens the payment page, as the shopper's browser does. */
    protected function open(string $url): void
    {
        file_get_contents($url, false, stream_context_create(['http' => ['timeout' => self::SECONDS]]));
    }

    /** Decides on a payment whose page is open. Returns DATA and SIGNATURE of the confirmation. */
    protected function decide(string $token, string $decision): array
    {
        $path = "payments/decision?token=$token&account=$this->account";
        $answer = self::control('POST', $path, ['decision' => $decision]);
        return [$answer['data'], $answer['signature']];
    }

    protected function payment(string $token): array
    {
        return self::control('GET', "payments/newest?token=$token&account=$this->account");
    }

    protected function fault(string $kind, string $exchange): void
    {
        self::control('POST', 'faults', ['kind' => $kind, 'exchange' => $exchange, 'account' => $this->account]);
    }

    protected function stepClock(int $seconds): void
    {
        self::control('POST', 'clock', ['step' => $seconds, 'account' => $this->account]);
    }

    /** The answer of the control API. */
    protected static function control(string $method, string $path, ?array $content = null): array
    {
        return self::ask($method, self::$base . 'control/' . $path, $content);
    }

    private static function ask(string $method, string $url, ?array $content = null): array
    {
        $settings = ['method' => $method, 'timeout' => self::SECONDS];
        if ($content !== null) {
            $settings += ['header' => 'Content-Type: application/json', 'content' => json_encode($content)];
        }
        $answer = file_get_contents($url, false, stream_context_create(['http' => $settings]));
        return json_decode((string) $answer, true, 64, JSON_THROW_ON_ERROR);
    }
}
