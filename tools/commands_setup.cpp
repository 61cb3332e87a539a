// `tallowin setup`: prepares the configuration directory of an account.
//
// Order: everything about the command line is checked first, then the password is read, then the directory is touched.
// A new directory is made under another name and renamed when the set-up has succeeded, so that it is complete or
// absent. In one that exists the library replaces file after file, the current key last. The lock on the directory
// keeps `tallowin keys prune` away while a set-up has made a key and not published it yet.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <system_error>

#include "tools/accountfiles.h"
#include "tools/commands.h"
#include "tools/directorylock.h"
#include "tools/fingerprint.h"
#include "tools/logincheck.h"
#include "tools/secret.h"
#include "tools/serviceaddress.h"
#include "tools/setupprogress.h"
#include "tools/staging.h"
#include "tools/toolobjects.h"

namespace tool {

namespace {

constexpr mode_t kSettingsMode = 0644;

struct SetupOptions {
    std::string m_Url;
    std::string m_User;
    std::string m_PasswordFile;
    bool m_Plain = false;
    std::string m_Authority;
    std::string m_Pin;
    std::string m_Proxy;
    std::string m_ShopUser;
};

bool isPin(std::string const& text) {
    return text.size() == 64 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

/// What the options put into "settings.xml". UsageError.
Attributes settingsOf(SetupOptions const& options) {
    Attributes settings;
    if (!options.m_Authority.empty()) {
        std::error_code error;
        if (!std::filesystem::is_regular_file(options.m_Authority, error)) {
            throw UsageError("--ca: there is no file " + options.m_Authority);
        }
        settings.emplace_back("TLSCAFILE", std::filesystem::absolute(options.m_Authority).string());
    }
    if (!options.m_Pin.empty()) {
        if (!isPin(options.m_Pin)) {
            throw UsageError("--pin takes a SHA-256: 64 hexadecimal digits");
        }
        settings.emplace_back("KEYPIN", options.m_Pin);
    }
    if (!options.m_Proxy.empty()) {
        HostPort const proxy = hostPortOf(options.m_Proxy);
        settings.emplace_back("USEPROXY", "1");
        settings.emplace_back("PROXYHOST", proxy.m_Host);
        settings.emplace_back("PROXYPORT", proxy.m_Port.empty() ? "8080" : proxy.m_Port);
    }
    return settings;
}

void writeSettings(Session& session, std::string const& directory, SetupOptions const& options,
                   Attributes const& settings) {
    std::string const path = directory + "/settings.xml";
    struct stat status = {};
    bool const exists = fileStatus(path, status);
    if (exists && options.m_Plain) {
        session.warn("settings.xml exists already and is kept; --plain has no effect");
    }
    if (!exists && !options.m_Plain) {
        writeNewFile(path, "<KVX PROFILE=\"strict\"/>", underMask(kSettingsMode));
    } else if (!exists && !settings.empty()) {
        writeNewFile(path, "<KVX/>", underMask(kSettingsMode));
    }
    SetupObject const setup = openSetup(directory);
    for (auto const& [name, value] : settings) {
        require(ConfigurationSetup_SetAttribute(setup.get(), "settings.xml", name.c_str(), value.c_str()),
                "cannot write settings.xml");
    }
}

std::string hintFor(std::int32_t code) {
    auto const bits = static_cast<std::uint32_t>(code);
    if (code == KVX_E_SERVER_ERROR) {
        return "the service refused: compare user and password";
    }
    if (code == KVX_E_SOCKET_REFUSED) {
        return "nothing listens at this address: compare host and port";
    }
    if (code == KVX_E_HTTP_NAME_LOOKUP) {
        return "this host name is unknown here: compare it, or see whether a proxy is needed (--proxy)";
    }
    bool const isTls = (bits & 0xFFFFF000U) == static_cast<std::uint32_t>(KVX_E_TLS_FAMILY);
    return isTls ? "the connection could not be protected; for a server with a private authority give --ca FILE" : "";
}

/// The files of an account and what identifies their content.
std::map<std::string, std::pair<ino_t, std::int64_t>> filesOf(std::string const& directory) {
    std::map<std::string, std::pair<ino_t, std::int64_t>> files;
    for (char const* folder : {"", "keys/", "keys/public/", "keys/private/"}) {
        std::string const path = directory + '/' + folder;
        for (std::string const& name : filesIn(path)) {
            struct stat status = {};
            if (fileStatus(path + name, status)) {
                files[folder + name] = {status.st_ino, modificationTime(status)};
            }
        }
    }
    return files;
}

void reportWritten(Session& session, std::string const& directory,
                   std::map<std::string, std::pair<ino_t, std::int64_t>> const& before) {
    session.json()["written"] = Json::array();
    session.line("written:");
    std::string const prefix = directory + '/';
    for (auto const& [name, identity] : filesOf(directory)) {
        auto const old = before.find(name);
        struct stat status = {};
        if ((old != before.end() && old->second == identity) || !fileStatus(prefix + name, status)) {
            continue;
        }
        session.json()["written"].push_back(
            {{"file", name}, {"mode", modeText(status.st_mode)}, {"owner", userName(status.st_uid)}});
        session.line("  " + name + "  " + modeText(status.st_mode) + ' ' + userName(status.st_uid));
    }
}

void reportAccount(Session& session, std::string const& directory) {
    Json& json = session.json();
    std::string const serverKey = configuredValue(directory, "config.xml", "VTKEYID");
    json["directory"] = directory;
    json["customer"] = configuredValue(directory, "config.xml", "CUSTOMERID");
    json["paymentAddress"] = configuredValue(directory, "config.xml", "VTURL");
    json["captureAddress"] = configuredValue(directory, "config.xml", "CAPTUREURL");
    json["keyId"] = currentKeyOf(directory);
    json["serverKeyId"] = serverKey;
    json["serverKeyFingerprint"] = fingerprintOf(directory + "/keys/public/" + serverKey);
    session.line(directory + " is set up", Emphasis::kGood);
    session.line("customer                " + json["customer"].get<std::string>());
    session.line("payment address         " + json["paymentAddress"].get<std::string>());
    session.line("capture address         " + json["captureAddress"].get<std::string>());
    session.line("own key                 " + json["keyId"].get<std::string>());
    session.line("server key              " + serverKey);
    session.line("server key fingerprint  " + json["serverKeyFingerprint"].get<std::string>());
}

void warnAboutAddresses(Session& session, std::string const& url) {
    if (isInClearText(url)) {
        session.warn("user and password were sent without encryption, to " + url);
    }
    for (char const* name : {"paymentAddress", "captureAddress"}) {
        if (isInClearText(session.json()[name].get<std::string>())) {
            session.warn(std::string("the ") + name + " is not encrypted: " + session.json()[name].get<std::string>());
        }
    }
}

void warnAboutModes(Session& session, std::string const& directory) {
    for (char const* file : {"", "/settings.xml", "/config.xml", "/keys", "/keys/public", "/keys/private"}) {
        struct stat status = {};
        if (fileStatus(directory + file, status) && (status.st_mode & S_IWOTH) != 0) {
            session.warn("every user of this system can write to " + directory + file + ", and so control the account");
        }
    }
    struct stat key = {};
    if (fileStatus(directory + "/keys/private/" + currentKeyOf(directory), key) &&
        (key.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        session.warn("every user of this system can use the private key: its mode is " + modeText(key.st_mode));
    }
}

void warnAboutUser(Session& session, std::string const& directory, std::optional<SystemUser> const& shopUser) {
    if (!shopUser) {
        if (::geteuid() == 0) {
            session.warn(
                "the new private key belongs to root; a shop that runs as another user cannot sign with it. Set "
                "up as that user: sudo -u USER tallowin setup ..., or name it with --shop-user to check");
        }
        return;
    }
    std::vector<std::string> const obstacles = obstaclesFor(*shopUser, directory);
    session.json()["shopUserCanSign"] = obstacles.empty();
    for (std::string const& obstacle : obstacles) {
        session.warn(obstacle);
    }
}

void reconfigure(Session const& session, std::string const& directory, SetupOptions const& options,
                 Secret const& password) {
    SetupObject const setup = openSetup(directory);
    StandardStreams::silenceOthers();  // Raw exchanges, when TRACEOPT asks for them, show the password.
    std::int32_t code = KVX_OK;
    {
        SetupProgress const progress(session, directory);
        code =
            ConfigurationSetup_Reconfigure(setup.get(), options.m_Url.c_str(), options.m_User.c_str(), password.text());
    }
    if (code != KVX_OK) {
        throw ToolFailure("the set-up failed", code, hintFor(code));
    }
}

void setUp(Session& session, SetupOptions const& options) {
    std::string const directory = session.directory();
    if (!options.m_Url.empty()) {
        requireServiceAddress(options.m_Url);
    }
    Attributes const settings = settingsOf(options);
    std::optional<SystemUser> const shopUser =
        options.m_ShopUser.empty() ? std::nullopt : std::optional<SystemUser>(options.m_ShopUser);
    requireSendable(options.m_User, Secret());
    struct stat status = {};
    bool const exists = fileStatus(directory, status);
    if (exists && !S_ISDIR(status.st_mode)) {
        throw ToolFailure(directory + " is no directory");
    }
    if (!exists && ::lstat(directory.c_str(), &status) == 0) {
        throw ToolFailure(directory + " is a link that leads nowhere", "remove it, or make what it leads to");
    }
    if (!exists && options.m_Url.empty()) {
        throw UsageError("a new directory needs the address of the service: URL");
    }
    session.streams().requireOutput();
    Secret const password =
        readSecret(session.streams(), options.m_PasswordFile, "password of " + options.m_User + ": ");
    requireSendable(options.m_User, password);

    std::map<std::string, std::pair<ino_t, std::int64_t>> before;
    if (exists) {
        DirectoryLock const lock(directory, DirectoryLock::Kind::kShared);
        before = filesOf(directory);
        writeSettings(session, directory, options, settings);
        reconfigure(session, directory, options, password);
    } else {
        Staging staging(directory);
        writeSettings(session, staging.path(), options, settings);
        reconfigure(session, staging.path(), options, password);
        staging.publish();
    }
    reportAccount(session, directory);
    reportWritten(session, directory, before);
    warnAboutAddresses(session, options.m_Url);
    warnAboutModes(session, directory);
    warnAboutUser(session, directory, shopUser);
}

}  // namespace

void addSetup(CommandLine& line) {
    auto const options = std::make_shared<SetupOptions>();
    CLI::App* const command = addCommand(line, line.m_App, "setup", "prepare the configuration directory of an account",
                                         Needs::kDirectory, [options](Session& session) { setUp(session, *options); });
    command->footer(
        "Makes the directory, gets the account's configuration, defaults and the key of the service, makes a key pair "
        "and "
        "publishes its public half. The password is the first line of --password-file, or is asked for on the "
        "terminal, or "
        "is the first line of standard input; it is never an argument.\n\n"
        "A new directory appears complete or not at all, with the protective settings of PROFILE=\"strict\" unless "
        "--plain "
        "is given. In a directory that exists the files are replaced one after the other, the current key last.");
    addLoginOptions(*command, options->m_Url, options->m_User, options->m_PasswordFile);
    command->add_flag("--plain", options->m_Plain, "leave out the protective settings of a new directory");
    command->add_option("--ca", options->m_Authority, "setting TLSCAFILE: the only authorities to trust")
        ->type_name("FILE");
    command->add_option("--pin", options->m_Pin, "setting KEYPIN: the only key of the service to accept")
        ->type_name("SHA256");
    command->add_option("--proxy", options->m_Proxy, "settings USEPROXY, PROXYHOST, PROXYPORT")->type_name("HOST:PORT");
    command->add_option("--shop-user", options->m_ShopUser, "check whether this user can sign and verify")
        ->type_name("USER");
}

}  // namespace tool
