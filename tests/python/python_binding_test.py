"""The Python package against a running sandbox: a whole payment, every class of failure, lifetime, threads and texts.

CMakeLists.txt sets PYTHONPATH to the package's source, and TALLOWIN_LIBRARY and KVX_SANDBOX to the paths of the products.
"""

import copy
import errno
import gc
import json
import os
import pathlib
import pickle
import signal
import subprocess
import sys
import threading
import unittest
import urllib.request

import tallowin
from sandboxcase import RESPONSE_SECONDS, TIMEOUT_SECONDS, Browser, SandboxCase, parameters
from tallowin import ConfigurationSetup, MessageFactory, MessageObject, MismatchError, ResultCode, ResultError


class MerchantCase(SandboxCase):
    def set_up(self, password="demo"):
        with ConfigurationSetup(self.merchant) as setup:
            setup.reconfigure(self.service, "demo", password)

    def factory(self):
        factory = MessageFactory(self.merchant)
        self.addCleanup(factory.close)
        return factory

    def order(self, factory, amount="19.90"):
        order = factory.create_pay_init()
        self.addCleanup(order.close)
        order.set_attribute("AMOUNT", amount)
        order.set_attribute("CURRENCY", "EUR")
        return order

    def capture(self, data):
        with MessageObject(self.merchant) as message:
            message.from_string(data)
            message.capture()

    def arm(self, **fault):
        request = urllib.request.Request(self.addresses["control"] + "/faults", json.dumps(fault).encode(),
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=RESPONSE_SECONDS) as response:
            self.assertEqual(response.status, 201)

    def check(self, name, call, *arguments):
        """The failure of a call, which must have this name."""
        with self.assertRaises(ResultError) as caught:
            call(*arguments)
        self.assertEqual(caught.exception.name, name, str(caught.exception))
        return caught.exception


class PythonPayment(MerchantCase):
    def test_is_set_up_paid_verified_captured_and_completed(self):
        self.set_up()
        with MessageFactory(self.merchant) as factory:
            with self.order(factory) as order:
                token = order.get_attribute("TOKEN")
                url = order.get_url()
            self.assertTrue(url.startswith(self.addresses["pay"] + "?DATA="), url)
            data, signature = parameters(self.browser.decide(url, "pay"))
            with factory.verify_pay_confirm(data, signature) as paid:
                paid.require(MSGTYPE="PayConfirm", RESULT="authorised", TOKEN=token, AMOUNT="19.90", CURRENCY="EUR")
                payment_id = paid.get_attribute("ID")
            self.capture(data)
            self.assertEqual(self.states(), ["captured"])
            with factory.create_pay_complete(payment_id, token) as completion, completion.execute() as answer:
                self.assertEqual(answer.get_attribute("MSGTYPE"), "PayCompleteResponse")
        self.assertEqual(self.states(), ["completed"])

    def test_can_be_asked_about_by_a_request_of_any_type(self):
        self.set_up()
        factory = self.factory()
        order = self.order(factory)
        self.browser.decide(order.get_url(), "pay")
        with factory.create_request("Status") as request:
            request.set_attribute("TOKEN", order.get_attribute("TOKEN"))
            with request.execute() as answer:
                self.assertEqual(answer.get_attribute("STATE"), "authorised")

    def test_that_was_cancelled_is_a_mismatch(self):
        self.set_up()
        factory = self.factory()
        data, signature = parameters(self.browser.decide(self.order(factory).get_url(), "cancel"))
        with factory.verify_pay_confirm(data, signature) as confirmation:
            with self.assertRaises(MismatchError) as caught:
                confirmation.require(MSGTYPE="PayConfirm", RESULT="authorised")
            self.assertEqual((caught.exception.name, caught.exception.wanted, caught.exception.found),
                             ("RESULT", "authorised", "cancelled"))
            self.assertEqual(str(caught.exception), 'RESULT is "cancelled", not "authorised"')
            with self.assertRaisesRegex(MismatchError, 'NO.SUCH is missing, not "1"'):
                confirmation.require({"NO.SUCH": "1"})

    def test_that_compares_nothing_is_refused(self):
        self.set_up()
        with self.order(self.factory()) as order:
            with self.assertRaisesRegex(MismatchError, "NO.SUCH is missing"):
                order.require({"NO.SUCH": None})
            for call in (order.require, lambda: order.require({})):
                with self.assertRaisesRegex(ValueError, "nothing would be compared"):
                    call()

    def test_settings_are_read_and_written(self):
        self.set_up()
        with ConfigurationSetup(self.merchant) as setup:
            self.assertEqual(setup.get_attribute("config.xml", "VTURL"), self.addresses["pay"])
            setup.set_attribute("config.xml", "VTURL", "http://127.0.0.1:1/pay")
            self.assertEqual(setup.get_attribute("config.xml", "VTURL"), "http://127.0.0.1:1/pay")
            self.assertEqual(setup.get_attribute("config.xml"), (self.merchant / "config.xml").read_text())
            setup.set_option("VTAUTOURL", self.service)
            setup.reconfigure("", "demo", "demo")
            self.assertEqual(setup.get_attribute("config.xml", "VTURL"), self.addresses["pay"])


