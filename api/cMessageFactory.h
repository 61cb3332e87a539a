/// The message factory object.
#ifndef TALLOWIN_API_CMESSAGEFACTORY_H
#define TALLOWIN_API_CMESSAGEFACTORY_H

#include <memory>

#include "tallowin/kvxhandle.h"
#include "tallowin/tbstring.h"

class KVXCIMPL_MessageObject;

/// Makes message objects for one configuration directory.
///
/// Stores the path only: every call opens a context of its own and nothing is kept between calls. Returned objects are
/// owned by the caller and do not refer to the factory; a call that fails frees its object. The factory's address is
/// its handle. Failures are KVX_Exception, memory exhaustion TBFC_Exception. One thread at a time.
class KVX_EXPORT KVXCIMPL_MessageFactory {
public:
    KVXCIMPL_MessageFactory();
    KVXCIMPL_MessageFactory(KVXCIMPL_MessageFactory const&) = delete;
    KVXCIMPL_MessageFactory& operator=(KVXCIMPL_MessageFactory const&) = delete;
    ~KVXCIMPL_MessageFactory();

    /// Stores the directory.
    void Open(TbString const& path);

    /// A payment with a fresh token, the account's defaults and an expiry time.
    [[nodiscard]] KVXCIMPL_MessageObject* CreatePayInit();

    /// The confirmation `data`, after its signature has been verified. Accepts every message type and every key of the
    /// directory: check "MSGTYPE", "TOKEN" and the amount.
    [[nodiscard]] KVXCIMPL_MessageObject* VerifyPayConfirm(TbString const& data, TbString const& signature);

    /// A completion with "ID" and "TOKEN".
    [[nodiscard]] KVXCIMPL_MessageObject* CreatePayComplete(TbString const& id, TbString const& token);

    /// A message of `type`. KVX_E_NO_MESSAGE_TYPE when that is empty.
    [[nodiscard]] KVXCIMPL_MessageObject* CreateRequest(TbString const& type);

    static void* operator new(std::size_t bytes) { return kvxTakeSlot(kKind, bytes); }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* slot) noexcept { kvxGiveSlot(kKind, slot); }

    static constexpr KvxKind kKind = KvxKind::kMessageFactory;

private:
    std::unique_ptr<KVXCIMPL_MessageObject> newOutgoing(TbString const& type);

    KvxSignature m_Signature;
    TbString m_Path;
    [[maybe_unused]] std::uint32_t m_Reserved = 0;  ///< Part of the layout; not used.
};

#endif
