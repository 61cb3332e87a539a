// Every system call of every flat function fails with each errno of its list, once for each time the function makes it.
//
// Each case runs in a process of its own, on an account of its own, and is then held to: nothing thrown, a success with
// its whole effect, files old or new and whole, nothing left behind, and the same call succeeds afterwards. The codes
// are a row of the table for each function, system call and errno: one code for each time, from the first on; "3*0"
// stands for three of them. "ENOSPC+" fails from there on, "short" moves single bytes, "end" moves nothing, "storm"
// interrupts every call three times.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include "foundation/tbobject.h"
#include "tests/faults/flatcalls.h"
#include "tests/faults/isolation.h"
#include "tests/faults/stage.h"
#include "tests/faults/systemfaults.h"
#include "tests/faults/table.h"
#include "tests/support/directories.h"
#include "tests/support/processes.h"

using namespace kvxtest;

namespace {

constexpr char kTable[] = "expected_systemcalls.txt";

/// In the short form every so many of the faults of a function with very many cases.
constexpr std::size_t kStride = 5;
constexpr std::size_t kManyCases = 600;

void addUnlessEmpty(Report& report, std::string const& what, std::string const& text) {
    if (!text.empty()) {
        report.add(what + text);
    }
}

std::string wrongEffect(FlatCall const& call, CallState& state) {
    return call.m_Wrong == nullptr ? "" : call.m_Wrong(state);
}

/// Whether the fault says that a file which is there is not: then the call does right what it does without that file.
bool isAbsence(SystemFault const& fault) {
    std::string const name = fault.m_Call;
    return (name == "open" || name == "lstat") && (fault.m_Error == ENOENT || fault.m_Error == ENOTDIR);
}

/// Whether the fault keeps a write from removing what a dead process left behind. The next write removes it.
bool keepsLeftover(FlatCall const& call, SystemFault const& fault) {
    return std::string(fault.m_Call) == "unlink" || std::string(call.m_Name).find("(left-over)") != std::string::npos;
}

/// One fault at one of the function's calls.
struct Case {
    SystemFault const* m_Fault;
    long m_Number;

