"""The whole protocol, walked by a merchant that shares no code with the component or the sandbox (merchant.py).

CMakeLists.txt tells in KVX_ROOT where the tree is and in KVX_SANDBOX where the sandbox is.
"""

import os
import pathlib
import re
import socket
import ssl
import string
import tempfile
import unittest

from merchant import (ANSWER_SECONDS, SIGN_EXTENDED, ZERO_EXTENDED, Account, Page, PrivateKey, PublicKey, Refused,
                      Signer, Transport, attributes_of, basic_credentials, capture_message, der, message,
                      percent_decoded, percent_encoded, query, query_of)
from sandboxprocess import SandboxCase, SandboxProcess, trusting

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
LINKS = {"SUCCESSLINK": "http://shop.example/paid", "BACKLINK": "http://shop.example/back?cart=7",
         "FAILLINK": "http://shop.example/failed#top"}
FUTURE = "20991231 23:59:59"

# In both, the other widening gives another signature.
ORDER_IN_UTF8 = "Bücher"
ORDER_IN_LATIN1 = b"Caf\xe9".decode("utf-8", "surrogateescape")


def pay_init(signer, token, **changes):
    """A payment message; an attribute that is changed to None is left out."""
    attributes = {"TOKEN": token, **LINKS, "EXPIRATION": FUTURE, "ORDERID": "A-17", "AMOUNT": "12.50",
                  "CURRENCY": "EUR", **changes}
    return signer.message("PayInit", **{name: value for name, value in attributes.items() if value is not None})


def with_needless_zero(blob):
    """The same key, its exponent written one byte longer than DER wants."""
    key = PublicKey.of_blob(blob)
    exponent = der(0x02, b"\x00" + key.exponent.to_bytes(3, "big"))
    return der(0x30, der(0x02, key.modulus.to_bytes(key.size() + 1, "big")) + exponent).hex()


class ClientFormats(unittest.TestCase):
    """The merchant itself, against the page that it was written after and against signatures of another program."""

    @staticmethod
    def hexadecimal(*names):
        return bytes.fromhex((ROOT / "tests" / "data").joinpath(*names).read_text())

    def test_recomputes_the_worked_example(self):
        page = (ROOT / "docs" / "formats.md").read_text()
        example = dict(re.findall("```example-([a-z]+)\n(.*)\n```", page))
        text = example["message"].encode()
        key = PrivateKey.of_der(self.hexadecimal("rsa", "key512.private.hex"))
        self.assertEqual(key.sign(text), example["signature"])
        self.assertEqual("https://pay.example/init" + query(text, example["signature"]), example["url"])
        self.assertEqual(message("PayInit", KEYID="0-1001-demo", TOKEN="42", AMOUNT="1000", TEXT="2 < 3"), text)
        self.assertEqual(query_of(example["url"]), (text, example["signature"]))

    def test_agrees_with_signatures_of_another_program(self):
        key = PrivateKey.of_der(self.hexadecimal("sandbox", "key-private.hex"))
        text = (ROOT / "tests" / "data" / "sandbox" / "message.txt").read_bytes()
        signatures = {name: self.hexadecimal("sandbox", f"signature-{name}.hex").hex()
                      for name in ("zero", "sign", "digestinfo")}
        self.assertEqual(key.sign(text, ZERO_EXTENDED), signatures["zero"])
        self.assertEqual(key.sign(text, SIGN_EXTENDED), signatures["sign"])
        self.assertEqual(key.public, PublicKey.of_blob(self.hexadecimal("sandbox", "key-public.hex").hex()))
        for extension, good in ((ZERO_EXTENDED, "zero"), (SIGN_EXTENDED, "sign")):
            verified = [name for name in signatures if key.public.verifies(text, signatures[name], extension)]
            self.assertEqual(verified, [good])

    def test_verifies_what_it_signed_and_nothing_near_it(self):
        for bits in (512, 1000, 1024):
            key = PrivateKey.make(bits)
            self.assertEqual(key.public.modulus.bit_length(), bits)
            self.assertEqual(PublicKey.of_blob(key.public.blob()), key.public)
            signature = key.sign(b"text")
            self.assertTrue(key.public.verifies(b"text", signature, ZERO_EXTENDED))
            self.assertFalse(key.public.verifies(b"texts", signature, ZERO_EXTENDED))
            for bit in range(8 * key.public.size()):
                flipped = f"{int(signature, 16) ^ 1 << bit:0{len(signature)}x}"
                self.assertFalse(key.public.verifies(b"text", flipped, ZERO_EXTENDED), bit)

    def test_refuses_key_blobs_that_are_not_in_der(self):
        blob = PublicKey(3 * 2**510 + 1, 65537).blob()
        self.assertEqual(PublicKey.of_blob(blob).exponent, 65537)
        for length in range(len(blob)):
            with self.assertRaises(ValueError, msg=blob[:length]):
                PublicKey.of_blob(blob[:length])
        for altered in (blob.upper(), blob + "00", "3081" + blob[2:], "31" + blob[2:], with_needless_zero(blob)):
            with self.assertRaises(ValueError, msg=altered):
                PublicKey.of_blob(altered)

    def test_makes_the_merchants_own_basic_header(self):
        for user, password, header in (("", "", "OgAA"), ("a", "", "YToA"), ("a", "b", "YTpiAAAA"),
                                       ("a", "bc", "YTpiYwAA"), ("a", "b\u00fcc", "YTpiAAAA")):
            self.assertEqual(basic_credentials(user, password), "Basic " + header)

    def test_percent_encodes_everything_but_letters_and_digits(self):
        text = bytes(range(256))
        encoded = percent_encoded(text)
        self.assertTrue(encoded.startswith("%00%01%02"), encoded)
        self.assertEqual(re.sub("%[0-9a-f]{2}", "", encoded), string.digits + string.ascii_uppercase +
                         string.ascii_lowercase)
        self.assertEqual(percent_decoded(encoded), text)


