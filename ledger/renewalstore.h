/// The rows of the table of renewals, and every statement on them.
///
/// The columns are explained in schema_3.sql. Functions that change rows run inside a transaction that the caller
/// commits. All of them throw Failure, and Conflict inside a transaction.
#ifndef TALLOWIN_LEDGER_RENEWALSTORE_H
#define TALLOWIN_LEDGER_RENEWALSTORE_H

#include <cstdint>
#include <optional>
#include <string>

#include "ledger/options.h"
#include "ledger/storedatabase.h"

namespace ledger {

struct RenewalRow {
    std::int64_t m_Generation = 0;
    std::string m_State;
    std::string m_Owner;
    Time m_BegunAt = 0;
    Time m_LeaseUntil = 0;
};

/// How a renewal ended.
struct RenewalEnd {
    std::string m_State;
    Time m_At = 0;
    std::optional<std::int64_t> m_Code;
    std::optional<std::string> m_Reason;
    std::optional<std::string> m_KeyId;
    std::optional<std::string> m_KeyFingerprint;
    std::optional<std::string> m_Sealed;
};

/// A set-up for other servers.
struct SealedRow {
    std::int64_t m_Generation = 0;
    std::string m_Sealed;
};

class RenewalStore {
public:
    explicit RenewalStore(Database& database) : m_Database(database) {}

    [[nodiscard]] Database& database() const { return m_Database; }

    /// The renewal that runs; of several the newest.
    std::optional<RenewalRow> running();

    std::optional<RenewalRow> find(std::int64_t generation);

    /// Whether a later renewal is done or runs.
    bool isSuperseded(std::int64_t generation);

    /// Adds a renewal that runs and returns its generation. Any other that runs becomes an interrupted one.
    std::int64_t add(std::string const& owner, Time at, Time leaseUntil);

    void end(std::int64_t generation, RenewalEnd const& end);

    /// Removes the sealed set-ups of earlier generations.
    void removeSealedBefore(std::int64_t generation);

    /// The generation of the newest sealed set-up; 0: there is none.
    std::int64_t newestSealed();
    std::optional<SealedRow> sealedOf(std::int64_t generation);

private:
    Database& m_Database;  ///< Borrowed.
};

}  // namespace ledger

#endif
