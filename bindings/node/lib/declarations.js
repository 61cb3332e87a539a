// The C face, for koffi: a handle is a number, a text is bytes with a zero byte behind them. scripts/ffi makes this file of tallowin.h.
'use strict';

module.exports = {
  version: '1.0.0',
  functions: [
    'const char *KVX_GetVersion()',
    'int KVX_GetErrorStringFromResult(int32_t code, int32_t *size, uint8_t *buffer)',
    'uintptr_t CreateConfigurationSetup()',
    'void DestroyConfigurationSetup(uintptr_t handle)',
    'int32_t ConfigurationSetup_SetConfiguration(uintptr_t handle, const uint8_t *path)',
    'int32_t ConfigurationSetup_Reconfigure(uintptr_t handle, const uint8_t *url, const uint8_t *user, const uint8_t *password)',
    'int32_t ConfigurationSetup_SetOption(uintptr_t handle, const uint8_t *name, const uint8_t *value)',
    'int32_t ConfigurationSetup_GetAttribute(uintptr_t handle, const uint8_t *file, const uint8_t *name, int32_t *size, uint8_t *buffer)',
    'int32_t ConfigurationSetup_SetAttribute(uintptr_t handle, const uint8_t *file, const uint8_t *name, const uint8_t *value)',
    'uintptr_t CreateMessageFactory()',
    'void DestroyMessageFactory(uintptr_t handle)',
    'int32_t MessageFactory_Open(uintptr_t handle, const uint8_t *path)',
    'int32_t MessageFactory_CreatePayInit(uintptr_t handle, _Out_ uintptr_t *out)',
    'int32_t MessageFactory_VerifyPayConfirm(uintptr_t handle, const uint8_t *data, const uint8_t *signature, _Out_ uintptr_t *out)',
    'int32_t MessageFactory_CreatePayComplete(uintptr_t handle, const uint8_t *id, const uint8_t *token, _Out_ uintptr_t *out)',
    'int32_t MessageFactory_CreateRequest(uintptr_t handle, const uint8_t *type, _Out_ uintptr_t *out)',
    'uintptr_t CreateMessageObject()',
    'void DestroyMessageObject(uintptr_t handle)',
    'int32_t MessageObject_Open(uintptr_t handle, const uint8_t *path)',
    'int32_t MessageObject_SetAttribute(uintptr_t handle, const uint8_t *name, const uint8_t *value)',
    'int32_t MessageObject_GetAttribute(uintptr_t handle, const uint8_t *name, int32_t *size, uint8_t *buffer)',
    'int32_t MessageObject_GetURL(uintptr_t handle, int32_t *size, uint8_t *buffer)',
    'int32_t MessageObject_Capture(uintptr_t handle)',
    'int32_t MessageObject_Execute(uintptr_t handle, _Out_ uintptr_t *out)',
    'int32_t MessageObject_FromString(uintptr_t handle, const uint8_t *text)',
    'int32_t MessageObject_ToString(uintptr_t handle, int32_t *size, uint8_t *buffer)',
  ],
};