class ProtocolStory:
    """What the service must do over every kind of connection. One sandbox serves all tests of a class; each test has a
    signer and a token of its own."""

    address = ""  # what the set-up address is called among the sandbox's addresses

    @classmethod
    def setUpClass(cls):
        place = tempfile.TemporaryDirectory(prefix="tallowin-sandbox-")
        cls.addClassCleanup(place.cleanup)
        cls.sandbox = SandboxProcess(place.name + "/data", "--tls")
        cls.addClassCleanup(cls.check_end)
        cls.addresses = cls.sandbox.addresses()
        cls.auto = cls.addresses[cls.address]
        cls.base = cls.auto[:-len("/auto")]
        cls.transport = Transport(trusting(cls.addresses["ca"]))
        cls.account = Account(cls.transport, cls.auto)

    @classmethod
    def check_end(cls):
        try:
            unittest.TestCase().assertEqual(cls.sandbox.stop(), SandboxCase.STOPPED)
        finally:
            cls.sandbox.discard()

    def setUp(self):
        self.token = self._testMethodName
        self.signer = self.published(self.token)

    def published(self, name):
        """A signer that the service knows."""
        signer = Signer(f"0-{self.account.settings['CUSTOMERID']}-{name}", PrivateKey.make())
        self.account.publish(signer)
        return signer

    def check_refused(self, reason, request, *arguments, **named):
        with self.assertRaises(Refused) as refused:
            request(*arguments, **named)
        self.assertIn(reason, str(refused.exception))

    def authorise(self, token="", signer=None, **changes):
        """Leads a payment up to the shopper's approval. Returns the confirmation that was sent back."""
        signer = signer or self.signer
        page = self.account.open_page(pay_init(signer, token or self.token, **changes), signer)
        return self.account.confirmation(self.account.decide(page, "pay"))

    def state(self, token=""):
        return self.account.state(token or self.token, self.signer)

    # Set-up and keys

    def test_tells_its_addresses_on_the_port_that_was_asked(self):
        settings = dict(self.account.settings)
        self.assertRegex(settings.pop("CUSTOMERID"), "^[0-9]+$")
        self.assertEqual(settings, {"MSGTYPE": "SetupResponse", "VERSION": "1", "VTURL": self.base + "/pay",
                                    "CAPTUREURL": self.base + "/capture", "KVX.VTAUTOURL": self.auto,
                                    "VTKEYID": self.addresses["serverKeyId"]})

    def test_tells_the_defaults_of_payments(self):
        defaults = self.account.defaults
        self.assertEqual(set(defaults), {"MSGTYPE", "KVX.ISVALID", "PAYINITTTL", "ALLOWCOLLECT", "DELIVERY", "LANGID",
                                         "SUCCESSLINK", "NOTIFYADDRESS", "DEFAULTVALIDITY", "BACKLINK", "FAILLINK"})
        self.assertEqual(defaults["KVX.ISVALID"], "yes")
        self.assertGreater(int(defaults["PAYINITTTL"]), 0)

    def test_hands_out_its_key_in_der(self):
        key = self.account.server_key
        self.assertGreaterEqual(key.modulus.bit_length(), 512)
        self.assertEqual((key.modulus % 2, key.exponent % 2), (1, 1))
        self.check_refused("has no key 'other'", self.account.request, "KeyQueryRequest", "KeyQueryResponse",
                           KEYID="other")

    def test_takes_a_key_once_and_the_same_again(self):
        self.assertEqual(self.account.publish(self.signer)["KEYID"], self.signer.key_id)
        other = Signer(self.signer.key_id, PrivateKey.make())
        self.check_refused("stands for another key already", self.account.publish, other)
        self.assertEqual(self.authorise()["RESULT"], "authorised")

    def test_takes_no_blob_that_is_not_a_key(self):
        blob = self.signer.key.public.blob()
        for altered in (blob[:-2], blob + "00", blob.upper(), with_needless_zero(blob), "00",
                        PublicKey(2**500 + 1, 65537).blob()):
            self.check_refused("the key blob", self.account.request, "KeyExportRequest", "KeyExportResponse",
                               KEYID="altered", KEYBLOB=altered)

    def test_refuses_other_credentials(self):
        setup = self.auto + query(message("SetupRequest", VERSION="1"))
        for authorization, reason in ((basic_credentials("demo", "guessed"), "the password of the account 'demo'"),
                                      (basic_credentials("demo", ""), "the password of the account 'demo'"),
                                      (basic_credentials("somebody", "demo"), "no account 'somebody'"),
                                      (basic_credentials("", ""), "name no user"),
                                      ("Basic ZGVt", "no colon"), ("Basic %", "not Base64"),
                                      ("Bearer ZGVtbzpkZW1v", "not of the scheme Basic"), ("", "no Authorization")):
            with self.subTest(authorization):
                text = self.transport.ask(setup, authorization).body
                self.assertEqual(attributes_of(text)["MSGTYPE"], "Error", text)
                self.assertIn(reason, attributes_of(text)["MESSAGE"])

    # The payment page

    def test_shows_what_is_to_be_paid(self):
        page = self.account.open_page(pay_init(self.signer, self.token, ORDERID=ORDER_IN_UTF8 + ' "<&>\''), self.signer)
        self.assertIn(ORDER_IN_UTF8 + ' "<&>\'', page.text)
        self.assertIn("12.50 EUR", page.text)
        self.assertEqual(page.decisions, ["pay", "decline", "cancel"])
        self.assertEqual(self.state(), "opened")

    def test_takes_a_payment_with_its_own_defaults(self):
        defaults = {name: value for name, value in self.account.defaults.items()
                    if name not in ("MSGTYPE", "KVX.ISVALID", "PAYINITTTL")}
        text = self.signer.message("PayInit", TOKEN=self.token, **defaults, EXPIRATION=FUTURE, AMOUNT="12.50",
                                   CURRENCY="EUR")
        address = self.account.decide(self.account.open_page(text, self.signer), "pay")
        self.assertTrue(address.startswith(self.base + "/returned?DATA="), address)
        self.assertEqual(self.account.confirmation(address)["RESULT"], "authorised")
        self.assertEqual(self.transport.browse(address).status, 200)

    def test_sends_the_shopper_back_with_each_result(self):
        for decision, result, start, end in (
                ("pay", "authorised", LINKS["SUCCESSLINK"] + "?DATA=", ""),
                ("cancel", "cancelled", LINKS["BACKLINK"] + "&DATA=", ""),
                ("decline", "declined", LINKS["FAILLINK"].replace("#top", "?DATA="), "#top")):
            for order in ("A-17", ORDER_IN_UTF8, ORDER_IN_LATIN1):
                with self.subTest(decision, order=order):
                    token = f"{self.token}-{decision}-{percent_encoded(order.encode('utf-8', 'surrogateescape'))}"
                    page = self.account.open_page(pay_init(self.signer, token, ORDERID=order), self.signer)
                    address = self.account.decide(page, decision)
                    self.assertTrue(address.startswith(start) and address.endswith(end), address)
                    confirmed = self.account.confirmation(address)
                    self.assertRegex(confirmed.pop("ID"), "^P[0-9a-f]+$")
                    self.assertEqual(confirmed, {"MSGTYPE": "PayConfirm", "KEYID": self.addresses["serverKeyId"],
                                                 "TOKEN": token, "AMOUNT": "12.50", "CURRENCY": "EUR",
                                                 "ORDERID": order, "RESULT": result})
                    self.assertEqual(self.state(token), result)

    def test_signs_bytes_of_0x80_and_above_sign_extended_only(self):
        for token, order in (("utf8", ORDER_IN_UTF8), ("latin1", ORDER_IN_LATIN1)):
            page = self.account.open_page(pay_init(self.signer, token, ORDERID=order), self.signer)
            text, signature = query_of(self.account.decide(page, "pay"))
            self.assertIn(order.encode("utf-8", "surrogateescape"), text)
            self.assertTrue(self.account.server_key.verifies(text, signature, SIGN_EXTENDED))
            self.assertFalse(self.account.server_key.verifies(text, signature, ZERO_EXTENDED))

    def test_takes_bytes_of_0x80_and_above_zero_extended_only(self):
        reason = "SIGNATURE was made over sign-extended bytes"
        text = pay_init(self.signer, self.token, ORDERID=ORDER_IN_UTF8)
        page = self.transport.browse(self.account.settings["VTURL"] + self.signer.query(text, SIGN_EXTENDED))
        self.assertEqual(page.status, 400)
        self.assertIn(reason, Page(page).text)
        confirmed = self.authorise(ORDERID=ORDER_IN_UTF8)
        capture = capture_message(confirmed, self.signer)
        self.check_refused(reason, self.account.send, capture, self.signer, "PayConfirm", SIGN_EXTENDED)
        self.assertEqual(self.state(), "authorised")
        self.assertEqual(self.account.send(capture, self.signer, "PayConfirm")["ORDERID"], ORDER_IN_UTF8)

    def test_signs_the_confirmation_so_that_no_change_of_it_verifies(self):
        page = self.account.open_page(pay_init(self.signer, self.token), self.signer)
        address = self.account.decide(page, "cancel")
        self.account.confirmation(address)
        with self.assertRaises(ValueError):
            self.account.confirmation(address.replace("cancelled", "authorised"))

    def test_takes_a_decision_once_and_the_same_again(self):
        page = self.account.open_page(pay_init(self.signer, self.token), self.signer)
        address = self.account.decide(page, "pay")
        self.assertEqual(self.account.decide(page, "pay"), address)
        self.check_refused("is authorised already", self.account.decide, page, "cancel")
        self.assertEqual(self.state(), "authorised")

    def test_takes_decisions_from_its_page_only(self):
        page = self.account.open_page(pay_init(self.signer, self.token), self.signer)
        page.fields["key"] = "0" * len(page.fields["key"])
        self.check_refused("did not come from the payment page", self.account.decide, page, "pay")
        self.assertEqual(self.state(), "opened")

    def test_refuses_a_token_that_was_used(self):
        text = pay_init(self.signer, self.token)
        page = self.account.open_page(text, self.signer)
        self.assertEqual(self.account.open_page(text, self.signer).fields, page.fields)
        for other in (pay_init(self.signer, self.token, AMOUNT="12.51"),
                      pay_init(self.signer, self.token, ORDERID="A-18")):
            self.check_refused("TOKEN was used already", self.account.open_page, other, self.signer)
        self.account.decide(page, "pay")
        self.check_refused("TOKEN was used already", self.account.open_page, text, self.signer)
        self.assertEqual(self.state(), "authorised")

    def test_refuses_a_payment_without_a_time_of_its_end(self):
        for expiration, reason in (("20991231", "is not a time"), ("20990229 00:00:00", "is not a time"),
                                   (None, "needs the attribute EXPIRATION")):
            text = pay_init(self.signer, self.token, EXPIRATION=expiration)
            self.check_refused(reason, self.account.open_page, text, self.signer)
        self.check_refused("no payment with the TOKEN", self.state)

    def test_refuses_a_payment_that_has_expired(self):
        text = pay_init(self.signer, self.token, EXPIRATION="20000101 00:00:00")
        self.check_refused("has expired", self.account.open_page, text, self.signer)
        self.assertEqual(self.state(), "expired")

    # Signatures and keys of merchants

    def test_refuses_every_flipped_signature(self):
        confirmed = self.authorise()
        text = capture_message(confirmed, self.signer)
        address = self.account.settings["CAPTUREURL"]
        signature = self.signer.key.sign(text)
        number, modulus = int(signature, 16), self.signer.key.public.modulus
        altered = [f"{number ^ 1 << (8 * byte + byte % 8):0128x}" for byte in range(64)]
        altered += [f"{modulus - number:0128x}", "0" * 128, f"{1:0128x}", f"{modulus - 1:0128x}", "f" * 128,
                    signature[2:], signature[:-2], "00" + signature, signature + "00", signature.upper(), signature[1:]]
        for wrong in altered:
            with self.subTest(wrong):
                answer = attributes_of(self.transport.ask(address + query(text, wrong)).body)
                self.assertEqual(answer["MSGTYPE"], "Error")
                self.assertIn("SIGNATURE is not", answer["MESSAGE"])
        self.assertEqual(self.state(), "authorised")
        self.assertEqual(attributes_of(self.transport.ask(address + query(text, signature)).body)["RESULT"], "captured")

    def test_refuses_a_request_without_message_or_signature(self):
        text = pay_init(self.signer, self.token)
        for path, status in (("/pay", 400), ("/capture", 200)):
            for asked, reason in (("", b"DATA is missing"), (query(text), b"SIGNATURE is missing")):
                answer = self.transport.ask(self.base + path + asked)
                self.assertEqual(answer.status, status)
                self.assertIn(reason, answer.body)
        self.check_refused("no payment with the TOKEN", self.state)

    def test_refuses_a_changed_message(self):
        signed = query(pay_init(self.signer, self.token, AMOUNT="12.51"),
                       self.signer.key.sign(pay_init(self.signer, self.token)))
        answer = self.transport.browse(self.account.settings["VTURL"] + signed)
        self.assertEqual(answer.status, 400)
        self.assertIn("SIGNATURE is not one of DATA", Page(answer).text)
        self.check_refused("no payment with the TOKEN", self.state)

    def test_refuses_a_key_it_does_not_know(self):
        reason = "KEYID names no merchant key"
        stranger = Signer("0-1001-stranger", self.signer.key)
        self.check_refused(reason, self.account.open_page, pay_init(stranger, self.token), stranger)
        confirmed = self.authorise()
        self.check_refused(reason, self.account.capture, confirmed, stranger)
        server = Signer(self.addresses["serverKeyId"], self.signer.key)
        self.check_refused(reason, self.account.capture, confirmed, server)
        self.assertEqual(self.state(), "authorised")

    def test_refuses_the_signature_of_another_key(self):
        other = Signer(self.signer.key_id, self.published("other").key)
        self.check_refused("SIGNATURE is not one of DATA", self.account.open_page, pay_init(other, self.token), other)

    def test_lets_a_merchant_change_keys(self):
        """Both keys work afterwards, each also for what the other began."""
        before = self.authorise("before")
        fresh = self.published("fresh")
        during = self.authorise("during", fresh)
        after = self.authorise("after")
        for confirmed, signer in ((before, fresh), (during, self.signer), (after, self.signer)):
            self.assertEqual(self.account.capture(confirmed, signer)["RESULT"], "captured")
        for token in ("before", "during", "after"):
            self.assertEqual(self.account.state(token, fresh), "captured")

    def test_takes_keys_of_other_sizes(self):
        for bits in (520, 1000, 1024):
            signer = Signer(f"{self.signer.key_id}-{bits}", PrivateKey.make(bits))
            self.account.publish(signer)
            confirmed = self.authorise(f"{self.token}-{bits}", signer, ORDERID=ORDER_IN_LATIN1)
            self.assertEqual(self.account.capture(confirmed, signer)["RESULT"], "captured")

    # Capture and completion

    def test_captures_once_and_answers_the_same_again(self):
        confirmed = self.authorise(ORDERID=ORDER_IN_UTF8)
        captured = self.account.capture(confirmed, self.signer)
        self.assertEqual(captured, {**confirmed, "RESULT": "captured"})
        self.assertEqual(self.account.capture(confirmed, self.signer), captured)
        self.assertEqual(self.state(), "captured")

    def test_completes_what_was_captured(self):
        confirmed = self.authorise()
        captured = self.account.capture(confirmed, self.signer)
        completed = {"MSGTYPE": "PayCompleteResponse", "ID": confirmed["ID"], "TOKEN": self.token, "STATE": "completed"}
        for _ in range(2):
            self.assertEqual(self.account.complete(confirmed, self.signer), completed)
        self.assertEqual(self.state(), "completed")
        self.assertEqual(self.account.capture(confirmed, self.signer), captured)

    def test_captures_only_what_was_authorised(self):
        for decision, state in ((None, "opened"), ("decline", "declined"), ("cancel", "cancelled")):
            token = f"{self.token}-{state}"
            page = self.account.open_page(pay_init(self.signer, token), self.signer)
            if decision:
                self.account.decide(page, decision)
            named = {"ID": page.fields["payment"], "TOKEN": token}
            self.check_refused(f"the payment is {state}", self.account.capture, named, self.signer)
            self.check_refused(f"the payment is {state}", self.account.complete, named, self.signer)
            self.assertEqual(self.state(token), state)

    def test_refuses_to_capture_something_else(self):
        confirmed = self.authorise()
        for name, value in (("AMOUNT", "12.49"), ("AMOUNT", ""), ("AMOUNT", "12.5"), ("CURRENCY", "USD"),
                            ("ID", "P0"), ("TOKEN", "nothing")):
            with self.subTest(name, value=value):
                self.check_refused(name, self.account.capture, {**confirmed, name: value}, self.signer)
        self.assertEqual(self.state(), "authorised")
        self.assertEqual(self.account.capture(confirmed, self.signer)["RESULT"], "captured")

    def test_refuses_messages_that_do_not_belong_there(self):
        self.check_refused("takes a PayInit", self.account.open_page,
                           self.signer.message("StatusRequest", TOKEN=self.token), self.signer)
        self.check_refused("knows no request 'PayInit'", self.account.send, pay_init(self.signer, self.token),
                           self.signer, "PayConfirm")
        self.check_refused("knows no request 'PayInit'", self.account.request, "PayInit", "PayConfirm")


