// The message object and its flat functions.
//
// The members pass on to the context and the message inside; the flat functions convert arguments and copy results
// out through api/kvxboundary.h. Odd: GetURL computes a URL before it checks whether this object may hand one out, and
// the flat ToString copies through a buffer of its own.

#include "api/cMessageObject.h"

#include <cstring>
#include <memory>

#include "api/kvxboundary.h"
#include "api/kvxlines_api.h"
#include "foundation/tblocalstring.h"
#include "foundation/tbmemory.h"

KVXCIMPL_MessageObject::KVXCIMPL_MessageObject() : m_Message(&m_Context) {
    m_Signature.set(kKind);
}

KVXCIMPL_MessageObject::~KVXCIMPL_MessageObject() {
    m_Signature.clear(kKind);
}

void KVXCIMPL_MessageObject::Open(TbString const& path) {
    m_Context.Open(path);
    m_Message.Create(&m_Context, "ERROR");
}

void KVXCIMPL_MessageObject::startOutgoing(TbString const& type) {
    m_Message.Create(&m_Context, type);
    m_Outgoing = 1;
}

void KVXCIMPL_MessageObject::SetAttribute(TbString const& name, TbString const& value) {
    m_Message.SetAttribute(name, value);
}

void KVXCIMPL_MessageObject::GetAttribute(TbString const& name, TbString& value) {
    m_Message.GetAttribute(name, value);
}

void KVXCIMPL_MessageObject::GetURL(TbString& url) {
    // Deliberate (url-before-refusal): the URL is computed first and the check follows. For an object that may not hand
    // one out, both a computed URL and a failure to compute one end in the same refusal.
    TbUncountedString computed;
    try {
        m_Message.GetURL(computed);
    } catch (KVX_Exception const&) {
        if (m_Outgoing != 0) {
            throw;
        }
    }
    if (m_Outgoing == 0) {
        kvx::kSourceMessageObject.failBecause("only a message that a factory made has a payment URL", KVX_E_UNEXPECTED,
                                              kvx::kLineUrlOfForeignMessage);
    }
    TbInPlaceText::handOver(computed, url);
}

void KVXCIMPL_MessageObject::Capture() {
    m_Message.Capture();
}

KVXCIMPL_MessageObject* KVXCIMPL_MessageObject::Execute() {
    std::unique_ptr<KVXCIMPL_MessageObject> response(new KVXCIMPL_MessageObject);
    response->m_Context = m_Context;
    m_Message.Request(response->m_Message);
    return response.release();
}

void KVXCIMPL_MessageObject::FromString(TbString const& text) {
    m_Message.FromString(text);
}

TbString KVXCIMPL_MessageObject::ToString() {
    TbString text;
    if (!m_Message.ToString(text)) {
        kvx::kSourceMessageObject.failBecause("the object holds no message", KVX_E_UNEXPECTED, kvx::kLineNoText);
    }
    return text;
}

KVX_HANDLE CreateMessageObject() {
    return kvxCreate<KVXCIMPL_MessageObject>();
}

void DestroyMessageObject(KVX_HANDLE handle) {
    kvxDestroy<KVXCIMPL_MessageObject>(handle);
}

int32_t MessageObject_Open(KVX_HANDLE handle, char const* path) {
    return kvxRun<KVXCIMPL_MessageObject>(handle, [&](auto& object) { object.Open(TbBorrowed(path)); });
}

int32_t MessageObject_SetAttribute(KVX_HANDLE handle, char const* name, char const* value) {
    return kvxRun<KVXCIMPL_MessageObject>(
        handle, [&](auto& object) { object.SetAttribute(TbBorrowed(name), TbBorrowed(value)); });
}

int32_t MessageObject_GetAttribute(KVX_HANDLE handle, char const* name, int32_t* size, char* buffer) {
    return kvxCall<KVXCIMPL_MessageObject>(handle, [&](auto& object) {
        TbUncountedString value;
        object.GetAttribute(TbBorrowed(name), value);
        return kvxCopyOut(value.c_str(), size, buffer);
    });
}

int32_t MessageObject_GetURL(KVX_HANDLE handle, int32_t* size, char* buffer) {
    return kvxCall<KVXCIMPL_MessageObject>(handle, [&](auto& object) {
        TbUncountedString url;
        object.GetURL(url);
        return kvxCopyOut(url.c_str(), size, buffer);
    });
}

int32_t MessageObject_Capture(KVX_HANDLE handle) {
    return kvxRun<KVXCIMPL_MessageObject>(handle, [](auto& object) { object.Capture(); });
}

int32_t MessageObject_Execute(KVX_HANDLE handle, KVX_HANDLE* out) {
    return kvxMake<KVXCIMPL_MessageObject>(handle, out, [](auto& object) { return object.Execute(); });
}

int32_t MessageObject_FromString(KVX_HANDLE handle, char const* text) {
    return kvxRun<KVXCIMPL_MessageObject>(handle, [&](auto& object) { object.FromString(TbBorrowed(text)); });
}

int32_t MessageObject_ToString(KVX_HANDLE handle, int32_t* size, char* buffer) {
    return kvxCall<KVXCIMPL_MessageObject>(handle, [&](auto& object) {
        TbString const text = object.ToString();
        // Deliberate (tostring-own-buffer): this function alone copies through a buffer of its own; when that cannot be
        // allocated it leaves the size alone.
        TbMemoryHolder const copy(static_cast<char*>(tbAllocate(std::size_t{text.length()} * 2 + 2)));
        if (copy == nullptr) {
            return KVX_E_OUT_OF_MEMORY;
        }
        std::memcpy(copy.get(), text.c_str(), std::size_t{text.length()} + 1);
        std::int32_t const code = kvxCopyOut(copy.get(), size, buffer);
        ::explicit_bzero(copy.get(), text.length());  // the account's defaults may hold credentials
        return code;
    });
}
