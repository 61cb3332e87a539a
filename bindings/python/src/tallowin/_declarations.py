"""The C face, for ctypes: the result and the parameters of each function. scripts/ffi makes this file of tallowin.h."""

from ctypes import POINTER, c_char_p, c_int, c_int32, c_void_p
from typing import Any

VERSION = "1.0.0"

FUNCTIONS: "dict[str, tuple[Any, list[Any]]]" = {
    "KVX_GetVersion": (c_char_p, []),
    "KVX_GetErrorName": (c_char_p, [c_int32]),
    "KVX_GetLastErrorText": (c_int32, [POINTER(c_int32), c_char_p]),
    "KVX_GetErrorStringFromResult": (c_int, [c_int32, POINTER(c_int32), c_char_p]),
    "CreateConfigurationSetup": (c_void_p, []),
    "DestroyConfigurationSetup": (None, [c_void_p]),
    "ConfigurationSetup_SetConfiguration": (c_int32, [c_void_p, c_char_p]),
    "ConfigurationSetup_Reconfigure": (c_int32, [c_void_p, c_char_p, c_char_p, c_char_p]),
    "ConfigurationSetup_SetOption": (c_int32, [c_void_p, c_char_p, c_char_p]),
    "ConfigurationSetup_GetAttribute": (c_int32, [c_void_p, c_char_p, c_char_p, POINTER(c_int32), c_char_p]),
    "ConfigurationSetup_SetAttribute": (c_int32, [c_void_p, c_char_p, c_char_p, c_char_p]),
    "CreateMessageFactory": (c_void_p, []),
    "DestroyMessageFactory": (None, [c_void_p]),
    "MessageFactory_Open": (c_int32, [c_void_p, c_char_p]),
    "MessageFactory_CreatePayInit": (c_int32, [c_void_p, POINTER(c_void_p)]),
    "MessageFactory_VerifyPayConfirm": (c_int32, [c_void_p, c_char_p, c_char_p, POINTER(c_void_p)]),
    "MessageFactory_CreatePayComplete": (c_int32, [c_void_p, c_char_p, c_char_p, POINTER(c_void_p)]),
    "MessageFactory_CreateRequest": (c_int32, [c_void_p, c_char_p, POINTER(c_void_p)]),
    "CreateMessageObject": (c_void_p, []),
    "DestroyMessageObject": (None, [c_void_p]),
    "MessageObject_Open": (c_int32, [c_void_p, c_char_p]),
    "MessageObject_SetAttribute": (c_int32, [c_void_p, c_char_p, c_char_p]),
    "MessageObject_GetAttribute": (c_int32, [c_void_p, c_char_p, POINTER(c_int32), c_char_p]),
    "MessageObject_GetURL": (c_int32, [c_void_p, POINTER(c_int32), c_char_p]),
    "MessageObject_Capture": (c_int32, [c_void_p]),
    "MessageObject_Execute": (c_int32, [c_void_p, POINTER(c_void_p)]),
    "MessageObject_FromString": (c_int32, [c_void_p, c_char_p]),
    "MessageObject_ToString": (c_int32, [c_void_p, POINTER(c_int32), c_char_p]),
}