class ClientOverPlain(ProtocolStory, unittest.TestCase):
    address = "auto"


class ClientOverTls(ProtocolStory, unittest.TestCase):
    address = "tlsAuto"


class ClientTrust(SandboxCase):
    """What TLS lets the merchant know about the service."""

    @staticmethod
    def shake_hands(port, context, name):
        with socket.create_connection(("127.0.0.1", port), ANSWER_SECONDS) as raw:
            with context.wrap_socket(raw, server_hostname=name) as secured:
                return secured.version()

    def test_proves_who_it_is_to_those_who_trust_its_authority(self):
        addresses = self.start("--tls").addresses()
        port, authority = addresses["tlsPort"], addresses["ca"]
        trusted, strangers = trusting(authority), ssl.create_default_context()
        for context, name, reason in ((trusted, "127.0.0.1", None), (trusted, "localhost", None),
                                      (trusted, "shop.example", "mismatch"), (trusted, "127.0.0.2", "mismatch"),
                                      (strangers, "127.0.0.1", "certificate verify failed")):
            with self.subTest(name, reason=reason):
                if reason is None:
                    self.assertIn(self.shake_hands(port, context, name), ("TLSv1.2", "TLSv1.3"))
                    continue
                with self.assertRaisesRegex(ssl.SSLCertVerificationError, reason):
                    self.shake_hands(port, context, name)
        # None of these kept it from answering others.
        Account(Transport(trusted), addresses["tlsAuto"])

    def test_keeps_its_authority(self):
        first = self.start("--tls")
        context = trusting(first.addresses()["ca"])
        self.assertEqual(first.stop(), self.STOPPED)
        again = self.start("--tls")
        Account(Transport(context), again.addresses()["tlsAuto"])
        self.assertEqual(again.stop(), self.STOPPED)


