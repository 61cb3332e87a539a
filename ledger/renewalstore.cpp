#include "ledger/renewalstore.h"

#include <utility>
#include <variant>

#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

/// The column `index` of a row. Throws Failure when it has another type.
template <class Kind>
Kind columnOf(Row& row, std::size_t index) {
    Kind* const column = std::get_if<Kind>(&row.at(index));
    if (column == nullptr) {
        throw Failure(KVX_E_LEDGER_DAMAGED, "the table of renewals has a column of another type");
    }
    return std::move(*column);
}

std::optional<RenewalRow> renewalIn(Rows rows) {
    if (rows.empty()) {
        return std::nullopt;
    }
    Row& row = rows[0];
    return RenewalRow{columnOf<std::int64_t>(row, 0), columnOf<std::string>(row, 1), columnOf<std::string>(row, 2),
                      columnOf<std::int64_t>(row, 3), columnOf<std::int64_t>(row, 4)};
}

}  // namespace

std::optional<RenewalRow> RenewalStore::running() {
    static constexpr char kSql[] =
        "SELECT generation, state, owner, begun_at, lease_until FROM renewals WHERE state = 'running'"
        " ORDER BY generation DESC LIMIT 1";
    return renewalIn(m_Database.run(kSql, {}));
}

std::optional<RenewalRow> RenewalStore::find(std::int64_t generation) {
    static constexpr char kSql[] =
        "SELECT generation, state, owner, begun_at, lease_until FROM renewals WHERE generation = $1";
    return renewalIn(m_Database.run(kSql, {generation}));
}

bool RenewalStore::isSuperseded(std::int64_t generation) {
    static constexpr char kSql[] =
        "SELECT count(*) FROM renewals WHERE generation > $1 AND state IN ('done', 'running')";
    Rows rows = m_Database.run(kSql, {generation});
    return columnOf<std::int64_t>(rows.at(0), 0) != 0;
}

std::int64_t RenewalStore::add(std::string const& owner, Time at, Time leaseUntil) {
    static constexpr char kInterrupt[] =
        "UPDATE renewals SET state = 'interrupted', ended_at = $1 WHERE state = 'running'";
    static constexpr char kNext[] = "SELECT coalesce(max(generation), 0) + 1 FROM renewals";
    static constexpr char kAdd[] =
        "INSERT INTO renewals (generation, state, owner, begun_at, lease_until) VALUES ($1, 'running', $2, $3, $4)";
    m_Database.run(kInterrupt, {at});
    Rows rows = m_Database.run(kNext, {});
    auto const generation = columnOf<std::int64_t>(rows.at(0), 0);
    m_Database.run(kAdd, {generation, owner, at, leaseUntil});
    return generation;
}

void RenewalStore::end(std::int64_t generation, RenewalEnd const& end) {
    static constexpr char kSql[] =
        "UPDATE renewals SET state = $1, ended_at = $2, code = $3, reason = $4, key_id = $5, key_fingerprint = $6,"
        " sealed = $7 WHERE generation = $8";
    m_Database.run(kSql, {end.m_State, end.m_At, orNull(end.m_Code), orNull(end.m_Reason), orNull(end.m_KeyId),
                          orNull(end.m_KeyFingerprint), orNull(end.m_Sealed), generation});
}

void RenewalStore::removeSealedBefore(std::int64_t generation) {
    static constexpr char kSql[] = "UPDATE renewals SET sealed = NULL WHERE generation < $1";
    m_Database.run(kSql, {generation});
}

std::int64_t RenewalStore::newestSealed() {
    static constexpr char kSql[] = "SELECT coalesce(max(generation), 0) FROM renewals WHERE sealed IS NOT NULL";
    Rows rows = m_Database.run(kSql, {});
    return columnOf<std::int64_t>(rows.at(0), 0);
}

std::optional<SealedRow> RenewalStore::sealedOf(std::int64_t generation) {
    static constexpr char kSql[] = "SELECT sealed FROM renewals WHERE generation = $1 AND sealed IS NOT NULL";
    Rows rows = m_Database.run(kSql, {generation});
    if (rows.empty()) {
        return std::nullopt;
    }
    return SealedRow{generation, columnOf<std::string>(rows[0], 0)};
}

}  // namespace ledger
