// `tallowin doctor`: examines a configuration directory and the way to its service, and repairs what can be repaired
// without loss.

#include <map>
#include <memory>

#include "tools/commands.h"
#include "tools/doctor.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

constexpr int kMaxTimeoutSeconds = 3600;

Emphasis emphasisOf(Health health) {
    switch (health) {
        case Health::kGood:
        case Health::kRepaired:
            return Emphasis::kGood;
        case Health::kWarning:
            return Emphasis::kWarning;
        case Health::kProblem:
            return Emphasis::kBad;
        case Health::kSkipped:
            break;
    }
    return Emphasis::kPlain;
}

std::string counted(std::size_t count, std::string const& what) {
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

void addReport(Session& session, DoctorReport const& report) {
    constexpr std::size_t kHealthWidth = 9;
    constexpr std::size_t kCheckWidth = 11;
    Json checks = Json::array();
    for (Finding const& finding : report.findings()) {
        session.line(
            padded(nameOf(finding.m_Health), kHealthWidth) + padded(finding.m_Check, kCheckWidth) + finding.m_Text,
            emphasisOf(finding.m_Health));
        bool const isRepair = finding.m_Health == Health::kRepaired;
        if (!finding.m_Cure.empty()) {
            session.line(std::string(kHealthWidth + kCheckWidth, ' ') + (isRepair ? "done: " : "cure: ") +
                         finding.m_Cure);
        }
        Json check = {{"name", finding.m_Check}, {"health", nameOf(finding.m_Health)}, {"text", finding.m_Text}};
        if (!finding.m_Cure.empty()) {
            check[isRepair ? "done" : "cure"] = finding.m_Cure;
        }
        checks.push_back(check);
    }
    std::size_t const problems = report.count(Health::kProblem);
    std::size_t const warnings = report.count(Health::kWarning);
    std::size_t const repairs = report.count(Health::kRepaired);
    session.line("");
    session.line(
        problems + warnings == 0
            ? "nothing found" + (repairs == 0 ? "" : ", after " + counted(repairs, "repair"))
            : counted(problems, "problem") + ", " + counted(warnings, "warning") + ", " + counted(repairs, "repair"),
        Emphasis::kStrong);
    session.json()["checks"] = checks;
    session.json()["problems"] = problems;
    session.json()["warningCount"] = warnings;
    session.json()["repairs"] = repairs;
}

void runDoctor(Session& session, DoctorOptions const& options) {
    std::string const directory = session.directory();
    if (options.m_Repairs) {
        session.streams().requireOutput();
    }
    DoctorReport report;
    examine(directory, options, report);
    session.json()["directory"] = directory;
    addReport(session, report);
    if (report.count(Health::kProblem) + report.count(Health::kWarning) > 0) {
        session.setNegative();
    }
}

}  // namespace

void addDoctor(CommandLine& line) {
    auto const options = std::make_shared<DoctorOptions>();
    CLI::App* const command =
        addCommand(line, line.m_App, "doctor", "examine the directory and the way to the service, and name cures",
                   Needs::kDirectory, [options](Session& session) { runDoctor(session, *options); });
    command->add_flag("--repair", options->m_Repairs, "repair what can be repaired without loss");
    command->add_flag("--offline", options->m_Offline, "connect to nothing");
    command->add_option("--user", options->m_User, "the user that the shop runs as")
        ->check(notEmpty())
        ->type_name("USER");
    command->add_option("--timeout", options->m_TimeoutSeconds, "seconds to wait for each connect and each answer; 10")
        ->check(CLI::Range(1, kMaxTimeoutSeconds))
        ->type_name("SECONDS");
}

}  // namespace tool