class ClientAccounts(SandboxCase):
    """Accounts of several merchants, on one data directory after another start."""

    def account(self, addresses, user, password):
        return Account(Transport(), addresses["auto"], user, password)

    def test_opens_with_credentials_of_every_length(self):
        for user, password in (("u", ""), ("u", "p"), ("u", "pa"), ("u", "pas"), ("user", "pass:word")):
            with self.subTest(user, password=password):
                sandbox = self.start("--account", f"{user}:{password}")
                self.account(sandbox.addresses(), user, password)
                with self.assertRaises(Refused):
                    self.account(sandbox.addresses(), user, password + "p")
                self.assertEqual(sandbox.stop(), self.STOPPED)

    def test_keeps_what_an_account_has(self):
        sandbox = self.start("--account", "first:old")
        first = self.account(sandbox.addresses(), "first", "old")
        signer = Signer("0-1001-first", PrivateKey.make())
        first.publish(signer)
        page = first.open_page(pay_init(signer, "t1"), signer)
        self.assertEqual(sandbox.stop(), self.STOPPED)

        sandbox = self.start("--account", "first:new")
        with self.assertRaisesRegex(Refused, "the password of the account 'first'"):
            self.account(sandbox.addresses(), "first", "old")
        again = self.account(sandbox.addresses(), "first", "new")
        self.assertEqual((again.server_key, again.settings["CUSTOMERID"]),
                         (first.server_key, first.settings["CUSTOMERID"]))
        confirmed = again.confirmation(again.decide(page, "pay"))
        self.assertEqual(again.capture(confirmed, signer)["RESULT"], "captured")
        self.assertEqual(sandbox.stop(), self.STOPPED)

    def test_keeps_accounts_apart(self):
        sandbox = self.start("--account", "first:one")
        first = self.account(sandbox.addresses(), "first", "one")
        signer = Signer("0-1001-first", PrivateKey.make())
        first.publish(signer)
        page = first.open_page(pay_init(signer, "t1"), signer)
        confirmed = first.confirmation(first.decide(page, "pay"))
        self.assertEqual(sandbox.stop(), self.STOPPED)

        sandbox = self.start("--account", "second:two")
        second = self.account(sandbox.addresses(), "second", "two")
        self.assertNotEqual(second.settings["CUSTOMERID"], first.settings["CUSTOMERID"])
        thief = Signer("0-1002-second", PrivateKey.make())
        second.publish(thief)
        for stolen in (signer, Signer(signer.key_id, thief.key)):
            with self.assertRaisesRegex(Refused, "stands for another key already"):
                second.publish(stolen)
        with self.assertRaisesRegex(Refused, "no payment with the TOKEN 't1'"):
            second.capture(confirmed, thief)
        # A token counts for each account apart.
        second.open_page(pay_init(thief, "t1", AMOUNT="1.00"), thief)
        self.assertEqual(second.state("t1", thief), "opened")
        self.assertEqual(second.state("t1", signer), "authorised")
        self.assertEqual(sandbox.stop(), self.STOPPED)


if __name__ == "__main__":
    unittest.main()
