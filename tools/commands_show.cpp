// `tallowin show`: what a configuration directory holds, at a glance. Nothing secret.

#include <array>
#include <cstddef>
#include <utility>

#include "tools/accountfiles.h"
#include "tools/accountkeys.h"
#include "tools/commands.h"
#include "tools/fingerprint.h"
#include "tools/toolobjects.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

constexpr std::size_t kWidth = 24;

void row(Session& session, char const* member, std::string const& label, std::string const& value) {
    session.json()[member] = value;
    session.line(padded(label, kWidth) + (value.empty() ? "(none)" : value));
}

void showFiles(Session& session, std::string const& directory) {
    session.json()["files"] = Json::array();
    session.line("files", Emphasis::kStrong);
    for (char const* name :
         {".", "config.xml", "default.xml", "settings.xml", "keys", "keys/current", "keys/public", "keys/private"}) {
        struct stat status = {};
        if (!fileStatus(directory + '/' + name, status)) {
            continue;
        }
        session.json()["files"].push_back(
            {{"file", name}, {"mode", modeText(status.st_mode)}, {"owner", userName(status.st_uid)}});
        session.line(padded(std::string("  ") + name, kWidth) + modeText(status.st_mode) + ' ' +
                     userName(status.st_uid));
    }
}

void showValues(Session& session, std::string const& directory, char const* member, char const* file) {
    session.json()[member] = Json::object();
    session.line(file, Emphasis::kStrong);
    for (auto const& [name, value] : configuredValues(directory, file)) {
        session.json()[member][name] = value;
        session.line(padded("  " + name, kWidth) + value);
    }
}

void show(Session& session) {
    std::string const directory = session.accountDirectory();
    std::string const serverKey = configuredValue(directory, "config.xml", "VTKEYID");
    row(session, "directory", "directory", directory);
    row(session, "customer", "customer", configuredValue(directory, "config.xml", "CUSTOMERID"));
    row(session, "setupAddress", "set-up address", configuredValue(directory, "config.xml", "KVX.VTAUTOURL"));
    row(session, "paymentAddress", "payment address", configuredValue(directory, "config.xml", "VTURL"));
    row(session, "captureAddress", "capture address", configuredValue(directory, "config.xml", "CAPTUREURL"));
    row(session, "keyId", "own key", currentKeyOf(directory));
    row(session, "serverKeyId", "server key", serverKey);
    bool const isFile = !serverKey.empty() && serverKey.find('/') == std::string::npos;
    row(session, "serverKeyFingerprint", "server key fingerprint",
        isFile ? fingerprintOf(directory + "/keys/public/" + serverKey) : "");
    std::size_t oldKeys = 0;
    for (AccountKey const& key : keysOf(directory)) {
        oldKeys += key.m_Kind == KeyKind::kOld || key.m_Kind == KeyKind::kNew ? 1 : 0;
    }
    session.json()["otherPrivateKeys"] = oldKeys;
    session.line(padded("other private keys", kWidth) + std::to_string(oldKeys));
    showValues(session, directory, "settings", "settings.xml");
    showValues(session, directory, "defaults", "default.xml");
    showFiles(session, directory);
}

}  // namespace

void addShow(CommandLine& line) {
    CLI::App* const command =
        addCommand(line, line.m_App, "show", "show what the directory holds", Needs::kDirectory, show);
    command->footer("Addresses, key ids, settings, defaults, and the modes of the files. Nothing secret is shown.");
}

}  // namespace tool
