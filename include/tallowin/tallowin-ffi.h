/* clang-format off */
/* The flat functions as declarations alone, for foreign function interfaces. scripts/ffi makes this file of tallowin.h, which says
 * what the functions do; programs in C include that one. The types int32_t and char are the reader's own. */
typedef void* KVX_HANDLE;
char const* KVX_GetVersion(void);
char const* KVX_GetErrorName(int32_t code);
int32_t KVX_GetLastErrorText(int32_t* size, char* buffer);
int KVX_GetErrorStringFromResult(int32_t code, int32_t* size, char* buffer);
KVX_HANDLE CreateConfigurationSetup(void);
void DestroyConfigurationSetup(KVX_HANDLE handle);
int32_t ConfigurationSetup_SetConfiguration(KVX_HANDLE handle, char const* path);
int32_t ConfigurationSetup_Reconfigure(KVX_HANDLE handle, char const* url, char const* user, char const* password);
int32_t ConfigurationSetup_SetOption(KVX_HANDLE handle, char const* name, char const* value);
int32_t ConfigurationSetup_GetAttribute(KVX_HANDLE handle, char const* file, char const* name, int32_t* size, char* buffer);
int32_t ConfigurationSetup_SetAttribute(KVX_HANDLE handle, char const* file, char const* name, char const* value);
KVX_HANDLE CreateMessageFactory(void);
void DestroyMessageFactory(KVX_HANDLE handle);
int32_t MessageFactory_Open(KVX_HANDLE handle, char const* path);
int32_t MessageFactory_CreatePayInit(KVX_HANDLE handle, KVX_HANDLE* out);
int32_t MessageFactory_VerifyPayConfirm(KVX_HANDLE handle, char const* data, char const* signature, KVX_HANDLE* out);
int32_t MessageFactory_CreatePayComplete(KVX_HANDLE handle, char const* id, char const* token, KVX_HANDLE* out);
int32_t MessageFactory_CreateRequest(KVX_HANDLE handle, char const* type, KVX_HANDLE* out);
KVX_HANDLE CreateMessageObject(void);
void DestroyMessageObject(KVX_HANDLE handle);
int32_t MessageObject_Open(KVX_HANDLE handle, char const* path);
int32_t MessageObject_SetAttribute(KVX_HANDLE handle, char const* name, char const* value);
int32_t MessageObject_GetAttribute(KVX_HANDLE handle, char const* name, int32_t* size, char* buffer);
int32_t MessageObject_GetURL(KVX_HANDLE handle, int32_t* size, char* buffer);
int32_t MessageObject_Capture(KVX_HANDLE handle);
int32_t MessageObject_Execute(KVX_HANDLE handle, KVX_HANDLE* out);
int32_t MessageObject_FromString(KVX_HANDLE handle, char const* text);
int32_t MessageObject_ToString(KVX_HANDLE handle, int32_t* size, char* buffer);
