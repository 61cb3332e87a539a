// The library says only that a key of the directory signed a text. The checks here are those that an order needs
// besides: the type, the server's key, the result, and what the caller expects.

#include "tools/verification.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "tools/tooltext.h"

namespace tool {

namespace {

std::string valueIn(Attributes const& message, std::string const& name) {
    auto const found = std::find_if(message.begin(), message.end(), [&](auto const& row) { return row.first == name; });
    return found == message.end() ? "" : found->second;
}

bool isIn(Attributes const& message, std::string const& name) {
    return std::any_of(message.begin(), message.end(), [&](auto const& row) { return row.first == name; });
}

}  // namespace

void addExpectedOptions(CLI::App& command, Expected& expected) {
    command.add_option("--token", expected.m_Token, "token of the order's payment, as pay reported it")
        ->type_name("TOKEN")
        ->check(notEmpty());
    command.add_option("--amount", expected.m_Amount, "amount of the order, spelled as in the payment")
        ->type_name("AMOUNT")
        ->check(notEmpty());
    command.add_option("--currency", expected.m_Currency, "currency of the order")
        ->type_name("CODE")
        ->check(notEmpty());
    command.add_option("--order", expected.m_Order, "the shop's number of the order")
        ->type_name("ORDER")
        ->check(notEmpty());
    command.add_option("--result", expected.m_Result, "RESULT of the confirmation; authorised unless given")
        ->type_name("RESULT")
        ->check(notEmpty());
}

bool Verification::hasPassed() const {
    return std::all_of(m_Checks.begin(), m_Checks.end(), [](Check const& check) { return check.hasPassed(); });
}

Verification verify(std::string const& directory, ConfirmationInput const& confirmation, Expected const& expected) {
    FactoryObject const factory = openFactory(directory);
    KVX_HANDLE handle = nullptr;
    require(MessageFactory_VerifyPayConfirm(factory.get(), confirmation.m_Data.c_str(),
                                            confirmation.m_Signature.c_str(), &handle),
            "the confirmation does not verify");
    MessageObject const message(handle);
    Verification verification;
    verification.m_Message = attributesOf(message);
    auto const compare = [&](char const* name, char const* attribute, std::string const& wanted) {
        verification.m_Checks.push_back({name, attribute, wanted, valueIn(verification.m_Message, attribute)});
    };
    compare("type", "MSGTYPE", "PayConfirm");
    compare("key", "KEYID", configuredValue(directory, "config.xml", "VTKEYID"));
    if (isIn(verification.m_Message, "RESULT") || !expected.m_Result.empty()) {
        compare("result", "RESULT", expected.m_Result.empty() ? "authorised" : expected.m_Result);
    }
    struct Option {
        char const* m_Name;
        char const* m_Attribute;
        std::string const& m_Wanted;
    };
    for (Option const& option : {Option{"token", "TOKEN", expected.m_Token},
                                 {"amount", "AMOUNT", expected.m_Amount},
                                 {"currency", "CURRENCY", expected.m_Currency},
                                 {"order", "ORDERID", expected.m_Order}}) {
        if (option.m_Wanted.empty()) {
            verification.m_NotCompared.emplace_back(option.m_Name);
        } else {
            compare(option.m_Name, option.m_Attribute, option.m_Wanted);
        }
    }
    return verification;
}

void report(Session& session, Verification const& verification) {
    constexpr std::size_t kWidth = 11;
    Json& json = session.json();
    json["checks"] = Json::array();
    session.line(padded("signature", kWidth) + "ok", Emphasis::kGood);
    for (Check const& check : verification.m_Checks) {
        json["checks"].push_back({{"name", check.m_Name},
                                  {"passed", check.hasPassed()},
                                  {"expected", check.m_Expected},
                                  {"found", check.m_Found}});
        std::string const start = padded(check.m_Name, kWidth);
        if (check.hasPassed()) {
            session.line(start + "ok   " + check.m_Found, Emphasis::kGood);
        } else {
            session.line(start + "NO   expected \"" + check.m_Expected + "\", found \"" + check.m_Found + '"',
                         Emphasis::kBad);
        }
    }
    json["notCompared"] = verification.m_NotCompared;
    for (std::string const& name : verification.m_NotCompared) {
        session.line(padded(name, kWidth) + "not compared: --" + name + " was not given", Emphasis::kWarning);
    }
    json["message"] = Json::object();
    for (auto const& [name, value] : verification.m_Message) {
        json["message"][name] = value;
    }
}

}  // namespace tool
