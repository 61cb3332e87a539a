/// The configuration setup object.
#ifndef TALLOWIN_API_CCONFIGURATIONSETUP_H
#define TALLOWIN_API_CCONFIGURATIONSETUP_H

#include "tallowin/kvxctx.h"
#include "tallowin/kvxhandle.h"

/// Prepares and maintains the configuration directory of one merchant account.
///
/// The object's address is its handle. Failures are KVX_Exception, memory exhaustion TBFC_Exception. One thread at a
/// time.
class KVX_EXPORT KVXCIMPL_ConfigurationSetup {
public:
    KVXCIMPL_ConfigurationSetup();
    KVXCIMPL_ConfigurationSetup(KVXCIMPL_ConfigurationSetup const&) = delete;
    KVXCIMPL_ConfigurationSetup& operator=(KVXCIMPL_ConfigurationSetup const&) = delete;
    ~KVXCIMPL_ConfigurationSetup();

    /// Chooses the directory; see KVX_Context::Open.
    void SetConfiguration(TbString const& path);

    /// Stores the server's address unless `url` is empty, then the credentials, then runs the set-up.
    ///
    /// Run it as the user that signs later: a new private key is readable for its owner only, and stays in
    /// "keys/private" when a later set-up makes another.
    /// Requires: no "?" and no byte above 0x7F in `user` and `password`, no "@" in `password`, and a `user` where there
    /// is a `password`; they enter the URL unescaped.
    ///
    /// The arguments are the caller's own: a password in them stays in released memory unless they are secret strings
    /// (TbString::keepSecret). One that is made of a bare `char const*` on the way in is not.
    void Reconfigure(TbString const& url, TbString const& user, TbString const& password);

    /// See KVX_Context::SetOption.
    void SetOption(TbString const& name, TbString const& value);

    /// Reads a value of a file of the directory. KVX_E_NOT_FOUND.
    void GetAttribute(TbString const& file, TbString const& name, TbString& value);

    /// Sets a value of an existing file, which keeps its first "KVX" element only.
    ///
    /// A `name` with "(." in it succeeds and is not written. Requires: `name` consists of A-Z a-z 0-9 . - _.
    ///
    /// Deliberate (empty-value-not-written): an empty value is never written, and that is a success.
    void SetAttribute(TbString const& file, TbString const& name, TbString const& value);

    static void* operator new(std::size_t bytes) { return kvxTakeSlot(kKind, bytes); }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* slot) noexcept { kvxGiveSlot(kKind, slot); }

    static constexpr KvxKind kKind = KvxKind::kConfigurationSetup;

private:
    KvxSignature m_Signature;
    KVX_Context m_Context;
};

#endif
