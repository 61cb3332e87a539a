"""A merchant in Python's standard library alone, written after docs/formats.md: keys, signatures, messages, requests.

It is a second opinion on the sandbox, so nothing here comes from the component or from the sandbox. A message is bytes.
Attribute values are str in UTF-8; a byte that is no UTF-8 stands in them as Python's surrogate escape.
"""

import hashlib
import html.parser
import http.client
import re
import secrets
import typing
import urllib.parse

from primes import is_probable_prime

ANSWER_SECONDS = 30

# What the high half of a unit holds for a byte of 0x80 or above.
ZERO_EXTENDED = 0x00  # merchants sign so
SIGN_EXTENDED = 0xFF  # the service signs so

ENTITIES = {"&": "&amp;", '"': "&quot;", "'": "&apos;", "<": "&lt;", ">": "&gt;"}
CHARACTERS = {entity: character for character, entity in ENTITIES.items()}


# Keys


def is_prime(number):
    """For odd numbers above 3. A composite number passes with a chance of 1 in 4 to the 40th at most."""
    return is_probable_prime(number, (2 + secrets.randbelow(number - 3) for _ in range(40)))


def random_prime(bits, exponent):
    """A prime of `bits` bits, the two highest set, that goes with the public exponent `exponent`, a prime."""
    small_primes = [number for number in range(3, 1000, 2) if all(number % d for d in range(3, number, 2))]
    while True:
        number = secrets.randbits(bits) | 3 << (bits - 2) | 1
        if all(number % prime for prime in small_primes) and number % exponent != 1 and is_prime(number):
            return number


def der(tag, content):
    length = len(content)
    if length < 0x80:
        return bytes([tag, length]) + content
    size = (length.bit_length() + 7) // 8
    return bytes([tag, 0x80 | size]) + length.to_bytes(size, "big") + content


