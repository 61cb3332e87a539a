"""The three classes over the flat functions: configuration setup, message factory, message object."""

import ctypes
import os
import threading
import types
import weakref
from typing import Any, Dict, Optional, Type, TypeVar, Union

from ._library import call, create, library, text_of
from .codes import ResultCode
from .errors import MismatchError, ResultError

Directory = Union[str, "os.PathLike[str]"]
Self = TypeVar("Self", bound="_Object")

_ATTRIBUTE_ROOM = 512
_MESSAGE_ROOM = 8192


def _argument(text: str) -> bytes:
    """The bytes of a text. Raises ValueError for a zero byte, which would end the text for the library, TypeError for no text."""
    if not isinstance(text, str):
        raise TypeError(f"a text is a str, not {type(text).__name__}")
    if "\0" in text:
        raise ValueError("a text holds a zero byte")
    return text.encode("utf-8", "surrogateescape")


def _text(data: bytes) -> str:
    return data.decode("utf-8", "surrogateescape")


def _destroy(function: str, handle: int) -> None:
    getattr(library(), function)(handle)


class _Object:
    """One handle. Calls run one after the other; a closed object fails with KVX_E_BAD_HANDLE."""

    _KIND = ""
    _OPEN = "Open"

    def __init__(self, directory: Directory) -> None:
        path = _argument(os.fsdecode(directory))
        self._hold(create("Create" + self._KIND))
        try:
            self._call(self._OPEN, path)
        except BaseException:
            self.close()
            raise

    def _hold(self, handle: int) -> None:
        self._lock = threading.RLock()  # a signal handler may call while its thread is between two calls
        self._handle: Optional[int] = handle
        self._release = weakref.finalize(self, _destroy, "Destroy" + self._KIND, handle)
        self._release.atexit = False  # the process ends anyway, and other threads may still be in a call

    def close(self) -> None:
        """Destroys the native object. Waits for a call of another thread. Closing again does nothing."""
        with self._lock:
            self._handle = None
            self._release()

    @property
    def closed(self) -> bool:
        """Whether the object was closed."""
        return self._handle is None

    def __enter__(self: Self) -> Self:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[types.TracebackType]) -> None:
        self.close()

    def __reduce__(self) -> Any:
        """A copy would own the same handle."""
        raise TypeError(f"tallowin.{type(self).__name__} cannot be copied or pickled")

    def __repr__(self) -> str:
        return f"<tallowin.{type(self).__name__}{' (closed)' if self.closed else ''}>"

    def _call(self, function: str, *arguments: Any) -> None:
        with self._lock:
            call(f"{self._KIND}_{function}", self._handle, *arguments)

    def _copy(self, function: str, *arguments: Any, room: int) -> str:
        with self._lock:
            return _text(text_of(f"{self._KIND}_{function}", self._handle, *arguments, room=room))

    def _make(self, function: str, *arguments: Any) -> "MessageObject":
        out = ctypes.c_void_p()
        self._call(function, *arguments, ctypes.byref(out))
        return MessageObject._adopt(out.value or 0)


class ConfigurationSetup(_Object):
    """Prepares the configuration directory of one account.

    `directory` is created when its parent exists. Raises `ResultError`, with `errno` set, when it cannot be created.
    """

    _KIND = "ConfigurationSetup"
    _OPEN = "SetConfiguration"

    def reconfigure(self, url: str, user: str, password: str) -> None:
        """Registers with the payment service at `url`: loads configuration and defaults, makes and publishes a new key pair.

        Blocks on the network. Run it as the user that signs later: a new private key is readable for its owner only.
        """
        self._call("Reconfigure", _argument(url), _argument(user), _argument(password))

    def set_option(self, name: str, value: str) -> None:
        """Sets "UserName", "Password" or "VTAUTOURL" for this object."""
        self._call("SetOption", _argument(name), _argument(value))

    def get_attribute(self, file: str, name: str = "") -> str:
        """The value `name` of a file of the directory, such as "VTURL" of "config.xml"; without `name` the whole file."""
        return self._copy("GetAttribute", _argument(file), _argument(name), room=_ATTRIBUTE_ROOM)

    def set_attribute(self, file: str, name: str, value: str) -> None:
        """Sets the value `name` of an existing file and rewrites it. An empty `value` changes nothing."""
        self._call("SetAttribute", _argument(file), _argument(name), _argument(value))


