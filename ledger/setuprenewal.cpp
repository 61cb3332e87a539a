// A renewal in order:
//
//   1. the lock on the directory, the lease in the store
//   2. ".renewal/next" with the merchant's settings, and the component's set-up in it: it writes the new key pair to
//      disk, publishes it, and names it in "keys/current" when the service has answered with success
//   3. the store: done, and with KEYSECRET the sealed files for other servers
//   4. the store: the service's key, under which confirmations are accepted from the moment its file is there
//   5. the files go into the directory: the service's key, both halves of the own key, defaults, configuration, and
//      last "keys/current", each by a change of its name. What a reader finds at any moment works: a key is there
//      before a file names it, and the old own key stays
//
// A process that dies in 2 leaves the old key in use; the key that it may have published is kept. One that dies later
// leaves a set-up that the next call installs: each step finds out whether it has been done.
//
// Odd: the component's set-up makes a new key each time, so a key in doubt is not published again. The next renewal
// publishes another one, and after its success the service knows the key that signs, whatever it knew before.
#include "ledger/setuprenewal.h"

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "ledger/byteforms.h"
#include "ledger/failure.h"
#include "ledger/moneytable.h"
#include "ledger/servicekeys.h"
#include "ledger/setupfiles.h"
#include "tallowin/ledger.h"

