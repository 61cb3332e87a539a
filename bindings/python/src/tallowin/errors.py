"""The exceptions. All are a `TallowinError`."""

from typing import Optional

from .codes import ResultCode

_NUMBER_MASK = 0xFFF  # of a code in a family
_MIN_HTTP_STATUS = 100  # the HTTP layer's own codes are below


class TallowinError(Exception):
    """The base of all exceptions of this package."""


class LoadError(TallowinError):
    """The native library cannot be loaded, or is another major version."""


class ResultError(TallowinError):
    """A call of the native library failed.

    `code`      the result code, signed; a small positive number is the system's errno
    `name`      the name of the code, such as "KVX_E_SERVER_ERROR"
    `reason`    what the library says about this failure
    `function`  the flat function that failed
    """

    def __init__(self, function: str, code: int, name: str, reason: str) -> None:
        super().__init__(function, code, name, reason)
        self.function = function
        self.code = code
        self.name = name
        self.reason = reason

    def __str__(self) -> str:
        return f"{self.function}: {self.reason} ({self.name}, 0x{self.code & 0xFFFFFFFF:08X})"

    @property
    def http_status(self) -> Optional[int]:
        """The status of a refused HTTP exchange, such as 503; None for other failures."""
        status = self.code & _NUMBER_MASK
        in_family = self.code & ~_NUMBER_MASK == ResultCode.HTTP_FAMILY
        return status if in_family and status >= _MIN_HTTP_STATUS else None

    @property
    def errno(self) -> Optional[int]:
        """The system's error number of a directory that cannot be created; None for other failures."""
        return self.code if self.code > 0 else None


class MismatchError(TallowinError):
    """An attribute of a message is not what it must be.

    `name`    the attribute
    `wanted`  what it must be
    `found`   its value; None when the message has no such attribute
    """

    def __init__(self, name: str, wanted: str, found: Optional[str]) -> None:
        super().__init__(name, wanted, found)
        self.name = name
        self.wanted = wanted
        self.found = found

    def __str__(self) -> str:
        found = "missing" if self.found is None else f'"{self.found}"'
        return f'{self.name} is {found}, not "{self.wanted}"'
