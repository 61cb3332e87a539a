// `tallowin verify`: whether a confirmation is genuine and pays the order that the options describe.

#include "tools/commands.h"
#include "tools/confirmationinput.h"
#include "tools/verification.h"

namespace tool {

namespace {

struct VerifyOptions {
    ConfirmationSource m_Source;
    Expected m_Expected;
};

void runVerify(Session& session, VerifyOptions const& options) {
    std::string const directory = session.accountDirectory();
    ConfirmationInput const confirmation = readConfirmation(session.streams(), options.m_Source);
    Verification const verification = verify(directory, confirmation, options.m_Expected);
    report(session, verification);
    if (verification.hasPassed()) {
        session.line("The confirmation is genuine and says what was expected.", Emphasis::kStrong);
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
}

}  // namespace tool
