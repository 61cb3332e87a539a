#include "tools/doctor.h"

#include <algorithm>
#include <optional>

#include "tools/directorylock.h"
#include "tools/toolfailure.h"

namespace tool {

namespace {

/// Makes one check. What keeps it from its end becomes a finding.
template <class Check>
void guarded(DoctorReport& report, char const* name, Check check) {
    try {
        check();
    } catch (ToolFailure const& failure) {
        report.problem(name, failure.what(), failure.hint());
    }
}

}  // namespace

char const* nameOf(Health health) {
    switch (health) {
        case Health::kGood:
            return "good";
        case Health::kSkipped:
            return "skipped";
        case Health::kRepaired:
            return "repaired";
        case Health::kWarning:
            return "warning";
        case Health::kProblem:
            break;
    }
    return "problem";
}

void DoctorReport::good(std::string const& check, std::string const& text) {
    m_Findings.push_back({check, Health::kGood, text, ""});
}

void DoctorReport::skipped(std::string const& check, std::string const& text) {
    m_Findings.push_back({check, Health::kSkipped, text, ""});
}

void DoctorReport::repaired(std::string const& check, std::string const& text, std::string const& done) {
    m_Findings.push_back({check, Health::kRepaired, text, done});
}

void DoctorReport::warning(std::string const& check, std::string const& text, std::string const& cure) {
    m_Findings.push_back({check, Health::kWarning, text, cure});
}

void DoctorReport::problem(std::string const& check, std::string const& text, std::string const& cure) {
    m_Findings.push_back({check, Health::kProblem, text, cure});
}

std::size_t DoctorReport::count(Health health) const {
    return static_cast<std::size_t>(std::count_if(
        m_Findings.begin(), m_Findings.end(), [health](Finding const& finding) { return finding.m_Health == health; }));
}

bool DoctorReport::hasFinding(std::string const& check) const {
    return std::any_of(m_Findings.begin(), m_Findings.end(), [&check](Finding const& finding) {
        return finding.m_Check == check && finding.m_Health >= Health::kWarning;
    });
}

void examine(std::string const& directory, DoctorOptions const& options, DoctorReport& report) {
    DoctorOptions chosen = options;
    Examination const examination{directory, chosen, report};
    bool goesOn = false;
    guarded(report, "directory", [&] { goesOn = examineDirectory(examination); });
    if (!goesOn) {
        return;
    }
    std::optional<DirectoryLock> lock;
    if (options.m_Repairs) {
        lock.emplace(directory, DirectoryLock::Kind::kExclusive);
        chosen.m_Repairs = mayRepair(examination);
    }
    bool isReadable = false;
    guarded(report, "modes", [&] { examineModes(examination); });
    guarded(report, "leftovers", [&] { examineLeftovers(examination); });
    guarded(report, "files", [&] { isReadable = examineDocuments(examination); });
    guarded(report, "keys", [&] { examineKeys(examination); });
    if (options.m_Offline) {
        return report.skipped("connection", "not checked: --offline");
    }
    if (!isReadable) {
        return report.skipped("connection", "not checked: the files that name the service cannot be used");
    }
    guarded(report, "connection", [&] { examineService(examination); });
}

}  // namespace tool
