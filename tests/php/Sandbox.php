<?php

declare(strict_types=1);

namespace Kelvane\Tallowin\Tests;

/** A running payment service with a directory of its own, and a shopper's browser on its pages. */
final class Sandbox
{
    private const TIMEOUT_SECONDS = 20;

    /** @var array<string, mixed> the line of --json */
    public readonly array $addresses;

    /** A directory for the merchant, not yet made. */
    public readonly string $merchant;

    private readonly string $directory;

    /** @var ?resource */
    private $process;

    /** @param string[] $options */
    public function __construct(array $options = [])
    {
        $this->directory = sys_get_temp_dir() . '/tallowin-php-' . bin2hex(random_bytes(6));
        mkdir($this->directory);
        $this->merchant = "$this->directory/merchant";
        // Ends with this process, however that ends.
        $command = ['setpriv', '--pdeathsig', 'TERM', getenv('KVX_SANDBOX'), '--data', "$this->directory/service", '--json', ...$options];
        $this->process = proc_open($command, [['pipe', 'r'], ['pipe', 'w'], STDERR], $pipes);
        $this->addresses = json_decode(fgets($pipes[1]), true, flags: JSON_THROW_ON_ERROR);
    }

    /** Ends the service; its directory stays. */
    public function stop(): void
    {
        if ($this->process !== null) {
            proc_terminate($this->process);
            proc_close($this->process);
            $this->process = null;
        }
    }

    public function __destruct()
    {
        $this->stop();
        $inside = new \RecursiveIteratorIterator(
            new \RecursiveDirectoryIterator($this->directory, \FilesystemIterator::SKIP_DOTS),
            \RecursiveIteratorIterator::CHILD_FIRST,
        );
        foreach ($inside as $path => $file) {
            $file->isDir() && !$file->isLink() ? rmdir($path) : unlink($path);
        }
        rmdir($this->directory);
    }

    /** @param array<string, mixed> $fault */
    public function arm(array $fault): void
    {
        [$status, $body] = self::request($this->addresses['control'] . '/faults', json_encode($fault), 'application/json');
        if ($status !== 201) {
            throw new \RuntimeException($body);
        }
    }

    /** @return string[] the states of all payments, in the order in which they were opened */
    public function states(): array
    {
        $answer = json_decode(self::request($this->addresses['control'] . '/payments')[1], true, flags: JSON_THROW_ON_ERROR);
        return array_column($answer['payments'], 'state');
    }

    /**
     * Opens a payment URL and submits a decision.
     *
     * @return array{string, string} DATA and SIGNATURE of the redirect to the shop
     */
    public function decide(string $url, string $decision): array
    {
        [$status, $page] = self::request($url);
        if ($status !== 200) {
            throw new \RuntimeException("the payment page has status $status: $page");
        }
        preg_match_all('~<input type="hidden" name="([^"]*)" value="([^"]*)"/>~', $page, $found);
        $form = array_combine($found[1], array_map(html_entity_decode(...), $found[2]));
        $target = preg_replace('~^(\w+://[^/]+).*~', '$1/pay/decision', $url);
        [, , $location] = self::request($target, http_build_query($form + ['decision' => $decision]),
                                        'application/x-www-form-urlencoded');
        parse_str(parse_url($location, PHP_URL_QUERY), $query);
        return [$query['DATA'], $query['SIGNATURE']];
    }

    /** @return array{int, string, string} status, body, and the address that the response redirects to */
    public static function request(string $url, ?string $body = null, string $type = ''): array
    {
        $options = ['timeout' => self::TIMEOUT_SECONDS, 'follow_location' => 0, 'ignore_errors' => true];
        if ($body !== null) {
            $options += ['method' => 'POST', 'content' => $body, 'header' => "Content-Type: $type"];
        }
        $text = file_get_contents($url, false, stream_context_create(['http' => $options]));
        preg_match('~^HTTP/\S+ (\d+)~', $http_response_header[0], $status);
        $location = preg_filter('~^Location: *~i', '', $http_response_header);
        return [(int) $status[1], $text, $location ? reset($location) : ''];
    }
}
