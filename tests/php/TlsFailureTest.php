<?php

declare(strict_types=1);

namespace Kelvane\Tallowin\Tests;

/** Failures of TLS. */
final class TlsFailureTest extends MerchantCase
{
    protected const OPTIONS = ['--tls'];

    public function testOfACertificateThatIsNotTrusted(): void
    {
        $this->setUpAccount(service: $this->sandbox->addresses['tlsAuto']);
        file_put_contents($this->sandbox->merchant . '/settings.xml', '<KVX TLSVERIFY="1" QUIET="1"/>');
        $failure = $this->failure('KVX_E_TLS_FAMILY', fn () => $this->setUpAccount(service: $this->sandbox->addresses['tlsAuto']));
        $this->assertNull($failure->httpStatus);
    }
}
