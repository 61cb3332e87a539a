/// Set-up in two phases: a new key of the merchant's while the old one still signs.
///
/// Everything of a renewal stands in the folder ".renewal" of the configuration directory:
///
///   lock        locked while a process renews, takes over or tidies up here
///   id          a random name of this directory, the owner of its renewals in the store
///   generation  the renewal whose files are in the directory
///   next        the set-up of a renewal: a configuration directory of its own, and the renewal's generation
///   gone        a set-up that is done with, to be removed
///
/// What stands in "next" says how far the renewal has come, so the next call knows what a dead process has left:
///
///   no private key                      nothing has been published: removed
///   a private key, no "keys/current"    in doubt: the service may know the key. The pair is kept among the old keys
///   "keys/current"                      the service has answered with success: the files are installed
#ifndef TALLOWIN_LEDGER_SETUPRENEWAL_H
#define TALLOWIN_LEDGER_SETUPRENEWAL_H

#include <cstdint>
#include <optional>
#include <string>

#include "ledger/component.h"
#include "ledger/options.h"
#include "ledger/orderstore.h"
#include "ledger/renewalstore.h"
#include "ledger/setupstate.h"

namespace ledger {

/// Where the configuration service is, and who asks. An empty URL: the address that the directory has.
struct SetupLogin {
    char const* m_Url;
    char const* m_User;
    char const* m_Password;
};

class SetupRenewal {
public:
    SetupRenewal(std::string directory, Store& store, Options const& options)
        : m_Directory(std::move(directory)), m_Store(store), m_Renewals(store.database()), m_Options(options) {}

    /// Renews the key. Throws Failure; `outcome` is set in any case.
    void renew(SetupLogin const& login, std::int32_t& outcome);

    /// Finishes or undoes what a dead process of this directory has left, then takes over the newest set-up of another
    /// server, when KEYSECRET is set. Reads one file and one row when there is nothing to do. Leaves everything to
    /// another process that is at it.
    void catchUp();

private:
    enum class Phase { kNothing, kUnpublished, kInDoubt, kPublished };

    [[nodiscard]] Phase phase() const;
    void stage(std::int64_t generation) const;
    void adaptSettings() const;
    [[nodiscard]] Result publish(SetupLogin const& login) const;
    void recover();
    void finish();
    void undo(std::int64_t generation, Result const& result);
    void keepDoubtful(char const* state, Result const& result);
    void discard() const;
    void takeOver();

    [[nodiscard]] SetupState stagedState() const;
    void requireSuitable(SetupState const& state) const;
    void requireSigning() const;
    void install(SetupState const& state);
    void recordServiceKey(SetupState const& state);
    void installPair(SetupState const& state) const;

    [[nodiscard]] std::string keyIdInDoubt() const;
    [[nodiscard]] std::string ownId() const;
    [[nodiscard]] std::int64_t generationIn(char const* file) const;
    void setGeneration(char const* file, std::int64_t generation) const;
    [[nodiscard]] std::string path(std::string const& file) const { return m_Directory + "/" + file; }
    /// By the clock that all users of the store share.
    [[nodiscard]] Time now() const {
        return m_Options.m_Now ? *m_Options.m_Now : m_Store.database().sharedTime().value_or(m_Options.now());
    }

    std::string m_Directory;
    Store& m_Store;  ///< Borrowed.
    RenewalStore m_Renewals;
    Options const& m_Options;  ///< Borrowed.
};

}  // namespace ledger

#endif