class PythonFailures(MerchantCase):
    def test_of_the_service(self):
        failure = self.check("KVX_E_SERVER_ERROR", self.set_up, "guessed")
        self.assertEqual((failure.code, failure.function), (0x80040213 - (1 << 32), "ConfigurationSetup_Reconfigure"))
        self.assertNotIn("guessed", str(failure))
        self.assertIn("0x80040213", str(failure))
        self.assertIn("the password of the account 'demo' is another", failure.reason)
        self.assertIn(failure.reason, str(failure))
        self.set_up()
        self.arm(kind="wrong-type", exchange="setup")
        self.check("KVX_E_WRONG_RESPONSE", self.set_up)

    def test_of_the_directory(self):
        failure = self.check("ENOENT", ConfigurationSetup, self.directory / "missing" / "merchant")
        self.assertEqual((failure.code, failure.errno, failure.http_status), (errno.ENOENT, errno.ENOENT, None))
        self.assertIn(os.strerror(errno.ENOENT), failure.reason)
        (self.directory / "file").touch()
        self.assertEqual(self.check("ENOTDIR", ConfigurationSetup, self.directory / "file" / "x").errno, errno.ENOTDIR)
        failure = self.check("KVX_E_CANNOT_OPEN", MessageFactory(self.directory / "unused").create_pay_init)
        self.assertIsNone(failure.errno)
        self.assertIn(f"{self.directory}/unused/keys/current: No such file or directory", failure.reason)
        self.check("KVX_E_CANNOT_OPEN", MessageObject, self.directory / "unused")

    def test_of_http(self):
        self.set_up()
        self.arm(kind="http-status", exchange="setup", status=503)
        self.assertEqual(self.check("KVX_E_HTTP_UNAVAILABLE", self.set_up).http_status, 503)
        self.arm(kind="http-status", exchange="setup", status=418)
        failure = self.check("KVX_E_HTTP_FAMILY", self.set_up)
        self.assertEqual((failure.http_status, failure.code & 0xFFF), (418, 418))
        self.arm(kind="drop", exchange="setup")
        self.assertIsNone(self.check("KVX_E_HTTP_BAD_REPLY", self.set_up).http_status)

    def test_of_sockets(self):
        self.set_up()
        self.arm(kind="reset", exchange="setup")
        self.check("KVX_E_SOCKET_RESET", self.set_up)
        self.stop_sandbox()
        failure = self.check("KVX_E_SOCKET_REFUSED", self.set_up)
        self.assertIn("connection refused", failure.reason)

    def test_of_a_confirmation(self):
        self.set_up()
        factory = self.factory()
        data, signature = parameters(self.browser.decide(self.order(factory).get_url(), "pay"))
        for name, arguments in (("KVX_E_INVALID_SIGNATURE", (data.replace("19.90", "1.90"), signature)),
                                ("KVX_E_MISSING_SIGNATURE", (data, "")),
                                ("KVX_E_INVALID_FORMAT", ("no document", signature)),
                                ("KVX_E_NO_KEY_ID", ('<KVX A="1"/>', signature)),
                                ("KVX_E_NOT_FOUND", ('<KVX KEYID="unknown"/>', signature))):
            with self.subTest(name):
                self.check(name, factory.verify_pay_confirm, *arguments)

    def test_of_names_types_and_options(self):
        self.set_up()
        factory = self.factory()
        self.check("KVX_E_NOT_FOUND", self.order(factory).get_attribute, "NOSUCH")
        self.assertIsNone(self.order(factory).find_attribute("NOSUCH"))
        self.check("KVX_E_NO_MESSAGE_TYPE", factory.create_request, "")
        with ConfigurationSetup(self.merchant) as setup:
            self.check("KVX_E_INVALID_OPTION", setup.set_option, "NoSuch", "1")
            self.check("KVX_E_CANNOT_OPEN", setup.get_attribute, "nosuch.xml")
        with MessageObject(self.merchant) as message:
            self.check("KVX_E_UNEXPECTED", message.get_url)
            self.check("KVX_E_INVALID_FORMAT", message.from_string, "<KVX")

    def test_of_a_capture(self):
        self.set_up()
        data, _ = parameters(self.browser.decide(self.order(self.factory()).get_url(), "cancel"))
        self.check("KVX_E_SERVER_ERROR", self.capture, data)
        self.arm(kind="drop", exchange="capture")
        data, _ = parameters(self.browser.decide(self.order(self.factory()).get_url(), "pay"))
        self.check("KVX_E_HTTP_BAD_REPLY", self.capture, data)
        self.assertEqual(self.states()[1], "captured")

    def test_of_a_closed_object(self):
        self.set_up()
        factory = MessageFactory(self.merchant)
        order = factory.create_pay_init()
        self.assertEqual(repr(factory), "<tallowin.MessageFactory>")
        for thing in (factory, order, factory, order):
            thing.close()
            self.assertTrue(thing.closed)
        self.assertEqual(repr(factory), "<tallowin.MessageFactory (closed)>")
        self.check("KVX_E_BAD_HANDLE", factory.create_pay_init)
        self.check("KVX_E_BAD_HANDLE", order.get_url)


