// `tallowin verify`: whether a confirmation is genuine and pays the order that the options describe.

#include <optional>

#include "tools/commands.h"
#include "tools/confirmationinput.h"
#include "tools/verification.h"
#include "tools/verify_explain.h"

namespace tool {

namespace {

struct VerifyOptions {
    ConfirmationSource m_Source;
    Expected m_Expected;
    ExplainOptions m_Explain;
};

/// The attributes of a confirmation as the options expect them.
Attributes expectedAttributes(Expected const& expected) {
    Attributes attributes;
    for (auto const& [name, value] : Attributes{{"TOKEN", expected.m_Token},
                                                {"AMOUNT", expected.m_Amount},
                                                {"CURRENCY", expected.m_Currency},
                                                {"ORDERID", expected.m_Order},
                                                {"RESULT", expected.m_Result}}) {
        if (!value.empty()) {
            attributes.emplace_back(name, value);
        }
    }
    return attributes;
}

/// The confirmation with its checks; nothing after its refusal was explained.
std::optional<Verification> verifyOrExplain(Session& session, std::string const& directory,
                                            ConfirmationInput const& confirmation, VerifyOptions const& options) {
    try {
        return verify(directory, confirmation, options.m_Expected);
    } catch (ToolFailure const& failure) {
        if (!options.m_Explain.m_Explains) {
            throw;
        }
        explainRefusal(session, directory,
                       {confirmation.m_Data, confirmation.m_Signature, expectedAttributes(options.m_Expected)},
                       options.m_Explain, failure);
        return std::nullopt;
    }
}

void runVerify(Session& session, VerifyOptions const& options) {
    std::string const directory = session.accountDirectory();
    ConfirmationInput const confirmation = readConfirmation(session.streams(), options.m_Source);
    std::optional<Verification> const verification = verifyOrExplain(session, directory, confirmation, options);
    if (!verification) {
        return;
    }
    report(session, *verification);
    if (verification->hasPassed()) {
        Expected const& expected = options.m_Expected;
        bool const isOfAnOrder = !expected.m_Token.empty() || !expected.m_Order.empty();
        session.line(isOfAnOrder ? "The confirmation is genuine and says what was expected."
                                 : "The confirmation is genuine; no option named the order that it must be of.",
                     Emphasis::kStrong);
        return;
    }
    session.setNegative();
    session.line("The confirmation is genuine but does not say what was expected.", Emphasis::kStrong);
}

}  // namespace

void addVerify(CommandLine& line) {
    auto const options = std::make_shared<VerifyOptions>();
    CLI::App* const command =
        addCommand(line, line.m_App, "verify", "check a confirmation against what an order expects", Needs::kDirectory,
                   [options](Session& session) { runVerify(session, *options); });
    command->footer(
        "Exit status 0 means that the service signed this confirmation and that it says what was expected: a payment "
        "that is "
        "authorised, with the token, amount, currency and order of the options. What no option names is not compared, "
        "and "
        "the report says so. The shop itself must make sure that the token was not used before.");
    addConfirmationOptions(*command, options->m_Source);
    addExpectedOptions(*command, options->m_Expected);
    addExplainOptions(*command, options->m_Explain);
}

}  // namespace tool