    [[nodiscard]] std::string name() const {
        return std::string(m_Fault->m_Call) + " " + m_Fault->m_Name + " at number " + std::to_string(m_Number);
    }
};

/// How a run with a fault went, in Report::m_Count.
constexpr long kNoFault = 0;
constexpr long kFault = 1;
constexpr long kWrongSuccess = 2;

/// Runs the case in this process.
void failOne(FlatCall const& call, std::string const& directory, Case const& row, Report& report) {
    SystemFault const& fault = *row.m_Fault;
    WithoutSync const quick;
    ScriptedNetwork const network;
    Stage stage(directory);
    if (call.m_SetUp != nullptr) {
        call.m_SetUp(stage);
    }
    stage.remember();
    std::size_t const descriptors = countDescriptors();
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    {
        CallState state(stage);
        if (call.m_Prepare != nullptr) {
            call.m_Prepare(state);
        }
        state.clearOutputs();
        ScriptedNetwork::forgetRequests();
        {
            FailingSystem const failing(fault, row.m_Number);
            report.m_Code = call.m_Run(state);
        }
        report.m_Count = FailingSystem::hasFailed() ? kFault : kNoFault;
        report.m_Reached = true;
        if (report.m_Code == KVX_OK && !isAbsence(fault) && !wrongEffect(call, state).empty()) {
            report.m_Count = kWrongSuccess;
        }
        if (report.m_Code != KVX_OK && state.m_Out != nullptr) {
            report.add("a failure, but with an object");
        }
        if (!keepsLeftover(call, fault)) {
            addUnlessEmpty(report, "files: ", stage.whatIsBroken(newTexts()));
        }
        if (!call.m_IsOnce) {
            state.clearOutputs();
            ScriptedNetwork::forgetRequests();
            std::int32_t const again = call.m_Run(state);
            if (again != call.m_Code) {
                report.add("the same call returns " + codeText(again) + " afterwards");
            } else if (again == KVX_OK && report.m_Count != kWrongSuccess && !isAbsence(fault)) {
                addUnlessEmpty(report, "afterwards: ", wrongEffect(call, state));
            }
            addUnlessEmpty(report, "files afterwards: ", stage.whatIsBroken(newTexts()));
        }
        if (countDescriptors() != descriptors) {
            report.add("a descriptor is left open");
        }
    }
    if (TbRefCounter::m_nTotalRef != living) {
        report.add("objects left behind");
    }
}

/// Codes with repetitions counted.
class CodeList {
public:
    void add(std::string const& code) {
        if (m_Codes.empty() || m_Codes.back().first != code) {
            m_Codes.emplace_back(code, 0);
        }
        ++m_Codes.back().second;
    }
    [[nodiscard]] std::string text() const {
        std::string all;
        for (auto const& [code, count] : m_Codes) {
            all += (all.empty() ? "" : " ") + (count == 1 ? "" : std::to_string(count) + "*") + code;
        }
        return all;
    }

private:
    std::vector<std::pair<std::string, int>> m_Codes;
};

/// How often the function makes each system call when nothing fails.
std::map<std::string, long> callsOf(FlatCall const& call, std::string const& directory) {
    std::map<std::string, long> counts;
    std::vector<std::string> names;
    for (SystemFault const& fault : systemFaults()) {
        if (names.empty() || names.back() != fault.m_Call) {
            names.emplace_back(fault.m_Call);
        }
    }
    Report const report = inIsolation([&](Report& fresh) {
        ScriptedNetwork const network;
        Stage stage(directory);
        if (call.m_SetUp != nullptr) {
            call.m_SetUp(stage);
        }
        CallState state(stage);
        if (call.m_Prepare != nullptr) {
            call.m_Prepare(state);
        }
        state.clearOutputs();
        ScriptedNetwork::forgetRequests();
        FailingSystem const counting;
        fresh.m_Code = call.m_Run(state);
        for (std::string const& name : names) {
            fresh.add(std::to_string(FailingSystem::countOf(name)));
        }
    });
    EXPECT_EQ(codeText(report.m_Code), codeText(call.m_Code)) << call.m_Name << ", without a fault";
    std::istringstream lines(report.m_Text);
    for (std::string const& name : names) {
        lines >> counts[name];
    }
    return counts;
}

/// All cases of a function; in the short form a share of those of a function with very many.
std::vector<Case> casesOf(FlatCall const& call, std::string const& directory) {
    std::map<std::string, long> const counts = callsOf(call, directory);
    std::vector<std::vector<Case>> byFault;
    std::size_t total = 0;
    for (SystemFault const& fault : systemFaults()) {
        bool const hasNumbers = fault.m_Kind != FaultKind::kShort && fault.m_Kind != FaultKind::kStorm;
        long const made = counts.at(fault.m_Call);
        byFault.emplace_back();
        for (long number = 0; number < (hasNumbers ? made : std::min(made, 1L)); ++number) {
            byFault.back().push_back({&fault, number});
        }
        total += byFault.back().size();
    }
    std::vector<Case> cases;
    bool const isShare = !wantsAll() && total > kManyCases;
    for (std::size_t i = 0; i < byFault.size(); ++i) {
        if (!isShare || i % kStride == 0) {
            cases.insert(cases.end(), byFault[i].begin(), byFault[i].end());
        }
    }
    return cases;
}

/// Rows "function, system call: errno errno ... | codes"; errnos with the same codes share a row.
using Rows = std::vector<std::pair<std::string, std::string>>;

/// Runs all cases and returns a row for each fault, without sharing. Fails the test at every run that went wrong.
Rows rowsOf(FlatCall const& call, std::string const& directory) {
    std::vector<Case> const cases = casesOf(call, directory);
    std::vector<CodeList> codes(systemFaults().size());
    auto const look = [&](Case const& row, Report const& report) {
        std::string const where = std::string(call.m_Name) + ", " + row.name() + ": " + codeText(report.m_Code);
        EXPECT_TRUE(report.m_Text[0] == '\0') << where << ": " << report.m_Text;
        EXPECT_TRUE(!report.m_Finished || report.m_Count != kNoFault) << where << ": the call was never made";
        codes[static_cast<std::size_t>(row.m_Fault - systemFaults().data())].add(
            (report.m_Finished ? codeText(report.m_Code) : "death") + (report.m_Count == kWrongSuccess ? "!" : ""));
    };
    // Mapping memory is for the first objects of a process; all else runs many times in one.
    std::vector<Case> warm;
    for (Case const& row : cases) {
        if (std::string(row.m_Fault->m_Call) == "mmap") {
            look(row, inIsolation([&](Report& report) { failOne(call, directory, row, report); }));
        } else {
            warm.push_back(row);
        }
    }
    auto const caseOf = [&](long number) { return warm[static_cast<std::size_t>(number)]; };
    manyInIsolation(
        0, 1, static_cast<long>(warm.size()),
        [&](long number, Report& report) { failOne(call, directory, caseOf(number), report); },
        [&](long number, Report const& report) { look(caseOf(number), report); });
    Rows rows;
    for (std::size_t i = 0; i < codes.size(); ++i) {
        SystemFault const& fault = systemFaults()[i];
        if (!codes[i].text().empty()) {
            rows.emplace_back(std::string(call.m_Name) + ", " + fault.m_Call + ": " + fault.m_Name, codes[i].text());
        }
    }
    return rows;
}

/// Joins rows of one system call with the same codes.
Rows shared(Rows const& rows) {
    Rows joined;
    for (auto const& [key, codes] : rows) {
        std::size_t const colon = key.rfind(": ");
        std::string const start = key.substr(0, colon + 2);
        auto const same = std::find_if(joined.begin(), joined.end(), [&, text = codes](auto const& row) {
            return row.second == text && row.first.rfind(start, 0) == 0;
        });
        if (same == joined.end()) {
            joined.emplace_back(key, codes);
        } else {
            same->first += key.substr(colon + 1);
        }
    }
    return joined;
}

/// The table with a row for each errno.
std::map<std::string, std::string> expectedRows() {
    std::map<std::string, std::string> expanded;
    ExpectedTable const table(kTable);
    for (auto const& [key, codes] : table.rows()) {
        std::size_t const colon = key.rfind(": ");
        std::istringstream errnos(key.substr(colon + 2));
        for (std::string name; errnos >> name;) {
            expanded[key.substr(0, colon + 2) + name] = codes;
        }
    }
    return expanded;
}

/// Part `part` of the calls, of three.
void failSystemCalls(std::size_t part) {
    constexpr std::size_t kParts = 3;
    ::umask(022);
    std::map<std::string, std::string> const expected = expectedRows();
    TemporaryDirectory const root;
    char const* const only = std::getenv("KVX_FAULTS_ONLY");
    Rows all;
    for (std::size_t i = 0; i < flatCalls().size(); ++i) {
        FlatCall const& call = flatCalls()[i];
        bool const isWanted = only == nullptr || std::string(call.m_Name).find(only) != std::string::npos;
        if (i % kParts != part || !isWanted || call.m_Network == CallNetwork::kTls) {
            continue;
        }
        for (auto const& [key, codes] : rowsOf(call, root.file("account"))) {
            auto const row = expected.find(key);
            EXPECT_EQ(codes, row == expected.end() ? "" : row->second) << key;
            all.emplace_back(key, codes);
        }
    }
    writeTable("systemcalls_" + std::to_string(part), shared(all));
}

}  // namespace

TEST(FailingSystemCalls, FirstThird) {
    failSystemCalls(0);
}

TEST(FailingSystemCalls, SecondThird) {
    failSystemCalls(1);
}

TEST(FailingSystemCalls, LastThird) {
    failSystemCalls(2);
}