class PythonTlsFailures(MerchantCase):
    sandbox_options = ("--tls",)

    def test_of_tls(self):
        self.set_up()
        self.service = self.addresses["tlsAuto"]
        self.set_up()
        with ConfigurationSetup(self.merchant) as setup:
            (self.merchant / "settings.xml").write_text('<KVX TLSVERIFY="1" QUIET="1"/>')
            failure = self.check("KVX_E_TLS_FAMILY", setup.reconfigure, self.service, "demo", "demo")
            self.assertIsNone(failure.http_status)


class PythonObjects(MerchantCase):
    def test_outlive_their_factory(self):
        self.set_up()
        with MessageFactory(self.merchant) as factory:
            order = factory.create_pay_init()
        with order:
            self.assertNotEqual(order.get_url(), "")

    def test_cannot_be_copied_or_pickled(self):
        self.set_up()
        with self.order(self.factory()) as order:
            for make in (copy.copy, copy.deepcopy, pickle.dumps):
                with self.subTest(make.__name__), self.assertRaisesRegex(TypeError, "cannot be copied"):
                    make(order)

    def test_are_destroyed_when_they_are_forgotten(self):
        self.set_up()
        factory = self.factory()
        handles = set()
        for _ in range(3000):
            handles.add(factory.create_pay_init()._handle)
        gc.collect()
        # A slot is used again after 1024 others of its kind were freed.
        self.assertLess(len(handles), 3000)

    def test_keep_texts_of_any_bytes(self):
        self.set_up()
        order = self.order(self.factory())
        for text in ("", "\u20ac 5 & <\">'", "\U0001F600", "\udcff\udc80", "x" * 100_000, "line\nbreak"):
            with self.subTest(text[:10]):
                order.set_attribute("TEXT", text)
                self.assertEqual(order.get_attribute("TEXT"), text)
        order.set_attribute("TEXT", "y" * 100_000)
        self.assertIn("y" * 100_000, order.to_string())
        self.assertIn("y" * 100_000, order.get_url())

    def test_refuse_what_is_no_text(self):
        self.set_up()
        factory = self.factory()
        order = self.order(factory)
        for text in ("a\0b", "\0", "\ud800"):
            with self.subTest(repr(text)), self.assertRaises(ValueError):
                order.set_attribute("TEXT", text)
        self.assertIsNone(order.find_attribute("TEXT"))
        with self.assertRaises(ValueError):
            MessageFactory("a\0b")
        for wrong in (None, 1, b"bytes", ["a"]):
            with self.subTest(repr(wrong)), self.assertRaisesRegex(TypeError, "a text is a str, not"):
                order.set_attribute("TEXT", wrong)

    def test_serve_many_threads(self):
        self.set_up()
        factory = self.factory()
        shared = self.order(factory)
        failures = []

        def sell(number):
            try:
                for turn in range(50):
                    with factory.create_pay_init() as order:
                        order.set_attribute("ORDERID", f"{number}-{turn}")
                        shared.set_attribute(f"T{number}", str(turn) * 600)
                        assert f"{number}-{turn}" in order.to_string()
                        assert shared.get_attribute(f"T{number}") == str(turn) * 600
            except BaseException as failure:
                failures.append(failure)

        threads = [threading.Thread(target=sell, args=(number,)) for number in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(TIMEOUT_SECONDS)
        self.assertEqual(failures, [])

    def test_let_other_threads_run_during_a_request_but_none_on_the_same_object(self):
        self.set_up()
        self.arm(kind="stall-before", exchange="setup", seconds=TIMEOUT_SECONDS)
        setup = ConfigurationSetup(self.merchant)
        requesting = threading.Thread(target=self.check,
                                      args=("KVX_E_HTTP_BAD_REPLY", setup.reconfigure, self.service, "demo", "demo"))
        requesting.start()
        while '"stall-before"' in Browser.request(self.addresses["control"] + "/faults")[2]:
            pass  # until the service has taken the request
        reading = threading.Thread(target=setup.get_attribute, args=("config.xml", "VTURL"))
        reading.start()
        for _ in range(100):
            self.assertNotEqual(self.order(self.factory()).get_url(), "")
        self.assertTrue(requesting.is_alive())
        self.assertTrue(reading.is_alive())
        self.stop_sandbox()
        for thread in (requesting, reading):
            thread.join(TIMEOUT_SECONDS)
            self.assertFalse(thread.is_alive())
        setup.close()

    def test_work_in_a_forked_child(self):
        self.set_up()
        factory = self.factory()
        url = self.order(factory).get_url()
        child = os.fork()
        if child == 0:
            status = 1
            try:
                with MessageFactory(self.merchant) as own, own.create_pay_init() as order:
                    order.set_attribute("AMOUNT", "1.00")
                    status = 0 if order.get_url() and factory.create_pay_init().get_url() else 1
            finally:
                os._exit(status)
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        self.assertNotEqual(url, "")

    def test_survive_an_interrupt_between_calls(self):
        self.set_up()
        order = self.order(self.factory())
        seen = []
        previous = signal.signal(signal.SIGUSR1, lambda *_: seen.append(order.get_attribute("AMOUNT")))
        self.addCleanup(signal.signal, signal.SIGUSR1, previous)
        with order._lock:
            signal.raise_signal(signal.SIGUSR1)
        self.assertEqual(seen, ["19.90"])


class PythonLibrary(unittest.TestCase):
    def load(self, **variables):
        done = subprocess.run([sys.executable, "-B", "-c", "import tallowin; print(tallowin.version())"], capture_output=True,
                              text=True, timeout=TIMEOUT_SECONDS, env={**os.environ, **variables})
        return done.returncode, done.stdout.strip(), done.stderr.strip().splitlines()[-1:]

    def test_is_the_one_of_the_variable(self):
        self.assertEqual(self.load(), (0, tallowin.version(), []))
        self.assertRegex(tallowin.version(), r"^\d+\.\d+\.\d+$")

    def test_is_found_by_its_name_without_the_variable(self):
        directory = str(pathlib.Path(os.environ["TALLOWIN_LIBRARY"]).parent)
        self.assertEqual(self.load(TALLOWIN_LIBRARY="", LD_LIBRARY_PATH=directory), (0, tallowin.version(), []))

    def test_that_is_missing_or_another_is_named(self):
        for wrong in ("/nonexistent/libtallowin.so", "libc.so.6"):
            with self.subTest(wrong):
                status, out, errors = self.load(TALLOWIN_LIBRARY=wrong)
                self.assertEqual((status, out), (1, ""))
                self.assertRegex(errors[0], rf"^tallowin\.errors\.LoadError: {wrong} cannot be loaded: .*TALLOWIN_LIBRARY")

    def test_knows_every_name_of_the_package(self):
        for name in tallowin.__all__:
            self.assertTrue(hasattr(tallowin, name), name)
        self.assertEqual(ResultCode.OK, 0)


if __name__ == "__main__":
    unittest.main()