def der_of_integers(numbers):
    """A SEQUENCE of INTEGERs, none of them negative."""
    return der(0x30, b"".join(der(0x02, number.to_bytes(number.bit_length() // 8 + 1, "big")) for number in numbers))


def integers_of_der(encoded):
    """What der_of_integers() was given. ValueError for any other bytes."""

    def take(rest, tag):
        if len(rest) < 2 or rest[0] != tag:
            raise ValueError("another type was expected")
        start, length = 2, rest[1]
        if length & 0x80:
            start += length & 0x7F
            length = int.from_bytes(rest[2:start], "big")
        if start + length > len(rest):
            raise ValueError("the end is missing")
        return rest[start:start + length], rest[start + length:]

    content, rest = take(encoded, 0x30)
    numbers = []
    while content:
        number, content = take(content, 0x02)
        numbers.append(int.from_bytes(number, "big"))
    if rest or der_of_integers(numbers) != encoded:
        raise ValueError("not in DER")
    return numbers


class PublicKey(typing.NamedTuple):
    modulus: int
    exponent: int

    @classmethod
    def of_blob(cls, blob):
        """From hexadecimal of DER RSAPublicKey. ValueError when it is anything else."""
        if not re.fullmatch("([0-9a-f]{2})+", blob):
            raise ValueError("not lower-case hexadecimal")
        modulus, exponent = integers_of_der(bytes.fromhex(blob))
        return cls(modulus, exponent)

    def blob(self):
        return der_of_integers(self).hex()

    def size(self):
        """Bytes of a signature."""
        return (self.modulus.bit_length() + 7) // 8

    def verifies(self, text, signature, extension):
        """Whether `signature`, in hexadecimal, is one of `text`."""
        if not re.fullmatch(f"[0-9a-f]{{{2 * self.size()}}}", signature):
            return False
        number = int(signature, 16)
        if number >= self.modulus:
            return False
        return pow(number, self.exponent, self.modulus) == padded(text, extension, self.size())


class PrivateKey:
    EXPONENT = 65537

    def __init__(self, first, second):
        """From two primes."""
        self.public = PublicKey(first * second, self.EXPONENT)
        self.first, self.second = first, second
        self.private = pow(self.EXPONENT, -1, (first - 1) * (second - 1))
        self.inverse = pow(second, -1, first)

    @classmethod
    def make(cls, bits=512):
        first = random_prime(bits // 2, cls.EXPONENT)
        second = first
        while second == first:
            second = random_prime(bits - bits // 2, cls.EXPONENT)
        return cls(first, second)

    @classmethod
    def of_der(cls, encoded):
        """From DER RSAPrivateKey."""
        return cls(*integers_of_der(encoded)[4:6])

    def sign(self, text, extension=ZERO_EXTENDED):
        """The signature of `text` in hexadecimal."""
        size = self.public.size()
        number = padded(text, extension, size)
        # Modulo each prime apart, which takes a quarter of the time (RFC 8017, section 5.1.2).
        one = pow(number, self.private % (self.first - 1), self.first)
        other = pow(number, self.private % (self.second - 1), self.second)
        signature = other + self.second * ((one - other) * self.inverse % self.first)
        return signature.to_bytes(size, "big").hex()


def padded(text, extension, size):
    """The number that the private key is applied to: the bare digest of the units in PKCS#1 v1.5 padding of type 1."""
    units = b"".join(bytes([byte, extension if byte >= 0x80 else 0]) for byte in text)
    digest = hashlib.sha1(units, usedforsecurity=False).digest()
    return int.from_bytes(b"\x00\x01" + b"\xff" * (size - len(digest) - 3) + b"\x00" + digest, "big")


class Signer(typing.NamedTuple):
    """A key under the identifier by which the service knows it."""

    key_id: str
    key: PrivateKey

    def message(self, kind, **attributes):
        return message(kind, KEYID=self.key_id, **attributes)

    def query(self, text, extension=ZERO_EXTENDED):
        """What follows the address in a URL that carries `text` signed."""
        return query(text, self.key.sign(text, extension))


# Messages


def message(kind, **attributes):
    """A message of the type `kind`, with these attributes in this order."""
    fields = {"MSGTYPE": kind, **attributes}
    text = "".join(f' {name}="{escaped(value)}"' for name, value in fields.items())
    return f"<KVX{text}/>".encode("utf-8", "surrogateescape")


def escaped(value):
    return "".join(ENTITIES.get(character, character) for character in value)


def attributes_of(text):
    """The attributes of a message. ValueError when it is not written as messages are."""
    text = text.decode("utf-8", "surrogateescape")
    if not re.fullmatch(r'<KVX( [A-Za-z0-9._-]+="([^"<>&\']|&(quot|amp|apos|lt|gt);)*")+/>', text):
        raise ValueError("not one message: " + text)
    found = re.findall(r' ([A-Za-z0-9._-]+)="([^"]*)"', text)
    attributes = {name: re.sub("&[a-z]+;", lambda match: CHARACTERS[match.group()], value) for name, value in found}
    if len(attributes) != len(found):
        raise ValueError("an attribute stands there twice: " + text)
    return attributes


def percent_encoded(text):
    return "".join(chr(byte) if chr(byte).isascii() and chr(byte).isalnum() else f"%{byte:02x}" for byte in text)


def percent_decoded(text):
    """ValueError when percent_encoded() would not have written `text`."""
    if not re.fullmatch("([A-Za-z0-9]|%[0-9a-f]{2})*", text):
        raise ValueError("not percent-encoded: " + text)
    return re.sub(b"%(..)", lambda match: bytes.fromhex(match.group(1).decode()), text.encode())


def query(text, signature=""):
    return "?DATA=" + percent_encoded(text) + ("&SIGNATURE=" + signature if signature else "")


def query_of(url):
    """The message and the signature that a URL carries, each empty when it is not there."""
    fields = dict(field.partition("=")[::2] for field in urllib.parse.urlsplit(url).query.split("&"))
    return percent_decoded(fields.get("DATA", "")), fields.get("SIGNATURE", "")


def basic_credentials(user, password):
    """The merchants' own form of Base64: zero bits instead of "=", "AAAA" on top of whole groups, 7-bit bytes only."""
    alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
    plain = re.match(b"[\x00-\x7f]*", f"{user}:{password}".encode()).group()
    filled = plain + bytes(3 - len(plain) % 3)
    number = int.from_bytes(filled, "big")
    digits = len(filled) // 3 * 4
    return "Basic " + "".join(alphabet[number >> 6 * (digits - 1 - i) & 63] for i in range(digits))


# Requests


class Unfinished(http.client.HTTPException):
    """The other side ended before its answer was whole."""


class Answer(typing.NamedTuple):
    status: int
    location: str  # empty without one
    body: bytes


class Transport:
    """How requests travel. Every wait for the other side is bounded by ANSWER_SECONDS."""

    def __init__(self, context=None):
        """`context` is what TLS trusts, an ssl.SSLContext."""
        self.context = context

    def ask(self, url, authorization="Basic OgAA"):
        """What a merchant sends: one GET of HTTP/1.0, without a Host header."""
        connection, target = self.connect(url)
        # http.client has no public switch for the version.
        connection._http_vsn, connection._http_vsn_str = 10, "HTTP/1.0"
        try:
            connection.putrequest("GET", target, skip_host=True, skip_accept_encoding=True)
            connection.putheader("Authorization", authorization)
            connection.putheader("UserAgent", "Tallowin Application Component 1.0")
            connection.endheaders()
            return self.receive(connection)
        finally:
            connection.close()

    def browse(self, url, form=None):
        """What a browser sends: a GET, or a POST of `form`. Redirects are not followed."""
        connection, target = self.connect(url)
        content = None if form is None else urllib.parse.urlencode(form)
        headers = {} if form is None else {"Content-Type": "application/x-www-form-urlencoded"}
        try:
            connection.request("GET" if form is None else "POST", target, content, {**headers, "Connection": "close"})
            return self.receive(connection)
        finally:
            connection.close()

    def connect(self, url):
        """A connection, made when it is first used, and what to ask it for."""
        parts = urllib.parse.urlsplit(url)
        target = (parts.path or "/") + ("?" + parts.query if parts.query else "")
        if parts.scheme == "https":
            return http.client.HTTPSConnection(parts.hostname, parts.port, timeout=ANSWER_SECONDS,
                                               context=self.context), target
        return http.client.HTTPConnection(parts.hostname, parts.port, timeout=ANSWER_SECONDS), target

    def receive(self, connection):
        """The answer to what was sent. Unfinished when it is not whole."""
        answer = connection.getresponse()
        body = answer.read()
        # Headers that were cut off look like headers that end; the length comes after them and tells.
        if answer.getheader("Content-Length") != str(len(body)):
            raise Unfinished(f"{len(body)} bytes of {answer.getheader('Content-Length')}")
        return Answer(answer.status, answer.getheader("Location", ""), body)


class Page(html.parser.HTMLParser):
    """A page of the service: its text, and the form with the decisions when it has one."""

    def __init__(self, answer):
        super().__init__()
        self.text = ""
        self.action = ""
        self.fields = {}
        self.decisions = []
        self.form = ("", {})  # the one that is being read: its action and its fields
        self.feed(answer.body.decode("utf-8", "surrogateescape"))
        self.close()

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        if tag == "form":
            self.form = (attributes.get("action", ""), {})
        elif tag == "input" and attributes.get("type") == "hidden":
            self.form[1][attributes["name"]] = attributes["value"]
        elif tag == "button" and attributes.get("name") == "decision":
            self.action, self.fields = self.form
            self.decisions.append(attributes["value"])

    def handle_data(self, data):
        self.text += data


class Refused(Exception):
    """The service turned a request down. The text is its reason."""


class Account:
    """A merchant's account at a service, and what the service told when it was set up."""

    def __init__(self, transport, auto, user="demo", password="demo"):
        self.transport = transport
        self.auto = auto
        self.authorization = basic_credentials(user, password)
        self.settings = self.request("SetupRequest", "SetupResponse", VERSION="1")
        self.defaults = self.request("LoadDefaultsRequest", "LoadDefaultsResponse")
        answer = self.request("KeyQueryRequest", "KeyQueryResponse", KEYID=self.settings["VTKEYID"])
        self.server_key = PublicKey.of_blob(answer["KEYBLOB"])

    def request(self, kind, expected, **attributes):
        """Asks the configuration service. Returns the attributes of the answer."""
        answer = self.transport.ask(self.auto + query(message(kind, **attributes)), self.authorization)
        return answer_attributes(answer, expected)

    def publish(self, signer):
        return self.request("KeyExportRequest", "KeyExportResponse", KEYID=signer.key_id,
                            KEYBLOB=signer.key.public.blob())

    def open_page(self, text, signer):
        """Sends a shopper to the payment page with the PayInit `text`."""
        answer = self.transport.browse(self.settings["VTURL"] + signer.query(text))
        page = Page(answer)
        if answer.status != 200:
            raise Refused(page.text)
        return page

    def decide(self, page, decision):
        """Presses a button of `page`. Returns the address to which the shopper is sent."""
        address = urllib.parse.urljoin(self.settings["VTURL"], page.action)
        answer = self.transport.browse(address, {**page.fields, "decision": decision})
        if answer.status != 302:
            raise Refused(Page(answer).text)
        return answer.location

    def confirmation(self, address):
        """The attributes of the confirmation that `address` carries, once its signature has been verified."""
        text, signature = query_of(address)
        if not self.server_key.verifies(text, signature, SIGN_EXTENDED):
            raise ValueError("the confirmation is not signed by the service: " + address)
        attributes = attributes_of(text)
        if (attributes["MSGTYPE"], attributes["KEYID"]) != ("PayConfirm", self.settings["VTKEYID"]):
            raise ValueError("not a confirmation of this service: " + address)
        return attributes

    def send(self, text, signer, expected, extension=ZERO_EXTENDED):
        """Sends a signed message from server to server. Returns the attributes of the answer."""
        answer = self.transport.ask(self.settings["CAPTUREURL"] + signer.query(text, extension))
        return answer_attributes(answer, expected)

    def capture(self, confirmed, signer):
        """Captures the payment that the attributes `confirmed` belong to."""
        return self.send(capture_message(confirmed, signer), signer, "PayConfirm")

    def complete(self, confirmed, signer):
        named = {"ID": confirmed["ID"], "TOKEN": confirmed["TOKEN"]}
        return self.send(signer.message("PayCompleteRequest", **named), signer, "PayCompleteResponse")

    def state(self, token, signer):
        """Where the payment with that token stands."""
        return self.send(signer.message("StatusRequest", TOKEN=token), signer, "StatusResponse")["STATE"]


def capture_message(confirmed, signer):
    """The confirmation as the merchant sends it back: under the merchant's own key."""
    return message("PayConfirm", **{name: value for name, value in {**confirmed, "KEYID": signer.key_id}.items()
                                    if name != "MSGTYPE"})


def answer_attributes(answer, expected):
    if answer.status != 200:
        raise Refused(f"status {answer.status}: {answer.body!r}")
    attributes = attributes_of(answer.body)
    if attributes["MSGTYPE"] == "Error":
        raise Refused(attributes["MESSAGE"])
    if attributes["MSGTYPE"] != expected:
        raise ValueError(f"{expected} was expected: {answer.body!r}")
    return attributes
