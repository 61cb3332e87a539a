"""The order ledger's flat functions for tests in Python. The environment variable KVX_LEDGER has the library's path."""

import contextlib
import ctypes
import json
import os
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[3]
NUMBER_SIZE = 65

library = ctypes.CDLL(os.environ["KVX_LEDGER"])
for name in ("CreateLedger", "Ledger_GetOutcomeName", "Ledger_GetReasonName"):
    getattr(library, name).restype = ctypes.c_void_p if name == "CreateLedger" else ctypes.c_char_p
for name, kinds in {
        "DestroyLedger": "p", "DestroyLedgerOrder": "p", "Ledger_SetOption": "pss", "Ledger_Open": "pss",
        "Ledger_GetLastErrorText": "pp", "Ledger_CreateOrder": "psssp", "LedgerOrder_SetAttribute": "pss",
        "LedgerOrder_Begin": "ppp", "Ledger_Confirm": "pssspps", "Ledger_GetReason": "ppps", "Ledger_NextPaid": "pps",
        "Ledger_Delivered": "ps",
        "Ledger_RunDue": "pip", "Ledger_Resolve": "psss", "Ledger_GetState": "psps", "Ledger_GetOrder": "psps",
        "Ledger_ListOrders": "pssips", "Ledger_ExportOrder": "psps"}.items():
    getattr(library, name).argtypes = [{"p": ctypes.c_void_p, "s": ctypes.c_char_p, "i": ctypes.c_int32}[kind]
                                       for kind in kinds]

# Names and values of the result codes, as C has them.
CODES = {name: ctypes.c_int32(int(value, 16)).value
         for name, value in re.findall(r'"name": "(KVX_E_\w+)", "value": "(0x[0-9A-F]+)"',
                                       (ROOT / "catalogue" / "errors.json").read_text())}
NAMES = {value: name for name, value in CODES.items()}


class LedgerFailure(Exception):
    """A call failed. `name` is the result code's."""

    def __init__(self, code):
        self.name = NAMES.get(code, str(code))
        size = ctypes.c_int32(2000)
        text = ctypes.create_string_buffer(size.value)
        library.Ledger_GetLastErrorText(ctypes.byref(size), text)
        super().__init__(f"{self.name}: {text.value.decode('latin-1')}")


def require(code):
    if code != 0:
        raise LedgerFailure(code)


def name_of(result):
    """The name of a call's result: a code's, or "KVX_OK"."""
    return NAMES.get(result, str(result)) if result else "KVX_OK"


class Ledger:
    """A handle. Opened by the thread that uses it. A store is the path of a file, or an address of PostgreSQL."""

    def __init__(self, store, directory, **options):
        self.handle = library.CreateLedger()
        for name, value in options.items():
            self.option(name, value)
        try:
            name = str(store) if str(store).startswith("postgresql:") else f"sqlite:{store}"
            require(library.Ledger_Open(self.handle, name.encode(), str(directory).encode()))
        except LedgerFailure:
            self.close()
            raise
        self.buffer = ctypes.create_string_buffer(32768)  # room for most texts
        self.number = ctypes.create_string_buffer(NUMBER_SIZE)
        self.outcome, self.size = ctypes.c_int32(), ctypes.c_int32()

    def close(self):
        library.DestroyLedger(self.handle)
        self.handle = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def option(self, name, value):
        require(library.Ledger_SetOption(self.handle, name.encode(), str(value).encode()))

    def begin(self, number, amount="12.50", currency="EUR", attributes=()):
        """The payment URL."""
        order = ctypes.c_void_p()
        require(library.Ledger_CreateOrder(self.handle, number.encode(), amount.encode(), currency.encode(),
                                           ctypes.byref(order)))
        with contextlib.ExitStack() as stack:
            stack.callback(library.DestroyLedgerOrder, order)
            for name, value in dict(attributes).items():
                require(library.LedgerOrder_SetAttribute(order, name.encode(), value.encode()))
            size = ctypes.c_int32(8192)
            url = ctypes.create_string_buffer(size.value)
            require(library.LedgerOrder_Begin(order, ctypes.byref(size), url))
            return url.value.decode()

    def confirm(self, data, signature, messenger="return"):
        """The outcome's name, the reason's name and the order's number."""
        self.size.value = NUMBER_SIZE
        require(library.Ledger_Confirm(self.handle, messenger.encode(), data, signature.encode(),
                                       ctypes.byref(self.outcome), ctypes.byref(self.size), self.number))
        reason, size = ctypes.c_int32(), ctypes.c_int32(1000)
        sentence = ctypes.create_string_buffer(size.value)
        require(library.Ledger_GetReason(self.handle, ctypes.byref(reason), ctypes.byref(size), sentence))
        return (library.Ledger_GetOutcomeName(self.outcome.value).decode(),
                library.Ledger_GetReasonName(reason.value).decode(), self.number.value.decode())

    def next_paid(self):
        """The number of a paid order that has not been reported, or None."""
        size = ctypes.c_int32(NUMBER_SIZE)
        number = ctypes.create_string_buffer(NUMBER_SIZE)
        code = library.Ledger_NextPaid(self.handle, ctypes.byref(size), number)
        if code == CODES["KVX_E_NOT_FOUND"]:
            return None
        require(code)
        return number.value.decode()

    def delivered(self, number):
        """The name of the result."""
        return name_of(library.Ledger_Delivered(self.handle, number.encode()))

    def run(self, limit=100):
        done = ctypes.c_int32(-1)
        require(library.Ledger_RunDue(self.handle, limit, ctypes.byref(done)))
        return done.value

    def resolve(self, number, state, note="Kim: seen at the service"):
        """The name of the result."""
        return name_of(library.Ledger_Resolve(self.handle, number.encode(), state.encode(), note.encode()))

    def text(self, function, *arguments):
        size = ctypes.c_int32(len(self.buffer))
        text = self.buffer
        code = function(self.handle, *arguments, ctypes.byref(size), text)
        while code == CODES["KVX_E_BUFFER_TOO_SMALL"]:
            text = ctypes.create_string_buffer(size.value)
            code = function(self.handle, *arguments, ctypes.byref(size), text)
        require(code)
        return text.value.decode("ascii")

    def state(self, number):
        return self.text(library.Ledger_GetState, number.encode())

    def order(self, number):
        return json.loads(self.text(library.Ledger_GetOrder, number.encode()))

    def evidence(self, number):
        return json.loads(self.text(library.Ledger_ExportOrder, number.encode()))

    def numbers(self, kind):
        """The numbers of all orders of a filter, page after page."""
        after, found = "", []
        while after is not None:
            page = json.loads(self.text(library.Ledger_ListOrders, kind.encode(), after.encode(), 1000))
            found += [order["number"] for order in page["orders"]]
            after = page["next"]
        return found
