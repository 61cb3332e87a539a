<?php

declare(strict_types=1);

namespace Kelvane\Tallowin\Tests;

use Kelvane\Tallowin\{Library, LoadException, MessageFactory, NativeObject};

/** The life of objects, the texts that pass, and where the library comes from. */
final class ObjectTest extends MerchantCase
{
    public function testOutlivesItsFactory(): void
    {
        $this->setUpAccount();
        $factory = $this->factory();
        $order = $factory->createPayInit();
        $factory->close();
        $this->assertNotSame('', $order->getUrl());
    }

    public function testIsDestroyedWithItsLastReference(): void
    {
        $this->setUpAccount();
        $factory = $this->factory();
        $handleOf = \Closure::bind(fn (NativeObject $object) => $object->handle, null, NativeObject::class);
        $used = [];
        for ($i = 0; $i < 3000; $i++) {
            $handle = $handleOf($factory->createPayInit());
            $used[\FFI::string(Library::face()->cast('char*', \FFI::addr($handle)), PHP_INT_SIZE)] = true;
        }
        // A slot is used again after 1024 others of its kind were freed.
        $this->assertGreaterThan(1, count($used));
        $this->assertLessThan(3000, count($used));
    }

    public function testCannotBeClonedOrSerialized(): void
    {
        $factory = $this->factory();
        try {
            clone $factory;
            $this->fail('two objects own one handle');
        } catch (\Error $error) {
            $this->assertStringContainsString('__clone', $error->getMessage());
        }
        $this->expectException(\LogicException::class);
        serialize($factory);
    }

    public function testKeepsTextsOfAnyBytes(): void
    {
        $this->setUpAccount();
        $order = $this->order();
        foreach (['', "\u{20AC} 5 & <\">'", "\u{1F600}", "\xFF\x80", str_repeat('x', 100_000), "line\nbreak"] as $text) {
            $order->setAttribute('TEXT', $text);
            $this->assertSame($text, $order->getAttribute('TEXT'));
        }
        $order->setAttribute('TEXT', str_repeat('y', 100_000));
        $this->assertStringContainsString(str_repeat('y', 100_000), $order->toString());
        $this->assertStringContainsString(str_repeat('y', 100_000), $order->getUrl());
    }

    public function testRefusesZeroBytesAndOtherTypes(): void
    {
        $this->setUpAccount();
        $order = $this->order();
        foreach (["a\0b", "\0"] as $text) {
            try {
                $order->setAttribute('TEXT', $text);
                $this->fail('a zero byte passes');
            } catch (\ValueError) {
                $this->assertNull($order->findAttribute('TEXT'));
            }
        }
        foreach ([19.9, 1, true, null] as $wrong) {
            try {
                $order->setAttribute('TEXT', $wrong);
                $this->fail('another type passes');
            } catch (\TypeError) {
                $this->assertNull($order->findAttribute('TEXT'));
            }
        }
        $this->expectException(\ValueError::class);
        new MessageFactory("a\0b");
    }

    public function testLibraryIsTheOneOfTheVariable(): void
    {
        $this->assertMatchesRegularExpression('/^\d+\.\d+\.\d+$/', Library::version());
    }

    public function testLibraryThatIsMissingIsNamed(): void
    {
        $face = new \ReflectionProperty(Library::class, 'face');
        [$kept, $file] = [$face->getValue(), getenv('TALLOWIN_LIBRARY')];
        try {
            $face->setValue(null, null);
            putenv('TALLOWIN_LIBRARY=/nonexistent/libtallowin.so');
            Library::version();
            $this->fail('a missing library loads');
        } catch (LoadException $failure) {
            $this->assertStringContainsString('/nonexistent/libtallowin.so cannot be loaded', $failure->getMessage());
            $this->assertStringContainsString('set TALLOWIN_LIBRARY to its file', $failure->getMessage());
        } finally {
            putenv("TALLOWIN_LIBRARY=$file");
            $face->setValue(null, $kept);
        }
    }
}
