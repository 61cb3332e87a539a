#include "api/cConfigurationSetup.h"

#include "api/kvxboundary.h"
#include "api/kvxlines_api.h"
#include "foundation/tblocalstring.h"

KVXCIMPL_ConfigurationSetup::KVXCIMPL_ConfigurationSetup() {
    m_Signature.set(kKind);
}

KVXCIMPL_ConfigurationSetup::~KVXCIMPL_ConfigurationSetup() {
    m_Signature.clear(kKind);
}

void KVXCIMPL_ConfigurationSetup::SetConfiguration(TbString const& path) {
    m_Context.Open(path);
}

void KVXCIMPL_ConfigurationSetup::Reconfigure(TbString const& url, TbString const& user, TbString const& password) {
    if (!url.isEmpty()) {
        m_Context.SetOption("VTAUTOURL", url);
    }
    m_Context.SetOption("UserName", user);
    m_Context.SetOption("Password", password);
    m_Context.Reconfigure();
}

void KVXCIMPL_ConfigurationSetup::SetOption(TbString const& name, TbString const& value) {
    m_Context.SetOption(name, value);
}

void KVXCIMPL_ConfigurationSetup::GetAttribute(TbString const& file, TbString const& name, TbString& value) {
    if (!m_Context.QueryValue(file, name, value)) {
        KvxCause cause = kvxFileCause(m_Context.GetPath(), file, ": has no ");
        kvx::kSourceConfigurationSetup.failBecause(cause.put(name), KVX_E_NOT_FOUND, kvx::kLineSetupAttributeNotFound);
    }
}

void KVXCIMPL_ConfigurationSetup::SetAttribute(TbString const& file, TbString const& name, TbString const& value) {
    if (!value.isEmpty()) {
        m_Context.SetValue(file, name, value, false);
    }
}

KVX_HANDLE CreateConfigurationSetup() {
    return kvxCreate<KVXCIMPL_ConfigurationSetup>();
}

void DestroyConfigurationSetup(KVX_HANDLE handle) {
    kvxDestroy<KVXCIMPL_ConfigurationSetup>(handle);
}

int32_t ConfigurationSetup_SetConfiguration(KVX_HANDLE handle, char const* path) {
    return kvxRun<KVXCIMPL_ConfigurationSetup>(handle, [&](auto& setup) { setup.SetConfiguration(TbBorrowed(path)); });
}

int32_t ConfigurationSetup_Reconfigure(KVX_HANDLE handle, char const* url, char const* user, char const* password) {
    return kvxRun<KVXCIMPL_ConfigurationSetup>(handle, [&](auto& setup) {
        setup.Reconfigure(kvxSecretText(url), kvxSecretText(user), kvxSecretText(password));
    });
}

int32_t ConfigurationSetup_SetOption(KVX_HANDLE handle, char const* name, char const* value) {
    return kvxRun<KVXCIMPL_ConfigurationSetup>(
        handle, [&](auto& setup) { setup.SetOption(TbBorrowed(name), kvxSecretText(value)); });
}

int32_t ConfigurationSetup_GetAttribute(KVX_HANDLE handle, char const* file, char const* name, int32_t* size,
                                        char* buffer) {
    return kvxCall<KVXCIMPL_ConfigurationSetup>(handle, [&](auto& setup) {
        TbString value;
        setup.GetAttribute(TbBorrowed(file), TbBorrowed(name), value);
        return kvxCopyOut(value.c_str(), size, buffer);
    });
}

int32_t ConfigurationSetup_SetAttribute(KVX_HANDLE handle, char const* file, char const* name, char const* value) {
    return kvxRun<KVXCIMPL_ConfigurationSetup>(
        handle, [&](auto& setup) { setup.SetAttribute(TbBorrowed(file), TbBorrowed(name), kvxSecretText(value)); });
}
