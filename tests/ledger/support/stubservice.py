"""A payment service whose every word the test chooses, and the merchant's account there. The keys are the test's own."""

import copy
import socket
import threading

from merchant import SIGN_EXTENDED, PrivateKey, attributes_of, der_of_integers, message, query_of

RESPONSE_SECONDS = 30


class StubService:
    """Answers requests of captures, completions and states. `respond` is called with the request's attributes and
    returns the body of the response, a status, or None: the connection is closed without a response.
    """

    def __init__(self, respond):
        self.respond = respond
        self.requests = []  # the attributes of each, in the order in which they came
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.url = f"http://127.0.0.1:{self.listener.getsockname()[1]}"
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        while True:
            connection, _ = self.listener.accept()
            with connection:
                connection.settimeout(RESPONSE_SECONDS)
                received = b""
                while b"\r\n\r\n" not in received:
                    piece = connection.recv(65536)
                    if not piece:
                        break
                    received += piece
                if received == b"stop":
                    return
                if b"\r\n\r\n" in received:
                    self.answer(connection, received)

    def answer(self, connection, received):
        target = received.split(b" ", 2)[1].decode()
        text, _ = query_of("http://service" + target)
        attributes = attributes_of(text)
        self.requests.append(attributes)
        body = self.respond(attributes)
        if body is not None:
            try:
                connection.sendall(response(body))
            except OSError:
                pass  # the worker that asked has been killed

    def stop(self):
        with socket.create_connection(self.listener.getsockname(), timeout=RESPONSE_SECONDS) as connection:
            connection.sendall(b"stop")
        self.thread.join(RESPONSE_SECONDS)
        self.listener.close()


def response(answer):
    status, body = (answer, b"") if isinstance(answer, int) else (200, answer)
    return b"HTTP/1.0 %d Status\r\nContent-Length: %d\r\n\r\n" % (status, len(body)) + body


class Account:
    """A merchant's configuration directory, made without a set-up, and the service's private keys, which lie elsewhere."""

    def __init__(self, directory, url="http://127.0.0.1:1", lifetime=600):
        self.directory = directory
        self.url = url
        self.keys = {}
        (directory / "keys" / "public").mkdir(parents=True)
        (directory / "keys" / "private").mkdir()
        self.own = PrivateKey.make()
        self.write("default.xml", f'<KVX MSGTYPE="LoadDefaultsResponse" KVX.ISVALID="yes" PAYINITTTL="{lifetime}"/>')
        self.write("keys/current", "own")
        self.write("keys/public/own", self.own.public.blob())
        self.write("keys/private/own", private_blob(self.own))
        self.make_key("server")
        self.publish("server")

    def moved_to(self, directory):
        """The account of a copy of the directory."""
        copied = copy.copy(self)
        copied.directory = directory
        return copied

    def write(self, name, text):
        """Replaces the file in one step."""
        file = self.directory / name
        new = file.with_name(file.name + ".new")
        new.write_text(text)
        new.rename(file)

    def make_key(self, key_id):
        """A further key of the service, known to nobody yet."""
        self.keys[key_id] = PrivateKey.make()

    def publish(self, key_id, current=True):
        """Puts the key into the directory; `current`: the service signs with it from now on."""
        self.write("keys/public/" + key_id, self.keys[key_id].public.blob())
        if current:
            self.write("config.xml", f'<KVX VTURL="{self.url}/pay" CAPTUREURL="{self.url}/capture"'
                                     f' VTKEYID="{key_id}"/>')

    def sign(self, data, key_id="server"):
        key = self.own if key_id == "own" else self.keys[key_id]
        return key.sign(data, SIGN_EXTENDED)

    @staticmethod
    def confirmation(url, result, **changes):
        """What the service says of the payment at `url`. A change to None leaves the attribute out."""
        payment = attributes_of(query_of(url)[0])
        attributes = {"KEYID": "server", "TOKEN": payment["TOKEN"], "ID": "P" + payment["TOKEN"],
                      "ORDERID": payment["ORDERID"], "AMOUNT": payment["AMOUNT"], "CURRENCY": payment["CURRENCY"],
                      "RESULT": result, **changes}
        kind = attributes.pop("MSGTYPE", "PayConfirm")
        present = {name: value for name, value in attributes.items() if value is not None}
        if kind is None:
            return message("", **present).replace(b' MSGTYPE=""', b"")
        return message(kind, **present)


def private_blob(key):
    """Hexadecimal of the DER RSAPrivateKey."""
    numbers = (0, *key.public, key.private, key.first, key.second, key.private % (key.first - 1),
               key.private % (key.second - 1), key.inverse)
    return der_of_integers(numbers).hex()
