#!/usr/bin/env python3
"""Makes forgeries.txt: forged confirmations, and a few genuine ones beside them. Whole numbers and pow() alone do the RSA.

  make_forgeries.py           prints the file
  make_forgeries.py --check   fails when forgeries.txt is not what it would print

Everything is drawn from a fixed seed, so every run prints the same. A forgery that aims at a careless verifier is tried on
one here first (`fools`): the script ends when that verifier refuses it, since such a row would prove nothing.
"""

import hashlib
import pathlib
import random
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent.parent / "support"))
from primes import is_probable_prime  # found by the line above

RSA = HERE.parent / "rsa"
OUTPUT = HERE / "forgeries.txt"

OK = "KVX_OK"
INVALID_SIGNATURE = "KVX_E_INVALID_SIGNATURE"
INVALID_KEY = "KVX_E_INVALID_KEY"
INVALID_FORMAT = "KVX_E_INVALID_FORMAT"
MISSING_SIGNATURE = "KVX_E_MISSING_SIGNATURE"
NOT_FOUND = "KVX_E_NOT_FOUND"
NO_KEY_ID = "KVX_E_NO_KEY_ID"

RANDOM = random.Random(512)


# Numbers and bytes.

def size_of(number):
    return (number.bit_length() + 7) // 8


def to_bytes(number, size=None):
    return number.to_bytes(size_of(number) if size is None else size, "big")


def to_number(data):
    return int.from_bytes(data, "big")


