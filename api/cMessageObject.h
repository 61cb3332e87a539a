/// The message object.
#ifndef TALLOWIN_API_CMESSAGEOBJECT_H
#define TALLOWIN_API_CMESSAGEOBJECT_H

#include "tallowin/kvxctx.h"
#include "tallowin/kvxhandle.h"

/// One payment message together with the context it is bound to.
///
/// The object's address is its handle. Failures are KVX_Exception, memory exhaustion TBFC_Exception. One thread at a
/// time.
class KVX_EXPORT KVXCIMPL_MessageObject {
public:
    KVXCIMPL_MessageObject();
    KVXCIMPL_MessageObject(KVXCIMPL_MessageObject const&) = delete;
    KVXCIMPL_MessageObject& operator=(KVXCIMPL_MessageObject const&) = delete;
    ~KVXCIMPL_MessageObject();

    /// Opens the directory and starts a message.
    /// Deliberate (opened-as-error): of the type "ERROR", until FromString or SetAttribute change it.
    void Open(TbString const& path);

    /// Requires: `name` consists of name characters, A-Z a-z 0-9 . - _. Any other name is signed, and reads as
    /// something else or not at all.
    void SetAttribute(TbString const& name, TbString const& value);
    void GetAttribute(TbString const& name, TbString& value);

    /// The signed payment URL. KVX_E_UNEXPECTED unless a factory's Create function made this object.
    void GetURL(TbString& url);

    void Capture();

    /// Sends the message as a request; the response is owned by the caller.
    [[nodiscard]] KVXCIMPL_MessageObject* Execute();

    /// Replaces the message by the parsed `text`, keeping the signing key. Needs no directory. A bare "&" in a value
    /// deletes the five characters behind it.
    void FromString(TbString const& text);

    /// The message as text. KVX_E_UNEXPECTED when there is none.
    [[nodiscard]] TbString ToString();

    static void* operator new(std::size_t bytes) { return kvxTakeSlot(kKind, bytes); }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* slot) noexcept { kvxGiveSlot(kKind, slot); }

    static constexpr KvxKind kKind = KvxKind::kMessageObject;

private:
    friend class KVXCIMPL_MessageFactory;

    void startOutgoing(TbString const& type);

    KvxSignature m_Signature;
    KVX_Context m_Context;
    KVX_Message m_Message;         ///< Bound to m_Context for life.
    std::uint32_t m_Outgoing = 0;  ///< 1 when a factory's Create function made this object.
};

#endif
