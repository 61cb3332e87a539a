"""The native library: where it is, its functions, and what its failures say."""

import ctypes
import functools
import os
from typing import Any

from ._declarations import FUNCTIONS, VERSION
from .codes import ResultCode
from .errors import LoadError, ResultError

_VARIABLE = "TALLOWIN_LIBRARY"
_REASON_ROOM = 512
_SONAME = "libtallowin.so." + VERSION.split(".")[0]


@functools.lru_cache(maxsize=None)
def library() -> ctypes.CDLL:
    """The library, loaded at the first call."""
    name = os.environ.get(_VARIABLE) or _SONAME
    try:
        loaded = ctypes.CDLL(name)
        for function, (result, parameters) in FUNCTIONS.items():
            native = getattr(loaded, function)
            native.restype = result
            native.argtypes = parameters
    except (OSError, AttributeError) as failure:
        raise LoadError(f"{name} cannot be loaded: {failure}. Install the library, or set {_VARIABLE} to its file.") from failure
    found = loaded.KVX_GetVersion().decode("ascii")
    if found.split(".")[0] != VERSION.split(".")[0]:
        raise LoadError(f"{name} is version {found}; this package is for {VERSION}.")
    return loaded


def version() -> str:
    """The version of the native library."""
    return str(library().KVX_GetVersion().decode("ascii"))


def call(function: str, *arguments: Any) -> None:
    """Calls a function that returns a result code. Raises `ResultError` unless it succeeds."""
    code = getattr(library(), function)(*arguments)
    if code != ResultCode.OK:
        raise result_error(function, code)


def create(function: str) -> int:
    """Calls a function that returns a new handle."""
    handle = getattr(library(), function)()
    if not handle:
        raise result_error(function, ResultCode.OUT_OF_MEMORY)
    return int(handle)


def text_of(function: str, *arguments: Any, room: int) -> bytes:
    """The text that a function copies into a buffer. `room` is the first size to try."""
    while True:
        size = ctypes.c_int32(room)
        buffer = ctypes.create_string_buffer(room)
        code = getattr(library(), function)(*arguments, ctypes.byref(size), buffer)
        if code == ResultCode.OK:
            return buffer.value
        if code != ResultCode.BUFFER_TOO_SMALL or size.value <= room:
            raise result_error(function, code)
        room = size.value


def result_error(function: str, code: int) -> ResultError:
    """The exception for a failure that just happened on this thread."""
    name = library().KVX_GetErrorName(code).decode("ascii")
    return ResultError(function, code, name, _last_reason() or name)


def _last_reason() -> str:
    """What the library says about this thread's last failure; empty when memory is exhausted."""
    size = ctypes.c_int32(_REASON_ROOM)
    while True:
        room = size.value
        buffer = ctypes.create_string_buffer(room)
        code = library().KVX_GetLastErrorText(ctypes.byref(size), buffer)
        if code == ResultCode.OK:
            return buffer.value.decode("utf-8", "replace")
        if code != ResultCode.BUFFER_TOO_SMALL or size.value <= room:
            return ""