def cube_root(number):
    """The smallest number whose cube is not below `number`."""
    low, high = 0, 1 << (number.bit_length() // 3 + 2)
    while low < high:
        middle = (low + high) // 2
        low, high = (middle + 1, high) if middle ** 3 < number else (low, middle)
    return low


def cube_root_of_low_bits(number, bits):
    """A number whose cube ends in the lowest `bits` bits of `number`, which is odd."""
    root = 1
    for bit in range(bits):
        if (root ** 3 ^ number) >> bit & 1:
            root |= 1 << bit
    assert (root ** 3 ^ number) & ((1 << bits) - 1) == 0
    return root


def is_prime(number):
    if any(number % small == 0 for small in (2, 3, 5, 7, 11, 13, 17, 19, 23, 29)):
        return False
    return is_probable_prime(number, (RANDOM.randrange(2, number - 1) for _ in range(24)))


def prime_of(bits, exponent):
    while True:
        number = RANDOM.getrandbits(bits) | 3 << bits - 2 | 1
        if (number - 1) % exponent != 0 and is_prime(number):
            return number


# Keys.

def der(tag, content):
    size = len(content)
    length = bytes([size]) if size < 128 else bytes([0x80 + size_of(size)]) + to_bytes(size)
    return bytes([tag]) + length + content


def integer(number):
    return der(2, to_bytes(number, number.bit_length() // 8 + 1))


def unsigned(number):
    """An INTEGER without the zero byte that keeps a set top bit from being a sign."""
    return der(2, to_bytes(number))


def numbers_in(blob):
    """The numbers of a DER sequence of INTEGERs."""
    def header(at):
        length, at = blob[at + 1], at + 2
        if length >= 128:
            length, at = to_number(blob[at:at + length - 128]), at + length - 128
        return at, at + length

    at, end = header(0)
    numbers = []
    while at < end:
        start, at = header(at)
        numbers.append(to_number(blob[start:at]))
    return numbers


class Key:
    """An RSA key; `blob` is the public half as a key directory holds it."""

    def __init__(self, n, e, d=None, blob=None):
        self.n, self.e, self.d = n, e, d
        self.size = size_of(n)
        self.blob = der(0x30, integer(n) + integer(e)) if blob is None else blob

    def power(self, block):
        """The signature that opens to `block`, a number or bytes."""
        return pow(block if isinstance(block, int) else to_number(block), self.d, self.n)

    def other(self, blob):
        """The same key in another form."""
        return Key(self.n, self.e, self.d, blob)


def made_key(bits, exponent):
    p, q = prime_of(bits // 2, exponent), prime_of(bits - bits // 2, exponent)
    return Key(p * q, exponent, pow(exponent, -1, (p - 1) * (q - 1)))


def stored_key(text):
    _, n, e, d = numbers_in(bytes.fromhex(text))[:4]
    return Key(n, e, d)


# Messages and their signatures.

def widened(text, high=0xFF):
    return b"".join(bytes([byte, high if byte >= 0x80 else 0]) for byte in text)


def sha1(data):
    return hashlib.sha1(data).digest()


def digest(text):
    return sha1(widened(text))


def block_of(payload, size, kind=1, fill=None):
    """The block that is raised to the private exponent: 00, the kind, the padding, 00, the payload."""
    fill = b"\xff" * (size - 3 - len(payload)) if fill is None else fill
    return bytes([0, kind]) + fill + b"\0" + payload


def spelled(signature, size):
    return (signature if isinstance(signature, bytes) else to_bytes(signature, size)).hex()


def signed(key, text):
    return spelled(key.power(block_of(digest(text), key.size)), key.size)


DIGEST_INFO = {
    "sha1": bytes.fromhex("3021300906052b0e03021a05000414"),
    "sha1 without parameters": bytes.fromhex("301f300706052b0e03021a0414"),
    "sha256": bytes.fromhex("3031300d060960864801650304020105000420"),
    "md5": bytes.fromhex("3020300c06082a864886f70d020505000410"),
}


# Careless verifiers. Each gets the opened block, as long as the modulus, and the digest.

def opened(key, signature):
    return to_bytes(pow(to_number(bytes.fromhex(signature)), key.e, key.n), key.size)


def payload_of(block):
    return block[block.index(b"\0", 2) + 1:] if b"\0" in block[2:] else b""


FOOLED = {
    "the end of the block": lambda block, wanted: block.endswith(wanted),
    "the start of the payload": lambda block, wanted: payload_of(block).startswith(wanted),
    "any padding": lambda block, wanted: block[0] == 0 and payload_of(block) == wanted,
    "the digest anywhere": lambda block, wanted: wanted in block,
    "19 bytes": lambda block, wanted: payload_of(block)[:19] == wanted[:19],
    "the payload without leading zeros": lambda block, wanted: payload_of(block).lstrip(b"\0") == wanted.lstrip(b"\0"),
    "the payload without zeros at the end":
        lambda block, wanted: payload_of(block).rstrip(b"\0") == wanted.rstrip(b"\0"),
    "the payload as a C string": lambda block, wanted: payload_of(block).split(b"\0")[0] == wanted.split(b"\0")[0],
}


# The file.

ROWS = []
KEYS = {}


def named(name, key):
    KEYS[name] = key
    return name


def add(group, what, code, text, signature, keys, fools=None):
    """`keys` gives the file names under keys/public and the names of their keys."""
    if fools is not None:
        key = KEYS[keys["server"]]
        assert FOOLED[fools](opened(key, signature), digest(text)), f"{group}: {what}: does not fool {fools}"
    ROWS.append((group, what, code, text, signature, keys))


def escaped(data):
    data = data if isinstance(data, bytes) else data.encode("latin-1")
    text = "".join(chr(byte) if 0x20 <= byte < 0x7F and byte != 0x25 else f"%{byte:02x}" for byte in data)
    return text[:-1] + "%20" if text.endswith(" ") else text


def confirmation(token="t-1", amount="12.50", extra="", key_id="server"):
    return f'<KVX MSGTYPE="PayConfirm" KEYID="{key_id}" TOKEN="{token}" AMOUNT="{amount}"{extra}/>'.encode("latin-1")


def token_where(fits):
    """The confirmation of the first token that fits."""
    return next(text for text in (confirmation(f"t-{number}") for number in range(1, 100000)) if fits(text))


def flipped(data, bit):
    changed = bytearray(data)
    changed[bit // 8] ^= 1 << bit % 8
    return bytes(changed)


SERVER = stored_key((RSA / "key512.private.hex").read_text().replace("\n", ""))
SMALL = made_key(512, 3)
LARGE = made_key(1024, 3)
ALONE = {"server": named("server", SERVER)}
PAIR = {**ALONE, "other": named("other", made_key(512, 65537))}
CUBES = {"server": named("cubes", LARGE)}
CUBES512 = {"server": named("cubes-512", SMALL)}
OTHER = KEYS["other"]
TEXT = confirmation()
GOOD = signed(SERVER, TEXT)
D = digest(TEXT)
SIZE = SERVER.size


def crafted(group, what, block, fools=None, key=SERVER, keys=None, code=INVALID_SIGNATURE):
    """A row whose signature opens to `block`."""
    add(group, what, code, TEXT, spelled(key.power(block), key.size), keys or ALONE, fools)


def genuine():
    add("genuine", "the confirmation that the others are made of", OK, TEXT, GOOD, ALONE)
    add("genuine", "under a key of 1024 bits with the exponent 3", OK, TEXT, signed(LARGE, TEXT), CUBES)
    add("genuine", "under a key of 512 bits with the exponent 3", OK, TEXT, signed(SMALL, TEXT), CUBES512)
    high = confirmation(extra=' SHOP="Caf\xe9 \x80\xff"')
    add("genuine", "with bytes of 80 and above", OK, high, signed(SERVER, high), ALONE)


def changed_messages():
    for bit in (0, 8 * 15, 8 * TEXT.index(b"t-1"), 8 * TEXT.index(b"12.50") + 1, 8 * len(TEXT) - 1):
        text = flipped(TEXT, bit)
        broken = not text.startswith(b"<KVX ") or not text.endswith(b"/>")
        add("flipped bit in the data", f"bit {bit}", INVALID_FORMAT if broken else INVALID_SIGNATURE, text, GOOD, ALONE)
    for bit in (0, 7, 8 * 32, 8 * SIZE - 1):
        signature = flipped(bytes.fromhex(GOOD), bit).hex()
        add("flipped bit in the signature", f"bit {bit}", INVALID_SIGNATURE, TEXT, signature, ALONE)
    for at in range(6):
        text = confirmation(key_id=flipped(b"server", 8 * at).decode())
        add("flipped bit in the key id", f"letter {at}", NOT_FOUND, text, GOOD, ALONE)
    add("raised amount", "one more digit", INVALID_SIGNATURE, confirmation(amount="12.500"), GOOD, ALONE)
    add("raised amount", "another number", INVALID_SIGNATURE, confirmation(amount="99.50"), GOOD, ALONE)
    add("other type", "a PayInit becomes a PayConfirm", INVALID_SIGNATURE, TEXT,
        signed(SERVER, TEXT.replace(b"PayConfirm", b"PayInit")), ALONE)
    add("signature of another text", "another token", INVALID_SIGNATURE, TEXT, signed(SERVER, confirmation("t-2")), ALONE)
    add("signature of another text", "the empty text", INVALID_SIGNATURE, TEXT, signed(SERVER, b""), ALONE)
    add("signature of another text", "the attributes alone", INVALID_SIGNATURE, TEXT, signed(SERVER, TEXT[5:-2]), ALONE)
    add("signature of another text", "the text and a line end", INVALID_SIGNATURE, TEXT, signed(SERVER, TEXT + b"\n"), ALONE)


def keys_of_others():
    add("key of the directory", "another key signed, the server's is named", INVALID_SIGNATURE, TEXT, signed(OTHER, TEXT), PAIR)
    text = confirmation(key_id="other")
    add("key of the directory", "the server signed, another key is named", INVALID_SIGNATURE, text, signed(SERVER, text), PAIR)
    add("key of the directory", "renamed after signing", INVALID_SIGNATURE, text, GOOD, PAIR)
    add("key of the directory", "another key signed and is named: any key of the directory counts", OK, text,
        signed(OTHER, text), PAIR)
    stranger = made_key(512, 65537)
    add("unknown key", "a stranger signed, the server is named", INVALID_SIGNATURE, TEXT, signed(stranger, TEXT), PAIR)
    text = confirmation(key_id="stranger")
    add("unknown key", "a stranger signed and is named", NOT_FOUND, text, signed(stranger, text), PAIR)
    add("unknown key", "no key is named", NO_KEY_ID, TEXT.replace(b' KEYID="server"', b""), GOOD, PAIR)
    add("unknown key", "the empty name", NOT_FOUND, confirmation(key_id=""), GOOD, PAIR)
    same = Key(SERVER.n, 3)
    add("key of the same modulus", "the exponent is another one", INVALID_SIGNATURE, TEXT, GOOD,
        {"server": named("same-modulus", same)})


def digest_infos():
    for name, prefix in DIGEST_INFO.items():
        wanted = {"sha256": hashlib.sha256, "md5": hashlib.md5}.get(name, hashlib.sha1)(widened(TEXT)).digest()
        payload = prefix + wanted
        fools = "the end of the block" if wanted == D else None
        crafted("digest in a DigestInfo", name, block_of(payload, SIZE), fools)
    crafted("other digest", "the first 20 bytes of a SHA-256", block_of(hashlib.sha256(widened(TEXT)).digest()[:20], SIZE))
    crafted("other digest", "an MD5", block_of(hashlib.md5(widened(TEXT)).digest(), SIZE))
    crafted("other digest", "an MD5 with zeros behind", block_of(hashlib.md5(widened(TEXT)).digest() + bytes(4), SIZE))
    crafted("other digest", "the digest of the digest", block_of(sha1(D), SIZE))
    crafted("other digest", "the digest's hexadecimal text", block_of(D.hex().encode(), SIZE))
    crafted("other digest", "the digest backwards", block_of(D[::-1], SIZE))


def paddings():
    fill = b"\xff" * (SIZE - 23)
    random_fill = bytes(RANDOM.randrange(1, 256) for _ in fill)
    crafted("block type", "0, zeros", block_of(D, SIZE, 0, bytes(len(fill))), "the end of the block")
    crafted("block type", "0, FF", block_of(D, SIZE, 0), "any padding")
    crafted("block type", "2, random padding", block_of(D, SIZE, 2, random_fill), "any padding")
    crafted("block type", "2, FF", block_of(D, SIZE, 2), "any padding")
    for kind in (3, 0x81, 0xFF):
        crafted("block type", f"{kind}", block_of(D, SIZE, kind), "any padding")
    crafted("first byte", "1 for 0", b"\1" + block_of(D, SIZE)[1:], "the end of the block")
    for at in (0, 7, 8, len(fill) // 2, len(fill) - 1):
        for byte in (0xFE, 0x7F, 0x01):
            changed = fill[:at] + bytes([byte]) + fill[at + 1:]
            crafted("padding byte replaced", f"{byte:02x} at {at}", block_of(D, SIZE, 1, changed), "any padding")
        cut = fill[:at] + b"\0" + fill[at + 1:]
        crafted("padding ends early", f"zero byte at {at}", block_of(D, SIZE, 1, cut), "the end of the block")
    crafted("padding byte replaced", "all of them random", block_of(D, SIZE, 1, random_fill), "any padding")
    for count in (0, 1, 7):
        block = block_of(D, SIZE, 1, b"\xff" * count)
        crafted("fewer than 8 bytes of padding", f"{count}, zeros before the block", block.rjust(SIZE, b"\0"),
                "the end of the block")
        crafted("fewer than 8 bytes of padding", f"{count}, zeros behind the digest", block.ljust(SIZE, b"\0"),
                "the payload without zeros at the end")
        garbage = bytes(RANDOM.randrange(1, 256) for _ in range(SIZE - len(block)))
        crafted("fewer than 8 bytes of padding", f"{count}, garbage behind the digest", block + garbage,
                "the start of the payload")
    crafted("no zero byte before the digest", "FF in its place", b"\0\1" + fill + b"\xff" + D, "the end of the block")
    crafted("no zero byte before the digest", "01 in its place", b"\0\1" + fill + b"\1" + D, "the end of the block")
    crafted("no padding", "the digest alone", D.rjust(SIZE, b"\0"), "the end of the block")
    crafted("no padding", "the digest at the top", b"\0" + D.ljust(SIZE - 1, b"\0"), "the digest anywhere")
    crafted("no payload", "padding to the end", b"\0\1" + b"\xff" * (SIZE - 2))
    crafted("no payload", "padding and the zero byte", block_of(b"", SIZE))
    crafted("other padding", "6B BB .. BA digest CC", b"\x6b" + b"\xbb" * (SIZE - 23) + b"\xba" + D + b"\xcc",
            "the digest anywhere")
    crafted("other padding", "the number n - block", SERVER.n - to_number(block_of(D, SIZE)))


def payloads():
    room = SIZE - 11 - 20
    garbage = bytes(RANDOM.randrange(1, 256) for _ in range(room))
    crafted("garbage behind the digest", "one byte", block_of(D + b"A", SIZE), "the start of the payload")
    crafted("garbage behind the digest", "one zero byte: a payload of 21", block_of(D + b"\0", SIZE),
            "the payload without zeros at the end")
    crafted("garbage behind the digest", "all the room", block_of(D + garbage, SIZE), "the start of the payload")
    crafted("garbage before the digest", "one byte", block_of(b"A" + D, SIZE), "the end of the block")
    crafted("garbage before the digest", "one zero byte: a payload of 21", block_of(b"\0" + D, SIZE),
            "the payload without leading zeros")
    crafted("garbage before the digest", "all the room", block_of(garbage + D, SIZE), "the end of the block")
    crafted("digest twice", "one behind the other", block_of(D + D, SIZE), "the start of the payload")
    crafted("payload of 19 bytes", "without the last", block_of(D[:19], SIZE), "19 bytes")
    crafted("payload of 19 bytes", "without the first", block_of(D[1:], SIZE))
    crafted("digest shifted", "by one byte, zero behind", block_of(D[1:] + b"\0", SIZE))
    crafted("digest shifted", "by one byte, zero before", block_of(b"\0" + D[:19], SIZE))
    crafted("digest shifted", "by one bit", block_of(to_bytes(to_number(D) >> 1, 20), SIZE))
    for at in (0, 19):
        changed = bytearray(D)
        changed[at] ^= 0x80
        crafted("digest with one bit off", f"byte {at}", block_of(bytes(changed), SIZE))

    def row_of(fits, group, what, payload, fools):
        text = token_where(lambda candidate: fits(digest(candidate)))
        add(group, what, INVALID_SIGNATURE, text, spelled(SERVER.power(block_of(payload(digest(text)), SIZE)), SIZE), ALONE,
            fools)

    row_of(lambda d: d[0] == 0, "payload of 19 bytes", "a leading zero of the digest left out", lambda d: d[1:],
           "the payload without leading zeros")
    row_of(lambda d: d[-1] == 0, "payload of 19 bytes", "a zero at the digest's end left out", lambda d: d[:-1],
           "the payload without zeros at the end")
    row_of(lambda d: 0 in d[:6] and d[0], "digest up to its first zero byte", "other bytes behind it",
           lambda d: d[:d.index(0) + 1].ljust(20, b"A"), "the payload as a C string")


def cube_roots():
    """Forgeries without a private key: for the exponent 3 a cube that is below the modulus has the block's important part."""
    def forged(group, what, keys, signature, fools):
        add(group, what, INVALID_SIGNATURE, TEXT, spelled(signature, KEYS[keys["server"]].size), keys, fools)

    def top(payload, padding):
        prefix = block_of(payload, 0, 1, b"\xff" * padding)
        shift = 8 * (LARGE.size - len(prefix))
        root = cube_root(to_number(prefix) << shift)
        assert root ** 3 >> shift == to_number(prefix)
        return root

    for padding in (0, 1, 8):
        forged("cube root", f"garbage behind the digest, {padding} bytes of padding", CUBES, top(D, padding),
               "the start of the payload")
    forged("cube root", "garbage behind a digest in a DigestInfo", CUBES, top(DIGEST_INFO["sha1"] + D, 1), "the digest anywhere")

    text = token_where(lambda candidate: digest(candidate)[-1] & 1)
    wanted = digest(text)
    for key, keys, bits in ((LARGE, CUBES, "1024"), (SMALL, CUBES512, "512")):
        root = cube_root_of_low_bits(to_number(b"\0" + wanted), 8 * 21)
        add("cube root", f"the digest at the end of a key of {bits} bits", INVALID_SIGNATURE, text, spelled(root, key.size), keys,
            "the end of the block")
        start = cube_root(to_number(b"\0\1" + b"\xff" * 8) << 8 * (key.size - 10))
        both = (start >> 168 << 168) + root
        add("cube root", f"padding before, the digest at the end, garbage between, {bits} bits", INVALID_SIGNATURE, text,
            spelled(both, key.size), keys, "the end of the block")
    perfect = cube_root(to_number(block_of(D, SMALL.size)))
    forged("cube root", "the nearest cube of the whole block, 512 bits", CUBES512, perfect, None)


def special_numbers():
    n = SERVER.n
    for number, what in ((0, "0"), (1, "1"), (2, "2"), (n - 1, "n - 1"), (n, "n"), (n + 1, "n + 1"), (n // 2, "n / 2")):
        add("special number", what, INVALID_SIGNATURE, TEXT, spelled(number, SIZE), ALONE)
    add("special number", "all bits set", INVALID_SIGNATURE, TEXT, "ff" * SIZE, ALONE)
    add("special number", "the block itself", INVALID_SIGNATURE, TEXT, block_of(D, SIZE).hex(), ALONE)
    add("special number", "the digest itself", INVALID_SIGNATURE, TEXT, D.hex(), ALONE)
    add("special number", "n - signature", INVALID_SIGNATURE, TEXT, spelled(n - int(GOOD, 16), SIZE), ALONE)
    add("special number", "the signature's inverse", INVALID_SIGNATURE, TEXT, spelled(pow(int(GOOD, 16), -1, n), SIZE), ALONE)
    text = token_where(lambda candidate: int(signed(SERVER, candidate), 16) + n < 1 << 8 * SIZE)
    small = int(signed(SERVER, text), 16)
    add("signature plus the modulus", "as long as the modulus", INVALID_SIGNATURE, text, spelled(small + n, SIZE), ALONE)
    add("signature plus the modulus", "one byte longer", INVALID_SIGNATURE, TEXT, spelled(int(GOOD, 16) + n, SIZE + 1), ALONE)
    product = int(signed(SERVER, confirmation("t-2")), 16) * int(signed(SERVER, confirmation("t-3")), 16) % n
    add("product of signatures", "of two confirmations", INVALID_SIGNATURE, TEXT, spelled(product, SIZE), ALONE)
    add("product of signatures", "a square", INVALID_SIGNATURE, TEXT, spelled(pow(int(GOOD, 16), 2, n), SIZE), ALONE)
    twice = SERVER.power(to_number(block_of(D, SIZE)) * 2 % n)
    add("product of signatures", "of the block's double", INVALID_SIGNATURE, TEXT, spelled(twice, SIZE), ALONE)


def lengths():
    for count in (1, 2, 32, 63):
        add("shorter signature", f"{count} bytes off the end", INVALID_SIGNATURE, TEXT, GOOD[:-2 * count], ALONE)
        add("shorter signature", f"{count} bytes off the start", INVALID_SIGNATURE, TEXT, GOOD[2 * count:], ALONE)
    for more in ("00", "ff", "00" * 64, GOOD):
        add("longer signature", f"{len(more) // 2} bytes behind, {more[:2]}", INVALID_SIGNATURE, TEXT, GOOD + more, ALONE)
        add("longer signature", f"{len(more) // 2} bytes before, {more[:2]}", INVALID_SIGNATURE, TEXT, more + GOOD, ALONE)
    add("longer signature", "4096 bytes, zeros before", INVALID_SIGNATURE, TEXT, GOOD.rjust(2 * 4096, "0"), ALONE)
    add("longer signature", "4097 bytes", INVALID_KEY, TEXT, GOOD.rjust(2 * 4097, "0"), ALONE)
    add("empty signature", "no text", MISSING_SIGNATURE, TEXT, "", ALONE)
    add("empty signature", "one digit, no byte", INVALID_SIGNATURE, TEXT, "0", ALONE)
    text = token_where(lambda candidate: signed(SERVER, candidate).startswith("00"))
    add("leading zero stripped", "the same number in one byte less", OK, text, signed(SERVER, text)[2:], ALONE)


def spellings():
    add("other spelling", "upper case", OK, TEXT, GOOD.upper(), ALONE)
    for digit in "0fA":
        add("other spelling", f"an odd digit at the end, {digit}", OK, TEXT, GOOD + digit, ALONE)
    add("odd digit", "at the start", INVALID_SIGNATURE, TEXT, "0" + GOOD, ALONE)
    add("odd digit", "one missing at the end", INVALID_SIGNATURE, TEXT, GOOD[:-1], ALONE)
    add("odd digit", "one missing at the start", INVALID_SIGNATURE, TEXT, GOOD[1:], ALONE)
    for space in (" ", "\t", "\n", "\r\n"):
        for what, signature in (("before", space + GOOD), ("behind", GOOD + space), ("inside", GOOD[:2] + space + GOOD[2:])):
            add("white space in the signature", f"{escaped(space)} {what}", INVALID_KEY, TEXT, signature, ALONE)
    add("prefix", "0x", INVALID_KEY, TEXT, "0x" + GOOD, ALONE)
    add("prefix", "a sign", INVALID_KEY, TEXT, "-" + GOOD, ALONE)
    add("separators", "colons", INVALID_KEY, TEXT, ":".join(GOOD[at:at + 2] for at in range(0, len(GOOD), 2)), ALONE)
    add("zero byte in the signature", "before", INVALID_KEY, TEXT, "\0" + GOOD, ALONE)
    add("zero byte in the signature", "inside", INVALID_KEY, TEXT, GOOD[:64] + "\0" + GOOD[64:], ALONE)
    add("zero byte in the signature", "behind", INVALID_KEY, TEXT, GOOD + "\0", ALONE)
    add("other digits", "full-width", INVALID_KEY, TEXT, "\xef\xbc\x90" + GOOD[1:], ALONE)
    add("other digits", "a letter g", INVALID_KEY, TEXT, GOOD[:-1] + "g", ALONE)
    add("other digits", "percent-encoded", INVALID_KEY, TEXT, "".join(f"%{ord(digit):02x}" for digit in GOOD), ALONE)
    add("other order", "bytes backwards", INVALID_SIGNATURE, TEXT, bytes.fromhex(GOOD)[::-1].hex(), ALONE)
    add("other order", "digits backwards", INVALID_SIGNATURE, TEXT, GOOD[::-1], ALONE)


def odd_keys():
    def row(group, what, key, code=INVALID_SIGNATURE, signature=None):
        keys = {"server": named(f"{group} {what}".replace(" ", "-"), key)}
        add(group, what, code, TEXT, signed(key, TEXT) if signature is None else signature, keys)

    n, e, d = SERVER.n, SERVER.e, SERVER.d
    block = block_of(D, SIZE)
    row("exponent 1", "the block is its own signature", Key(n, 1), OK, block.hex())
    row("exponent 0", "everything opens to 1", Key(n, 0), INVALID_SIGNATURE, block.hex())
    row("exponent not below the modulus", "the modulus", Key(n, n), INVALID_SIGNATURE, GOOD)
    row("exponent not below the modulus", "a longer number", Key(n, (n << 64) + 1), INVALID_SIGNATURE, GOOD)
    even = Key(n + 1, 1)
    row("even modulus", "exponent 1", even, INVALID_SIGNATURE, block.hex())
    row("even modulus", "exponent 65537", Key(n + 1, e), INVALID_SIGNATURE, GOOD)
    for modulus in (0, 1, 3, 2 ** 64 - 59):
        row("tiny modulus", f"{modulus}", Key(modulus, 3), INVALID_SIGNATURE, GOOD)
    tiny = made_key(240, 65537)
    row("tiny modulus", "240 bits, one byte too few for digest and padding", tiny, INVALID_SIGNATURE,
        spelled(tiny.power(block_of(D, 30, 1, b"\xff" * 7)), 30))
    row("tiny modulus", "248 bits, the least that works", made_key(248, 65537), OK)
    row("huge modulus", "1024 bits, the most that works", made_key(1024, 65537), OK)
    row("huge modulus", "1032 bits, rightly signed", made_key(1032, 65537))
    row("huge modulus", "2048 bits, rightly signed", made_key(2048, 65537))
    row("huge modulus", "3520 bits: 1024 bytes of text are the most", Key(2 ** 3520 - 1, 3), INVALID_SIGNATURE, GOOD)
    row("huge modulus", "8200 bits: no room for it", Key(2 ** 8200 - 1, 3), INVALID_KEY, GOOD)

    row("negative numbers", "a modulus with its sign bit set counts as positive",
        SERVER.other(der(0x30, unsigned(n) + integer(e))), OK)
    row("negative numbers", "the true negative of the modulus",
        SERVER.other(der(0x30, der(2, to_bytes((1 << 8 * SIZE + 8) - n)) + integer(e))), INVALID_SIGNATURE, GOOD)
    row("negative numbers", "the exponent -1", SERVER.other(der(0x30, integer(n) + der(2, b"\xff"))), INVALID_SIGNATURE, GOOD)
    whole = SERVER.blob
    row("bytes behind the key", "zeros", SERVER.other(whole + bytes(8)), OK)
    row("bytes behind the key", "another key", SERVER.other(whole + OTHER.blob), OK)
    row("bytes behind the key", "the signing key stands second", SERVER.other(OTHER.blob + whole))
    row("bytes in the key", "a third number", SERVER.other(der(0x30, integer(n) + integer(e) + integer(d))))
    row("bytes in the key", "the exponent twice", SERVER.other(der(0x30, integer(n) + integer(e) + integer(e))))
    row("bytes in the key", "the modulus alone", SERVER.other(der(0x30, integer(n))))
    row("bytes in the key", "exponent first", SERVER.other(der(0x30, integer(e) + integer(n))))
    row("bytes in the key", "an indefinite length", SERVER.other(b"\x30\x80" + integer(n) + integer(e) + bytes(2)), OK)
    row("other form of key", "the private key", SERVER.other(bytes.fromhex((RSA / "key512.private.hex").read_text())))
    row("other form of key", "a SubjectPublicKeyInfo", SERVER.other(bytes.fromhex((RSA / "key512.spki.hex").read_text())))
    row("other form of key", "nothing", SERVER.other(b""))
    row("other form of key", "one byte less", SERVER.other(whole[:-1]))


def widenings():
    high = confirmation(extra=' SHOP="Caf\xe9"')

    def row(what, data, code=INVALID_SIGNATURE):
        add("other units", what, code, high, spelled(SERVER.power(block_of(sha1(data), SIZE)), SIZE), ALONE)

    row("zeros above 7F, as the merchant signs", widened(high, 0))
    row("bare bytes", high)
    row("big-endian", b"".join(bytes([0xFF if byte >= 0x80 else 0, byte]) for byte in high))
    row("a unit of zeros behind", widened(high) + bytes(2))
    row("the last unit without its high byte", widened(high)[:-1])
    row("UTF-16 of the UTF-8 text", high.decode("latin-1").encode().decode("latin-1").encode("utf-16-le"))
    row("32-bit units", b"".join(bytes([byte]) + (b"\xff" if byte >= 0x80 else b"\0") * 3 for byte in high))
    twin = bytes(widened(TEXT))
    add("other units", "a text that holds the units themselves", INVALID_FORMAT, twin,
        spelled(SERVER.power(block_of(sha1(twin), SIZE)), SIZE), ALONE)
    add("other units", "E9 written in UTF-8", INVALID_SIGNATURE, high.replace(b"\xe9", b"\xc3\xa9"), signed(SERVER, high), ALONE)


def rewritten():
    def row(group, what, text, code=INVALID_SIGNATURE, signature=GOOD, keys=None):
        add(group, what, code, text, signature, keys or ALONE)

    row("written anew", "an end tag", TEXT.replace(b"/>", b"></KVX>"))
    row("written anew", "single quotes", TEXT.replace(b'"', b"'"))
    row("written anew", "no quotes", TEXT.replace(b'"', b"", 2))
    row("written anew", "an element around it", b"<X>" + TEXT + b"</X>", INVALID_FORMAT)
    row("written anew", "a lower-case tag", TEXT.replace(b"KVX", b"kvx"), INVALID_FORMAT)
    row("written anew", "a character as an entity", TEXT.replace(b"t-1", b"t-1&lt;"))
    row("written anew", "a text inside", TEXT.replace(b"/>", b">x</KVX>"))
    row("written anew", "a byte order mark", b"\xef\xbb\xbf" + TEXT)
    row("written anew", "a declaration", b"<?xml version='1.0'?>" + TEXT, INVALID_FORMAT)
    swapped = b'<KVX KEYID="server" MSGTYPE="PayConfirm" TOKEN="t-1" AMOUNT="12.50"/>'
    row("order of attributes", "type and key changed places", swapped)
    row("attribute added", "a new one", TEXT.replace(b"/>", b' STATE="paid"/>'))
    row("attribute twice", "the same value", TEXT.replace(b"/>", b' AMOUNT="12.50"/>'))
    row("attribute twice", "another value", TEXT.replace(b"/>", b' AMOUNT="99.00"/>'))
    row("attribute twice", "before the first", TEXT.replace(b" AMOUNT", b' AMOUNT="99.00" AMOUNT'))
    row("attribute left out", "the amount", TEXT.replace(b' AMOUNT="12.50"', b""))

    second = confirmation("t-2", key_id="other")
    row("two elements", "another before", second + TEXT, INVALID_SIGNATURE, GOOD, PAIR)
    row("two elements", "another behind", TEXT + second, INVALID_SIGNATURE, GOOD, PAIR)
    row("two elements", "the second's signature over the second", second + TEXT, INVALID_SIGNATURE, GOOD, PAIR)
    both = TEXT + second
    row("two elements", "signed whole by the first's key: the first counts", both, OK, signed(SERVER, both), PAIR)
    row("two elements", "signed whole by the second's key", both, INVALID_SIGNATURE, signed(OTHER, both), PAIR)

    def twice(first, last):
        return f'<KVX MSGTYPE="PayConfirm" KEYID="{first}" TOKEN="t-1" KEYID="{last}"/>'.encode()
    row("key id twice", "a known one behind", TEXT.replace(b" TOKEN", b' KEYID="other" TOKEN'), INVALID_SIGNATURE, GOOD, PAIR)
    row("key id twice", "signed: the last counts", twice("stranger", "server"), OK, signed(SERVER, twice("stranger", "server")))
    row("key id twice", "signed: the last is unknown", twice("server", "stranger"), NOT_FOUND,
        signed(SERVER, twice("server", "stranger")))
    row("key id twice", "signed by the first's key", twice("server", "other"), INVALID_SIGNATURE,
        signed(SERVER, twice("server", "other")), PAIR)
    row("key id in other letters", "Server", confirmation(key_id="Server"), NOT_FOUND)
    row("key id in other letters", "keyid", TEXT.replace(b"KEYID", b"keyid"), NO_KEY_ID)
    row("key id with entities", "a character reference vanishes", confirmation(key_id="&#115;erver"), NOT_FOUND)

    row("zero byte in the text", "behind", TEXT + b"\0")
    row("zero byte in the text", "before", b"\0" + TEXT)
    row("zero byte in the text", "in a value", TEXT.replace(b"t-1", b"t-1\0"))
    row("zero byte in the text", "a second message behind", TEXT + b"\0" + confirmation("t-2"))
    row("zero byte in the key id", "behind", confirmation(key_id="server\0"), NOT_FOUND)
    row("zero byte in the key id", "before", confirmation(key_id="\0server"), NOT_FOUND)
    for what, old, new in (("two spaces", b" TOKEN", b"  TOKEN"), ("a tab", b" TOKEN", b"\tTOKEN"),
                           ("a line end", b" TOKEN", b"\nTOKEN"), ("a line end behind", b"/>", b"/>\n"),
                           ("a space before the end", b"/>", b" />"), ("a space before", b"<KVX", b" <KVX"),
                           ("a space in the tag", b"<KVX", b"< KVX"), ("spaces around =", b"TOKEN=", b"TOKEN = ")):
        row("other white space", what, TEXT.replace(old, new))
    row("other white space", "a carriage return and a line end behind", TEXT + b"\r\n")


def page():
    for make in (genuine, changed_messages, keys_of_others, digest_infos, paddings, payloads, cube_roots, special_numbers, lengths,
                 spellings, odd_keys, widenings, rewritten):
        make()
    lines = ["# Forged confirmations. Made by make_forgeries.py: change that, not this file. README.md tells how to read it.", ""]
    lines += [f"key {name} {key.blob.hex()}" for name, key in KEYS.items()]
    for group, what, code, text, signature, keys in ROWS:
        lines += ["", f"row {group}: {what}", f"result {code}"]
        lines += [f"file {file} {key}" for file, key in keys.items()]
        lines += [f"text {escaped(text)}".rstrip(), f"signature {escaped(signature)}".rstrip()]
    return "\n".join(lines) + "\n"


def main(arguments):
    if arguments not in ([], ["--check"]):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    if not arguments:
        sys.stdout.write(page())
        return 0
    if OUTPUT.read_text() == page():
        return 0
    print(f"{OUTPUT.name}: make it anew with {pathlib.Path(__file__).name}", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
