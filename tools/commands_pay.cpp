// `tallowin pay`: a payment, and the signed address that the shopper opens.
//
// The message is made by the library: type, token, the account's defaults, expiration. The options replace or add
// attributes. Nothing is sent.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iterator>

#include "tools/commands.h"
#include "tools/toolobjects.h"

namespace tool {

namespace {

struct Payment {
    std::string m_Amount;
    std::string m_Currency;
    std::string m_Order;
    std::string m_Expires;
    std::vector<std::string> m_Attributes;
    bool m_Open = false;
};

std::string stampOf(std::tm const& time) {
    char text[32] = "";
    std::strftime(text, sizeof text, "%Y%m%d %H:%M:%S", &time);
    return text;
}

/// "YYYYMMDD HH:MM:SS" of a moment that exists, to the second; empty otherwise. Reads that form, and
/// "YYYY-MM-DDTHH:MM:SSZ" with or without the letters.
std::string exactStamp(std::string const& text) {
    for (char const* format : {"%Y%m%d %H:%M:%S", "%Y-%m-%dT%H:%M:%SZ", "%Y-%m-%d %H:%M:%S"}) {
        std::tm time = {};
        char const* const end = ::strptime(text.c_str(), format, &time);
        if (end == nullptr || *end != '\0') {
            continue;
        }
        std::tm const wanted = time;
        std::time_t const moment = ::timegm(&time);
        bool const isSame = time.tm_mday == wanted.tm_mday && time.tm_mon == wanted.tm_mon &&
                            time.tm_hour == wanted.tm_hour && time.tm_sec == wanted.tm_sec;
        return isSame && moment != -1 ? stampOf(time) : "";
    }
    return "";
}

/// The moment `text` names: seconds from now ("900"), or a date and time in UTC. UsageError for anything else.
std::string expirationOf(std::string const& text) {
    constexpr std::size_t kMaxDigits = 7;  // Eight are a date without a time.
    bool const isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (isNumber && text.size() <= kMaxDigits) {
        std::time_t const moment = std::time(nullptr) + static_cast<std::time_t>(std::stol(text));
        std::tm time = {};
        return stampOf(*::gmtime_r(&moment, &time));
    }
    std::string const stamp = exactStamp(text);
    if (stamp.empty()) {
        throw UsageError(
            "--expires takes seconds from now, such as 900, or a time in UTC, such as \"20301231 23:59:59\"");
    }
    return stamp;
}

/// Texts of this form order as the moments they name.
void warnWhenOver(Session& session, std::string const& expiration) {
    std::time_t const now = std::time(nullptr);
    std::tm time = {};
    if (expiration < stampOf(*::gmtime_r(&now, &time))) {
        session.warn("the time to pay is over already: " + expiration + " UTC");
    }
}

/// Opens `url` with the desktop's program, whose output is discarded.
void openInBrowser(std::string const& url) {
    sigset_t restored;
    ::sigemptyset(&restored);
    ::sigaddset(&restored, SIGPIPE);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigdefault(&attributes, &restored);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string name = "xdg-open";
    std::string address = url;
    char* const arguments[] = {name.data(), address.data(), nullptr};
    pid_t child = -1;
    int const error = ::posix_spawnp(&child, name.c_str(), &actions, &attributes, arguments, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        throw ToolFailure(systemFailure("cannot start xdg-open", error), "open the address in a browser yourself");
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw ToolFailure("xdg-open could not open the address", "open it in a browser yourself");
    }
}

MessageObject makeMessage(Session const& session, Payment const& payment, Attributes const& attributes,
                          std::string const& expiration) {
    FactoryObject const factory = openFactory(session.accountDirectory());
    KVX_HANDLE handle = nullptr;
    require(MessageFactory_CreatePayInit(factory.get(), &handle), "cannot make a payment");
    MessageObject message(handle);
    std::pair<char const*, std::string const&> const given[] = {
        {"AMOUNT", payment.m_Amount}, {"CURRENCY", payment.m_Currency}, {"ORDERID", payment.m_Order}};
    for (auto const& [name, value] : given) {
        if (!value.empty()) {
            setAttribute(message, name, value);
        }
    }
    for (auto const& [name, value] : attributes) {
        setAttribute(message, name, value);
    }
    if (!expiration.empty()) {
        setAttribute(message, "EXPIRATION", expiration);
    }
    return message;
}

void pay(Session& session, Payment const& payment) {
    Attributes attributes;
    for (std::string const& text : payment.m_Attributes) {
        attributes.push_back(nameAndValue(text));
    }
    std::string const expiration = payment.m_Expires.empty() ? "" : expirationOf(payment.m_Expires);
    MessageObject const message = makeMessage(session, payment, attributes, expiration);
    std::string url;
    require(
        readText([&](std::int32_t* size, char* buffer) { return MessageObject_GetURL(message.get(), size, buffer); },
                 url),
        "cannot sign the payment");
    warnWhenOver(session, attributeOf(message, "EXPIRATION"));
    session.json()["url"] = url;
    session.json()["token"] = attributeOf(message, "TOKEN");
    session.json()["expiration"] = attributeOf(message, "EXPIRATION");
    for (auto const& [name, value] : attributesOf(message)) {
        session.json()["message"][name] = value;
    }
    session.line(url);
    if (session.streams().isOutputTerminal()) {
        session.line("token " + attributeOf(message, "TOKEN"), Emphasis::kStrong);
        session.line("valid until " + attributeOf(message, "EXPIRATION") + " UTC");
    }
    if (payment.m_Open) {
        try {
            openInBrowser(url);
        } catch (ToolFailure const& failure) {
            session.warn(std::string(failure.what()) + "; " + failure.hint());
            session.setNegative();
        }
    }
}

}  // namespace

void addPay(CommandLine& line) {
    auto const payment = std::make_shared<Payment>();
    CLI::App* const command = addCommand(line, line.m_App, "pay", "print the signed address of a new payment",
                                         Needs::kDirectory, [payment](Session& session) { pay(session, *payment); });
    command->footer(
        "Makes a payment with a new token and the defaults of the account, signs it, and prints the address that the "
        "shopper "
        "opens. Nothing is sent. Keep the token with the order: verify compares it.");
    command->add_option("--amount", payment->m_Amount, "attribute AMOUNT, such as 12.50")
        ->type_name("AMOUNT")
        ->check(notEmpty());
    command->add_option("--currency", payment->m_Currency, "attribute CURRENCY, such as EUR")
        ->type_name("CODE")
        ->check(notEmpty());
    command->add_option("--order", payment->m_Order, "attribute ORDERID, the shop's number of the order")
        ->type_name("ORDER")
        ->check(notEmpty());
    command
        ->add_option("--expires", payment->m_Expires,
                     "last moment to pay: seconds from now, or YYYYMMDD HH:MM:SS in UTC")
        ->type_name("TIME")
        ->check(notEmpty());
    command->add_option("--set", payment->m_Attributes, "another attribute of the message; repeatable")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
    command->add_flag("--open", payment->m_Open, "also open the address in the desktop's browser");
}

}  // namespace tool
