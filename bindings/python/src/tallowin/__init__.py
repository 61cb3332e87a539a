"""The merchant's side of a hosted payment: signed payment URLs, verified confirmations, captures.

Three classes, each a handle of the native library: `ConfigurationSetup` prepares the configuration directory of one account,
`MessageFactory` makes and verifies messages, `MessageObject` is one message. Close each, or use it in a `with` statement.

Texts are `str`: UTF-8 on the wire. Bytes that are not UTF-8 become lone surrogates (PEP 383) and go back as the same bytes.

Calls on one object run one after the other; different threads may use different objects at the same time. Network calls block
their thread, not the interpreter.
"""

from ._library import version
from .codes import ResultCode
from .errors import LoadError, MismatchError, ResultError, TallowinError
from .objects import ConfigurationSetup, MessageFactory, MessageObject

__all__ = [
    "ConfigurationSetup",
    "LoadError",
    "MessageFactory",
    "MessageObject",
    "MismatchError",
    "ResultCode",
    "ResultError",
    "TallowinError",
    "version",
]