namespace ledger {

namespace {

constexpr char kHome[] = ".renewal";
constexpr char kLock[] = ".renewal/lock";
constexpr char kId[] = ".renewal/id";
constexpr char kGeneration[] = ".renewal/generation";
constexpr char kNext[] = ".renewal/next";
constexpr char kNextGeneration[] = ".renewal/next/generation";
constexpr char kGone[] = ".renewal/gone";
constexpr char kConfig[] = "/config.xml";
constexpr char kDefaults[] = "/default.xml";
constexpr char kSettings[] = "/settings.xml";
constexpr char kCurrent[] = "/keys/current";
constexpr char kPrivate[] = "/keys/private/";
constexpr char kPublic[] = "/keys/public/";

// A set-up has four exchanges.
constexpr std::int64_t kExchanges = 4;

std::string textIn(std::string const& path) {
    std::optional<WipedText> const text = readFile(path);
    if (!text) {
        throw Failure(KVX_E_FILE_IO, path + ": " + std::generic_category().message(ENOENT));
    }
    return text->get();
}

WipedText secretIn(std::string const& path) {
    std::optional<WipedText> text = readFile(path);
    if (!text) {
        throw Failure(KVX_E_FILE_IO, path + ": " + std::generic_category().message(ENOENT));
    }
    return std::move(*text);
}

/// Whether the service says, or the network, that the request was not carried out.
bool isRefusal(std::int32_t code) {
    constexpr std::uint32_t kFamily = 0xFFFFF000;
    auto const family = static_cast<std::int32_t>(static_cast<std::uint32_t>(code) & kFamily);
    bool const isNetwork = family == KVX_E_HTTP_FAMILY || family == KVX_E_SOCKET_FAMILY || family == KVX_E_TLS_FAMILY;
    return code == KVX_E_SERVER_ERROR || (isNetwork && !mayHaveMovedMoney(code));
}

RenewalEnd endOf(char const* state, Time at, Result const& result) {
    RenewalEnd end;
    end.m_State = state;
    end.m_At = at;
    if (result.m_Code != KVX_OK) {
        end.m_Code = result.m_Code;
        end.m_Reason = result.m_Reason;
    }
    return end;
}

Result interrupted() {
    return {KVX_E_UNEXPECTED, "the process that renewed has ended in between"};
}

}  // namespace

void SetupRenewal::renew(SetupLogin const& login, std::int32_t& outcome) {
    outcome = KVX_LEDGER_RENEWAL_UNCHANGED;
    createFolder(path(kHome));
    FileLock const lock(path(kLock), FileLock::Kind::kExclusive);
    FileLock const files(m_Directory, FileLock::Kind::kShared);
    if (lock.isTaken() || files.isTaken()) {
        throw Failure(KVX_E_LEDGER_BUSY, m_Directory + ": another process renews or removes keys");
    }
    bool const isLeft = phase() == Phase::kPublished;
    outcome = isLeft ? KVX_LEDGER_RENEWAL_IN_DOUBT : outcome;
    recover();
    if (isLeft) {
        outcome = KVX_LEDGER_RENEWAL_DONE;
        return;
    }
    takeOver();
    std::string const owner = ownId();
    std::int64_t const generation = inTransaction(m_Renewals.database(), [&] {
        Time const at = now();
        Time const lease = kExchanges * m_Options.m_LeaseSeconds * kSecond;
        std::optional<RenewalRow> const running = m_Renewals.running();
        // A lease of this directory is that of a dead process: the lock is here. One that ends later than any that is
        // given out now is of a clock that has been set back since.
        bool const isOthers = running && running->m_Owner != owner;
        if (isOthers && running->m_LeaseUntil > at && running->m_LeaseUntil <= at + lease + kMaxClockSkew) {
            throw Failure(KVX_E_LEDGER_BUSY, "another server renews the key");
        }
        return m_Renewals.add(owner, at, at + lease);
    });
    try {
        stage(generation);
    } catch (Failure const& failure) {
        undo(generation, {failure.code(), failure.what()});
        throw;
    }
    outcome = KVX_LEDGER_RENEWAL_IN_DOUBT;
    Result const result = publish(login);
    switch (phase()) {
        case Phase::kPublished:
            finish();
            outcome = KVX_LEDGER_RENEWAL_DONE;
            return;
        case Phase::kInDoubt:
            if (!isRefusal(result.m_Code)) {
                keepDoubtful("doubtful", result);
                break;
            }
            [[fallthrough]];
        case Phase::kUnpublished:
        case Phase::kNothing:
            outcome = KVX_LEDGER_RENEWAL_UNCHANGED;
            undo(generation, result);
            break;
    }
    throw Failure(result.m_Code, result.m_Reason);
}

void SetupRenewal::catchUp() {
    // What a process of another user has left is for that user.
    bool const isMine = mayChange(path(kHome));
    bool const isLeft = isMine && (isThere(path(kNext)) || isThere(path(kGone)));
    bool const isBehind = !m_Options.m_KeySecret.empty() && m_Renewals.newestSealed() > generationIn(kGeneration);
    if (!isLeft && !isBehind) {
        return;
    }
    createFolder(path(kHome));
    FileLock const lock(path(kLock), FileLock::Kind::kExclusive);
    FileLock const files(m_Directory, FileLock::Kind::kShared);
    if (lock.isTaken() || files.isTaken()) {
        return;
    }
    recover();
    takeOver();
}

SetupRenewal::Phase SetupRenewal::phase() const {
    if (!isThere(path(kNext))) {
        return Phase::kNothing;
    }
    if (isThere(path(kNext) + kCurrent)) {
        return Phase::kPublished;
    }
    return keyIdInDoubt().empty() ? Phase::kUnpublished : Phase::kInDoubt;
}

/// Makes "next": what the set-up starts from, without any key.
void SetupRenewal::stage(std::int64_t generation) const {
    std::string const next = path(kNext);
    createFolder(next);
    setGeneration(kNextGeneration, generation);
    for (char const* const folder : {"/keys", "/keys/private", "/keys/public"}) {
        createFolder(next + folder);
    }
    for (char const* const file : {kSettings, kConfig, kDefaults}) {
        if (std::optional<WipedText> const text = readFile(m_Directory + file)) {
            replaceFile(next + file, text->get(), newFileIn(next));
        }
    }
    if (isThere(next + kSettings)) {
        adaptSettings();
    }
}

/// The settings in "next" are those of the set-up alone.
void SetupRenewal::adaptSettings() const {
    SetupHandle const setup = openedSetup(path(kNext));
    auto const set = [&](char const* name, std::string const& value) {
        require("ConfigurationSetup_SetAttribute",
                ConfigurationSetup_SetAttribute(setup.get(), kSettings + 1, name, value.c_str()));
    };
    // The new key is on disk before it is published, whatever the settings say.
    set("SYNCFILES", "1");
    // A log beside the copy of the settings would be removed with it.
    std::string const log =
        copiedText("ConfigurationSetup_GetAttribute", [&](std::int32_t* size, char* buffer) {
            return ConfigurationSetup_GetAttribute(setup.get(), kSettings + 1, "LOGFILE", size, buffer);
        }).value_or("");
    if (!log.empty() && log != "-" && log.front() != '/') {
        set("LOGFILE", std::filesystem::absolute(m_Directory).string() + "/" + log);
    }
}

/// Runs the component's set-up in "next".
Result SetupRenewal::publish(SetupLogin const& login) const {
    SetupHandle const setup = openedSetup(path(kNext));
    return resultOf("ConfigurationSetup_Reconfigure",
                    ConfigurationSetup_Reconfigure(setup.get(), login.m_Url, login.m_User, login.m_Password));
}

void SetupRenewal::recover() {
    removeFolder(path(kGone));
    switch (phase()) {
        case Phase::kNothing:
            return;
        case Phase::kUnpublished:
            undo(generationIn(kNextGeneration), interrupted());
            return;
        case Phase::kInDoubt:
            keepDoubtful("doubtful", interrupted());
            return;
        case Phase::kPublished:
            finish();
            return;
    }
}

/// Installs "next". Requires: the service has answered with success.
void SetupRenewal::finish() {
    std::int64_t const generation = generationIn(kNextGeneration);
    SetupState const state = [&] {
        try {
            SetupState staged = stagedState();
            requireSuitable(staged);
            requireSigning();
            return staged;
        } catch (Failure const& failure) {
            keepDoubtful("doubtful", {failure.code(), failure.what()});
            throw;
        }
    }();
    std::string const& secret = m_Options.m_KeySecret;
    std::optional<std::string> const shared =
        secret.empty() ? std::optional<std::string>() : sealed(state, secret, generation);
    bool const isCurrent = inTransaction(m_Renewals.database(), [&] {
        std::optional<RenewalRow> const row = m_Renewals.find(generation);
        if (!row || row->m_State == "done") {
            return true;
        }
        if (m_Renewals.isSuperseded(generation)) {
            return false;
        }
        RenewalEnd end = endOf("done", now(), {});
        end.m_KeyId = state.m_KeyId;
        end.m_KeyFingerprint = state.fingerprint();
        end.m_Sealed = shared;
        m_Renewals.end(generation, end);
        m_Renewals.removeSealedBefore(generation);
        return true;
    });
    if (!isCurrent) {
        Result const late = {KVX_E_LEDGER_BUSY, "the lease ran out, and another server has renewed meanwhile"};
        keepDoubtful("interrupted", late);
        throw Failure(late.m_Code, late.m_Reason);
    }
    install(state);
    setGeneration(kGeneration, generation);
    discard();
}

/// Removes "next", whose key the service does not know.
void SetupRenewal::undo(std::int64_t generation, Result const& result) {
    if (isThere(path(kNext))) {
        discard();
    }
    inTransaction(m_Renewals.database(), [&] {
        m_Renewals.end(generation, endOf("unchanged", now(), result));
        return true;
    });
}

/// Puts the key pair of "next" among the old keys and removes the rest.
void SetupRenewal::keepDoubtful(char const* state, Result const& result) {
    std::int64_t const generation = generationIn(kNextGeneration);
    std::string const next = path(kNext);
    std::string const keyId = keyIdInDoubt();
    SetupState pair;
    pair.m_KeyId = keyId;
    pair.m_PublicKey = textIn(next + kPublic + keyId);
    pair.m_PrivateKey = secretIn(next + kPrivate + keyId);
    installPair(pair);
    inTransaction(m_Renewals.database(), [&] {
        std::optional<RenewalRow> const row = m_Renewals.find(generation);
        if (row && row->m_State == "done") {
            return false;  // other servers may have it
        }
        RenewalEnd end = endOf(state, now(), result);
        end.m_KeyId = keyId;
        end.m_KeyFingerprint = pair.fingerprint();
        m_Renewals.end(generation, end);
        return true;
    });
    discard();
}

/// Removes "next". Its name goes first: a part of it would look like another phase.
void SetupRenewal::discard() const {
    renameFolder(path(kNext), path(kGone));
    removeFolder(path(kGone));
}

/// Installs the newest set-up of another server.
void SetupRenewal::takeOver() {
    std::string const& secret = m_Options.m_KeySecret;
    std::int64_t const generation = secret.empty() ? 0 : m_Renewals.newestSealed();
    if (generation <= generationIn(kGeneration)) {
        return;
    }
    std::optional<SealedRow> const row = m_Renewals.sealedOf(generation);
    if (!row) {
        return;  // another renewal has just replaced it
    }
    SetupState const state = unsealed(row->m_Sealed, secret, generation);
    requireSuitable(state);
    install(state);
    setGeneration(kGeneration, generation);
}

SetupState SetupRenewal::stagedState() const {
    std::string const next = path(kNext);
    Account const account(next);
    SetupState state;
    state.m_Config = textIn(next + kConfig);
    if (std::optional<WipedText> const defaults = readFile(next + kDefaults)) {
        state.m_Defaults = defaults->get();
    }
    state.m_ServiceKeyId = account.value("config.xml", "VTKEYID").value_or("");
    state.m_KeyId = textIn(next + kCurrent);
    if (!isFileName(state.m_ServiceKeyId) || !isFileName(state.m_KeyId)) {
        throw Failure(KVX_E_NO_CONFIGURATION, next + ": a key id is no file name");
    }
    state.m_ServiceKey = textIn(next + kPublic + state.m_ServiceKeyId);
    state.m_PublicKey = textIn(next + kPublic + state.m_KeyId);
    state.m_PrivateKey = secretIn(next + kPrivate + state.m_KeyId);
    return state;
}

/// Throws Failure when the files must not go into the directory. An id stands for one key for ever: confirmations under
/// it may be on their way.
void SetupRenewal::requireSuitable(SetupState const& state) const {
    if (!isFileName(state.m_ServiceKeyId) || !isFileName(state.m_KeyId)) {
        throw Failure(KVX_E_INVALID_KEY, "a key id is no file name");
    }
    std::string const file = m_Directory + kPublic + state.m_ServiceKeyId;
    if (state.m_ServiceKeyId == state.m_KeyId || isThere(m_Directory + kPrivate + state.m_ServiceKeyId)) {
        throw Failure(KVX_E_INVALID_KEY, file + ": the service names an own key as its key");
    }
    std::optional<WipedText> const known = readFile(file);
    if (known && bytesOf(known->get()) != bytesOf(state.m_ServiceKey)) {
        throw Failure(KVX_E_INVALID_KEY, file + ": the service sends another key under this id");
    }
}

/// Throws Failure unless the key in "next" signs.
void SetupRenewal::requireSigning() const {
    static_cast<void>(Account(path(kNext)).createPayment().url());
}

void SetupRenewal::install(SetupState const& state) {
    recordServiceKey(state);
    std::string const config = m_Directory + kConfig;
    FileModel const model = modelOf(config).value_or(newFileIn(m_Directory));
    replaceFile(m_Directory + kPublic + state.m_ServiceKeyId, state.m_ServiceKey, model);
    installPair(state);
    if (state.m_Defaults) {
        replaceFile(m_Directory + kDefaults, *state.m_Defaults, model);
    }
    replaceFile(config, state.m_Config, model);
    replaceFile(m_Directory + kCurrent, state.m_KeyId, model);
}

/// Makes the service's key the current one of the store. Confirmations are accepted under it from the moment its file
/// is there, before the configuration names it.
void SetupRenewal::recordServiceKey(SetupState const& state) {
    std::string const der = bytesOf(state.m_ServiceKey);
    ServiceKey key;
    key.m_KeyId = state.m_ServiceKeyId;
    key.m_Blob = hexOf(der);
    key.m_Fingerprint = hexOf(sha256Of(der));
    inTransaction(m_Store.database(), [&] {
        m_Store.setCurrentKey(key, now());
        return true;
    });
}

/// Both halves, readable for the users who can read those of the current key.
void SetupRenewal::installPair(SetupState const& state) const {
    std::optional<WipedText> const current = readFile(m_Directory + kCurrent);
    std::string const like = current && isFileName(current->get()) ? current->get() : state.m_KeyId;
    for (char const* const folder : {"/keys", "/keys/private", "/keys/public"}) {
        createFolder(m_Directory + folder);
    }
    FileModel const otherwise = newFileIn(m_Directory + "/keys/private");
    replaceFile(m_Directory + kPrivate + state.m_KeyId, state.m_PrivateKey.get(),
                modelOf(m_Directory + kPrivate + like).value_or(otherwise));
    replaceFile(m_Directory + kPublic + state.m_KeyId, state.m_PublicKey,
                modelOf(m_Directory + kPublic + like).value_or(otherwise));
}

/// The id of the private key in "next"; "" when there is none.
std::string SetupRenewal::keyIdInDoubt() const {
    std::vector<std::string> const names = namesIn(path(kNext) + kPrivate);
    return names.empty() ? "" : names.front();
}

/// The name of this directory among those of the store: what was drawn once, and the folder's number, so that a copy of
/// the directory has another name.
std::string SetupRenewal::ownId() const {
    std::string const file = path(kId);
    std::optional<WipedText> const known = readFile(file);
    std::string id = known ? known->get() : "";
    if (id.empty()) {
        constexpr std::size_t kBytes = 16;
        id = hexOf(randomBytes(kBytes));
        replaceFile(file, id, newFileIn(path(kHome)));
    }
    return id + "-" + std::to_string(numberOf(path(kHome)));
}

/// The number in the file; 0 when there is none.
std::int64_t SetupRenewal::generationIn(char const* file) const {
    std::optional<WipedText> const text = readFile(path(file));
    std::int64_t generation = 0;
    if (!text) {
        return generation;
    }
    std::string const& digits = text->get();
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), generation);
    if (error != std::errc() || end != digits.data() + digits.size()) {
        throw Failure(KVX_E_INVALID_FORMAT, path(file) + ": is no number");
    }
    return generation;
}

void SetupRenewal::setGeneration(char const* file, std::int64_t generation) const {
    replaceFile(path(file), std::to_string(generation), newFileIn(path(kHome)));
}

}  // namespace ledger
