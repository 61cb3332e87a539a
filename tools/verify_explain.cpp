// `tallowin verify --explain`: shows what the diagnosis of a signature finds with the keys of a directory.
//
// The diagnosis is code of its own, not the library's, so it is a second opinion on the same bytes. Its sentence comes
// first; then what to change, the signing key and the signed text, the differences, and every step as a list.

#include "tools/verify_explain.h"

#include <cstddef>
#include <fstream>
#include <ios>
#include <optional>
#include <stdexcept>

#include "diagnosis/directoryevidence.h"
#include "diagnosis/explanation.h"
#include "tools/commands.h"
#include "tools/failurereport.h"
#include "tools/toolfailure.h"

namespace tool {

namespace {

using diagnosis::Diagnosis;
using diagnosis::SeenMessage;
using diagnosis::Wording;

constexpr std::size_t kMaxOriginalBytes = std::size_t{1024} * 1024;

SeenMessage readOriginal(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text(kMaxOriginalBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (!file.is_open() || file.bad() || text.size() > kMaxOriginalBytes) {
        throw ToolFailure("cannot read the original " + path);
    }
    try {
        SeenMessage message{diagnosis::readPasted(text, "").m_Data, "the message in " + path, ""};
        // The line end of a file is not part of the message.
        message.m_Text.erase(message.m_Text.find_last_not_of("\r\n") + 1);
        return message;
    } catch (std::runtime_error const& error) {
        throw ToolFailure("the original " + path + " holds no message: " + error.what());
    }
}

std::string useOf(diagnosis::KnownKey const& key) {
    return !key.ofService() ? "" : key.m_Current ? ", the current one" : ", an old one";
}

std::string describe(Wording const& wording, diagnosis::KnownKey const& key) {
    return key.m_Id + " of " + keyOwner(wording, key.m_Account) + useOf(key) + ", " + std::to_string(key.bits()) +
           " bits";
}

Json orNull(std::optional<std::string> const& text) {
    return text ? Json(*text) : Json();
}

Json jsonOf(Wording const& wording, Diagnosis const& diagnosis, diagnosis::Explanation const& explanation) {
    Json out = {{"valid", diagnosis.m_Right},
                {"sentence", explanation.m_Sentence},
                {"change", explanation.m_Change},
                {"keyId", diagnosis.m_KeyId},
                {"signer", Json()},
                {"signedText", orNull(diagnosis.m_SignedText)},
                {"differences", Json::array()},
                {"matches", Json::array()},
                {"remarks", Json::array()}};
    if (diagnosis.m_Signer) {
        out["signer"] = {{"keyId", diagnosis.m_Signer->m_Id},
                         {"owner", keyOwner(wording, diagnosis.m_Signer->m_Account)},
                         {"current", diagnosis.m_Signer->m_Current},
                         {"bits", diagnosis.m_Signer->bits()}};
    }
    if (diagnosis.m_Original) {
        for (diagnosis::Difference const& difference : diagnosis.m_Original->m_Differences) {
            out["differences"].push_back({{"name", difference.m_Name},
                                          {"signed", orNull(difference.m_InSigned)},
                                          {"received", orNull(difference.m_InData)}});
        }
    }
    for (diagnosis::Match const& match : diagnosis.m_Matches) {
        out["matches"].push_back({{"keyId", match.m_KeyId},
                                  {"owner", keyOwner(wording, match.m_Account)},
                                  {"bytes", nameOf(match.m_Digested)},
                                  {"change", match.m_Repair}});
    }
    for (diagnosis::Remark const& remark : diagnosis.m_Remarks) {
        out["remarks"].push_back(remark.m_Text);
    }
    return out;
}

/// Why the library refuses a message whose signature is right.
diagnosis::Explanation explainRight(Wording const& wording, Diagnosis const& diagnosis) {
    std::string const type = diagnosis.m_Message ? diagnosis.m_Message->type() : "";
    if (diagnosis.m_Signer && !diagnosis.m_Signer->ofService()) {
        return {"This is a message of " + diagnosis::keyOwner(wording, diagnosis.m_Signer->m_Account) +
                    ", signed with its own key " + diagnosis.m_Signer->m_Id + ": no confirmation of the server",
                "pass the parameters that came back with the shopper, not those of the payment URL"};
    }
    if (type != "PayConfirm") {
        return {"This is a message of the type " + type + ", no confirmation", "pass a message of the type PayConfirm"};
    }
    return {"The signature is right; the library refuses the message for another reason",
            "see the code, and the checks in settings.xml: KEYPIN, MINKEYBITS, STRICTSIG, MAXXML"};
}

void addLines(Session& session, Wording const& wording, Diagnosis const& diagnosis,
              diagnosis::Explanation const& explanation, ToolFailure const& failure) {
    session.line(explanation.m_Sentence, Emphasis::kBad);
    if (!explanation.m_Change.empty()) {
        session.line("  to make it pass:  " + explanation.m_Change, Emphasis::kStrong);
    }
    session.line("  the library says: " + std::string(failure.what()));
    if (!failure.reason().empty()) {
        session.line("  its reason:       " + failure.reason());
    }
    session.line("  key in KEYID:     " + (diagnosis.m_Key             ? describe(wording, *diagnosis.m_Key)
                                           : diagnosis.m_KeyId.empty() ? "none can be read"
                                                                       : diagnosis.m_KeyId + ", not known here"));
    session.line("  signed by:        " +
                 (diagnosis.m_Signer ? describe(wording, *diagnosis.m_Signer) : "no key that is known here"));
    session.line("  signed text:      " + diagnosis.m_SignedText.value_or("not found"));
    session.line("  received text:    " + diagnosis.m_Data);
    for (diagnosis::Remark const& remark : diagnosis.m_Remarks) {
        session.line("  - " + remark.m_Text);
    }
}

}  // namespace

void addExplainOptions(CLI::App& command, ExplainOptions& options) {
    command.add_flag("--explain", options.m_Explains, "say what was signed, by which key, and what was changed");
    command
        .add_option("--original", options.m_OriginalFiles,
                    "file with a message, a query or an address to compare with; may be repeated")
        ->check(notEmpty())
        ->type_name("FILE");
}

void explainRefusal(Session& session, std::string const& directory, RefusedConfirmation const& confirmation,
                    ExplainOptions const& options, ToolFailure const& failure) {
    std::vector<SeenMessage> originals;
    for (std::string const& path : options.m_OriginalFiles) {
        originals.push_back(readOriginal(path));
    }
    diagnosis::DirectoryEvidence const found =
        diagnosis::directoryEvidence(directory, std::move(originals), confirmation.m_Expected);
    for (std::string const& problem : found.m_Problems) {
        session.warn(problem);
    }
    Wording const& wording = found.m_Evidence.m_Wording;
    Diagnosis const result = diagnose(found.m_Evidence, confirmation.m_Data, confirmation.m_Signature);
    diagnosis::Explanation const explanation =
        result.m_Right ? explainRight(wording, result) : explain(wording, result);
    addLines(session, wording, result, explanation, failure);
    session.json()["error"] = jsonOf(failure);
    session.json()["explanation"] = jsonOf(wording, result, explanation);
    session.setNegative();
}

}  // namespace tool
