// `tallowin keys renew`: a new key of the merchant's while the shop sells, by the order ledger.
//
// The order is that of a set-up: the command line, the password, then the files. The secret under which the key travels
// to other servers comes from a file, since the arguments of a process are no place for it.

#include <cstdint>

#include "tools/accountfiles.h"
#include "tools/commands.h"
#include "tools/logincheck.h"
#include "tools/secret.h"
#include "tools/serviceaddress.h"
#include "tools/storeoptions.h"

namespace tool {

namespace {

struct RenewalOptions {
    StoreOptions m_Store;
    std::string m_Url;
    std::string m_User;
    std::string m_PasswordFile;
    std::string m_SecretFile;
};

char const* hintFor(tallowin::Renewal outcome, std::int32_t code) {
    if (code == KVX_E_LEDGER_BUSY) {
        return "try again when the other has ended";
    }
    return outcome == tallowin::Renewal::kInDoubt
               ? "the old key signs; the service may have the new one already: run the command again"
               : "the old key signs, and the service knows no other";
}

void renew(Session& session, RenewalOptions const& options) {
    std::string const directory = session.accountDirectory();
    if (!options.m_Url.empty()) {
        requireServiceAddress(options.m_Url);
    }
    requireSendable(options.m_User, Secret());
    session.streams().requireOutput();
    tallowin::Ledger ledger = openedLedger(session, options.m_Store);
    if (!options.m_SecretFile.empty()) {
        Secret const secret = readSecret(session.streams(), options.m_SecretFile, "");
        attempt("cannot use the secret", [&] { ledger.setOption("KEYSECRET", secret.text()); });
    }
    Secret const password =
        readSecret(session.streams(), options.m_PasswordFile, "password of " + options.m_User + ": ");
    requireSendable(options.m_User, password);
    StandardStreams::silenceOthers();  // Raw exchanges, when TRACEOPT asks for them, show the password.
    std::string const before = currentKeyOf(directory);
    tallowin::Renewal outcome = tallowin::Renewal::kUnchanged;
    try {
        ledger.renewKeys(options.m_Url, options.m_User, password.text(), &outcome);
    } catch (tallowin::LedgerError const& failure) {
        throw ToolFailure::withReason("the renewal failed", failure.code(), failure.reason(),
                                      hintFor(outcome, failure.code()), outcome == tallowin::Renewal::kInDoubt);
    }
    std::string const after = currentKeyOf(directory);
    session.json()["keyId"] = after;
    session.json()["replacedKeyId"] = before;
    session.line("The key " + after + " signs now, in place of " + before + '.', Emphasis::kGood);
    if (isInClearText(options.m_Url)) {
        session.warn("user and password were sent without encryption, to " + options.m_Url);
    }
}

}  // namespace

void addRenewal(CommandLine& line, CLI::App& keys) {
    auto const options = std::make_shared<RenewalOptions>();
    CLI::App* const command = addCommand(line, keys, "renew", "renew the merchant's key while the shop sells",
                                         Needs::kDirectory, [options](Session& session) { renew(session, *options); });
    command->footer(
        "For a shop over the order ledger. Makes a key pair and publishes its public half while the old key signs, and "
        "changes the files of the directory, the current key last, when the service has accepted it. Whatever a "
        "renewal that was killed has left is finished first. Of all servers on one store one renews at a time; with "
        "--key-secret-file the others take the key over in their next run of the worker, when they have the option "
        "KEYSECRET. The password is read as by tallowin setup. Run it as the user that the shop runs as.");
    addStoreOptions(*command, options->m_Store);
    addLoginOptions(*command, options->m_Url, options->m_User, options->m_PasswordFile);
    command
        ->add_option("--key-secret-file", options->m_SecretFile,
                     "file whose first line is the option KEYSECRET: the key travels through the store under it")
        ->type_name("FILE")
        ->check(notEmpty());
}

}  // namespace tool
