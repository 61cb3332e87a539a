// `tallowin capture`: verifies a confirmation like `tallowin verify`, then captures its payment.

#include "tools/commands.h"
#include "tools/confirmationinput.h"
#include "tools/sending.h"
#include "tools/verification.h"

namespace tool {

namespace {

struct CaptureOptions {
    ConfirmationSource m_Source;
    Expected m_Expected;
};

void capture(std::string const& directory, ConfirmationInput const& confirmation) {
    MessageObject const message(CreateMessageObject());
    require(MessageObject_Open(message.get(), directory.c_str()), "cannot open the directory");
    require(MessageObject_FromString(message.get(), confirmation.m_Data.c_str()), "cannot read the confirmation");
    requireSent(MessageObject_Capture(message.get()), "the payment was not captured");
}

void runCapture(Session& session, CaptureOptions const& options) {
    std::string const directory = session.accountDirectory();
    session.streams().requireOutput();
    ConfirmationInput const confirmation = readConfirmation(session.streams(), options.m_Source);
    Verification const verification = verify(directory, confirmation, options.m_Expected);
    report(session, verification);
    session.json()["captured"] = verification.hasPassed();
    if (!verification.hasPassed()) {
        session.setNegative();
        session.line("Nothing was captured: the confirmation does not say what was expected.", Emphasis::kStrong);
        return;
    }
    capture(directory, confirmation);
    session.line("The payment is captured.", Emphasis::kStrong);
}

}  // namespace

void addCapture(CommandLine& line) {
    auto const options = std::make_shared<CaptureOptions>();
    CLI::App* const command =
        addCommand(line, line.m_App, "capture", "check a confirmation and capture its payment", Needs::kDirectory,
                   [options](Session& session) { runCapture(session, *options); });
    command->footer(
        "Checks the confirmation like verify and sends it for capture only when every check passes. After a failure of "
        "the "
        "network the service may have captured the payment all the same; the message says so. Ask the service before "
        "you "
        "repeat.");
    addConfirmationOptions(*command, options->m_Source);
    addExpectedOptions(*command, options->m_Expected);
}

}  // namespace tool