class MessageFactory(_Object):
    """Makes and verifies the messages of one configuration directory. Messages do not need their factory after they are made."""

    _KIND = "MessageFactory"

    def create_pay_init(self) -> "MessageObject":
        """A new payment with a fresh TOKEN and the account's defaults."""
        return self._make("CreatePayInit")

    def verify_pay_confirm(self, data: str, signature: str) -> "MessageObject":
        """The confirmation that came back with the shopper, when its signature is valid.

        `data` and `signature` are the query parameters DATA and SIGNATURE, percent-decoded; limit their size before the call.
        A valid signature is not a payment: `MessageObject.require` the type, the result, the token, amount and currency.
        """
        return self._make("VerifyPayConfirm", _argument(data), _argument(signature))

    def create_pay_complete(self, payment_id: str, token: str) -> "MessageObject":
        """A completion; send it with `MessageObject.execute`."""
        return self._make("CreatePayComplete", _argument(payment_id), _argument(token))

    def create_request(self, message_type: str) -> "MessageObject":
        """A message of any type."""
        return self._make("CreateRequest", _argument(message_type))


class MessageObject(_Object):
    """One message. `MessageObject(directory)` is bound to a directory and holds a message of type ERROR until it is filled."""

    _KIND = "MessageObject"

    @classmethod
    def _adopt(cls, handle: int) -> "MessageObject":
        message = cls.__new__(cls)
        message._hold(handle)
        return message

    def set_attribute(self, name: str, value: str) -> None:
        """Sets or replaces an attribute. Never take `name` from a shopper."""
        self._call("SetAttribute", _argument(name), _argument(value))

    def get_attribute(self, name: str) -> str:
        """The value of an attribute. Raises `ResultError` (KVX_E_NOT_FOUND) when there is none."""
        return self._copy("GetAttribute", _argument(name), room=_ATTRIBUTE_ROOM)

    def find_attribute(self, name: str) -> Optional[str]:
        """The value of an attribute, or None."""
        try:
            return self.get_attribute(name)
        except ResultError as failure:
            if failure.code == ResultCode.NOT_FOUND:
                return None
            raise

    def require(self, attributes: Optional[Dict[str, str]] = None, **more: str) -> None:
        """Raises `MismatchError` unless every attribute has exactly the given value, ValueError when none is named.

        An attribute that is missing has no value: None never matches.
        """
        expected = {**(attributes or {}), **more}
        if not expected:
            raise ValueError("no attribute is named, so nothing would be compared")
        for name, wanted in expected.items():
            found = self.find_attribute(name)
            if found is None or found != wanted:
                raise MismatchError(name, wanted, found)

    def get_url(self) -> str:
        """The signed payment URL for the shopper's browser. Sends nothing itself."""
        return self._copy("GetURL", room=_MESSAGE_ROOM)

    def capture(self) -> None:
        """Sends the message as a capture. Blocks on the network.

        After a failure the payment may have been captured all the same: ask the service before you repeat it.
        """
        self._call("Capture")

    def execute(self) -> "MessageObject":
        """Sends the message as a request of its type, once only, and returns the response. Blocks on the network."""
        return self._make("Execute")

    def from_string(self, text: str) -> None:
        """Replaces the message by a parsed text, such as the DATA of a confirmation."""
        self._call("FromString", _argument(text))

    def to_string(self) -> str:
        """The message as text."""
        return self._copy("ToString", room=_MESSAGE_ROOM)
