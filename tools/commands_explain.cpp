// `tallowin explain`: what a result code means and what to do about it.

#include <cstddef>

#include "tools/codelookup.h"
#include "tools/commands.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

constexpr std::size_t kWidth = 23;

std::string heading(std::string const& text) {
    return padded(text, kWidth);
}

/// The last number of the family whose constant is `code`.
std::int32_t lastOf(std::int32_t code) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(code) | ((1U << errortable::kNumberBits) - 1));
}

void addCode(Session& session, std::int32_t code) {
    errortable::Row const& row = *rowOf(code);
    std::string const name = codeName(code);
    std::string const label = labelOf(code);
    std::string const text = codeMeaning(code);
    session.line(name + (label.empty() ? "" : ": " + label), Emphasis::kStrong);
    if (!text.empty()) {
        session.line(heading("text") + text);
    }
    session.line(heading("number") + codeNumber(code) +
                 (isFamily(code) ? " to " + codeNumber(lastOf(code))
                  : code < 0     ? ", as a signed number " + std::to_string(code)
                                 : ""));
    session.line(heading("meaning") + row.m_Meaning);
    session.line(heading("is a retry safe?") + row.m_Retry);
    session.line(heading("may money have moved?") + row.m_Money);
    session.line(heading("what to do") + row.m_Action);
    session.json()["codes"].push_back({{"code", codeNumber(code)},
                                       {"number", code},
                                       {"name", name},
                                       {"label", label},
                                       {"text", text},
                                       {"meaning", row.m_Meaning},
                                       {"retry", row.m_Retry},
                                       {"money", row.m_Money},
                                       {"action", row.m_Action}});
}

void explain(Session& session, std::string const& text) {
    std::vector<std::int32_t> const codes = codesNamed(text);
    if (codes.empty()) {
        throw ToolFailure("there is no result code " + text,
                          "give a number such as 0x8004020D, -2147220979 or 13, or a name such as KVX_E_NOT_FOUND or "
                          "EACCES");
    }
    for (std::int32_t const code : codes) {
        if (code != codes.front()) {
            session.line("");
        }
        addCode(session, code);
    }
}

}  // namespace

void addExplain(CommandLine& line) {
    auto const code = std::make_shared<std::string>();
    CLI::App* const command =
        addCommand(line, line.m_App, "explain", "explain a result code: its meaning, whether to retry, what to do",
                   Needs::kNothing, [code](Session& session) { explain(session, *code); });
    command->footer(
        "CODE is a number as programs and logs print it (0x8004020D, -2147220979, 2147746317, or 13 for an errno), or "
        "a name (KVX_E_NOT_FOUND, EACCES, \"certificate expired\"). A name that several codes have lists all of them. "
        "Exit status 1 means that there is no such code.");
    command->add_option("code", *code, "number or name of a result code")
        ->type_name("CODE")
        ->required()
        ->check(notEmpty());
}

}  // namespace tool
