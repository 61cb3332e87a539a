// `tallowin keys list` and `tallowin keys prune`; `tallowin keys renew` is the ledger's. Every set-up leaves one more
// private key; prune removes those that no process can need any more, both halves, and says of all others why they
// stay.

#include <chrono>
#include <cstddef>

#include "tools/accountfiles.h"
#include "tools/accountkeys.h"
#include "tools/commands.h"
#include "tools/directorylock.h"
#include "tools/fingerprint.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

struct PruneOptions {
    unsigned m_Hours = 24;
    bool m_IsDryRun = false;
};

std::int64_t nowNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void list(Session& session) {
    constexpr std::size_t kKindWidth = 9;
    std::string const directory = session.accountDirectory();
    session.json()["keys"] = Json::array();
    for (AccountKey const& key : keysOf(directory)) {
        std::string const fingerprint = fingerprintOf(directory + "/keys/public/" + key.m_Id);
        session.json()["keys"].push_back({{"id", key.m_Id},
                                          {"kind", kindText(key.m_Kind)},
                                          {"private", key.m_HasPrivate},
                                          {"public", key.m_HasPublic},
                                          {"made", momentText(key.m_Made)},
                                          {"fingerprint", fingerprint}});
        std::string const halves =
            key.m_HasPrivate ? key.m_HasPublic ? "both halves  " : "private half " : "public half  ";
        session.line(padded(kindText(key.m_Kind), kKindWidth) + halves + momentText(key.m_Made) + "  " + key.m_Id,
                     key.m_Kind == KeyKind::kCurrent ? Emphasis::kStrong : Emphasis::kPlain);
    }
}

void prune(Session& session, PruneOptions const& options) {
    constexpr std::int64_t kSecondsPerHour = 3600;
    std::string const directory = session.accountDirectory();
    session.streams().requireOutput();
    std::string const link = forbiddenLinkIn(directory);
    if (!link.empty()) {
        throw ToolFailure(link + " is a link, behind which root removes nothing",
                          "do it as the owner of the directory, or put a folder in its place");
    }
    DirectoryLock const lock(directory, DirectoryLock::Kind::kExclusive);
    Json& json = session.json();
    json["dryRun"] = options.m_IsDryRun;
    json["removed"] = Json::array();
    json["kept"] = Json::array();
    for (AccountKey const& key : keysOf(directory)) {
        std::string reason = reasonToKeep(key, nowNanoseconds(), options.m_Hours * kSecondsPerHour);
        bool const isGone = reason.empty() && (options.m_IsDryRun || removeKey(directory, key));
        if (isGone) {
            json["removed"].push_back(key.m_Id);
            session.line((options.m_IsDryRun ? "would remove " : "removed ") + key.m_Id);
            continue;
        }
        reason = reason.empty() ? "it has become the current key" : reason;
        json["kept"].push_back({{"id", key.m_Id}, {"reason", reason}});
        session.line("kept " + key.m_Id + ": " + reason);
    }
}

}  // namespace

void addKeys(CommandLine& line) {
    CLI::App* const keys = line.m_App.add_subcommand("keys", "list, renew and remove keys");
    keys->require_subcommand(1);
    keys->footer("Every set-up makes a key pair and leaves the old ones.");
    addCommand(line, *keys, "list", "list all keys and what they are for", Needs::kDirectory, list)
        ->footer(
            "current signs new messages; old signed those of earlier set-ups; new was made by a set-up that has not "
            "ended or has failed; server signs confirmations; other is an earlier key of the service.");
    auto const options = std::make_shared<PruneOptions>();
    CLI::App* const command = addCommand(line, *keys, "prune", "remove own keys of earlier set-ups", Needs::kDirectory,
                                         [options](Session& session) { prune(session, *options); });
    command->footer(
        "Removes both halves of own keys that are older than the current one and were replaced long enough ago that no "
        "process can still sign with them. Keys that a running set-up may be publishing stay, and so do those of the "
        "service.");
    command->add_option("--older-than", options->m_Hours, "keep keys that were replaced fewer hours ago than this")
        ->type_name("HOURS")
        ->check(CLI::Range(0U, 1000000U))
        ->capture_default_str();
    command->add_flag("--dry-run", options->m_IsDryRun, "only say what would be removed");
    addRenewal(line, *keys);
}

}  // namespace tool
