// Every allocation of every flat function fails, alone and with all that follow.
//
// The allocations are those of the whole process: the library's, OpenSSL's, libuuid's, the run-time libraries'. Each
// run makes its own account, fails one allocation, and is then held to: a code of the table and nothing thrown, files
// old or new and whole, no descriptor, object or memory left behind, and the same call succeeds afterwards. "cold"
// calls are the first of their process, "warm" ones follow a call that succeeded. Calls with many allocations are
// sampled evenly; KVX_FAULTS_ALL fails all of them.

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "core/kvxbase.h"
#include "foundation/tbexception.h"
#include "foundation/tbobject.h"
#include "tests/faults/failingheap.h"
#include "tests/faults/flatcalls.h"
#include "tests/faults/isolation.h"
#include "tests/faults/stage.h"
#include "tests/faults/table.h"
#include "tests/support/directories.h"
#include "tests/support/processes.h"
#include "tests/support/tlsserver.h"

using namespace kvxtest;

namespace {

constexpr char kTable[] = "expected_allocations.txt";

/// How many allocations of one row fail in the short form, evenly spread.
constexpr long kWarmSamples = 60;
constexpr long kColdSamples = 20;

/// Runs of one row with one code that are reported in full.
int const kMaxComplaints = std::getenv("KVX_FAULTS_STACKS") == nullptr ? 2 : 100000;

/// Runs after which memory that is still held counts as lost: caches fill once.
constexpr int kLeakRuns = 3;

using Mode = HeapFault::Mode;

std::optional<ScriptedNetwork> networkFor(FlatCall const& call) {
    if (call.m_Network == CallNetwork::kScripted) {
        return std::optional<ScriptedNetwork>(std::in_place);
    }
    return std::nullopt;
}

/// Stands for the code of a call that an exception left.
constexpr std::int32_t kThrown = -1;

/// In Report::m_Count: the same call lacks memory afterwards too. OpenSSL tries to initialise itself once in a process.
constexpr long kStuck = -1;
constexpr char kStuckText[] = "then:0x80040217";

/// Whether the table's row `allowed` has `code`, as it is, marked with "!", or as a prefix with "*".
bool isAllowed(std::string const& code, std::string const& allowed) {
    std::istringstream tokens(allowed);
    for (std::string token; tokens >> token;) {
        if (token.back() == '!') {
            token.pop_back();
        }
        bool const isPrefix = token.back() == '*';
        if (isPrefix ? code.rfind(token.substr(0, token.size() - 1), 0) == 0 : code == token) {
            return true;
        }
    }
    return false;
}

/// The call with a failing allocation; an exception that leaves it is reported.
std::int32_t runFailing(FlatCall const& call, CallState& state, HeapFault const& fault, Report& report) {
    ScriptedNetwork::forgetRequests();
    char const* thrown = nullptr;
    std::int32_t code = kThrown;
    {
        FailingHeap const failing(fault);
        try {
            code = call.m_Run(state);
        } catch (TBFC_Exception const&) {
            thrown = "TBFC_Exception";
        } catch (KVX_Exception const&) {
            thrown = "KVX_Exception";
        } catch (std::bad_alloc const&) {
            thrown = "std::bad_alloc";
        } catch (...) {
            thrown = "an exception";
        }
    }
    report.m_Reached = FailingHeap::hasFailed();
    report.m_Count = FailingHeap::requested();
    report.setStack(FailingHeap::failedStack());
    if (thrown != nullptr) {
        report.add(std::string(thrown) + " leaves the function");
    }
    return code;
}

void addUnlessEmpty(Report& report, std::string const& what, std::string const& text) {
    if (!text.empty()) {
        report.add(what + text);
    }
}

/// One run with all its checks except the one for lost memory.
void runAndCheck(FlatCall const& call, Stage const& stage, bool isWarm, HeapFault const& fault, Report& report) {
    std::size_t const descriptors = countDescriptors();
    CallState state(stage);
    if (call.m_Prepare != nullptr) {
        call.m_Prepare(state);
    }
    state.clearOutputs();
    report.m_Code = runFailing(call, state, fault, report);
    if (report.m_Code == KVX_OK && call.m_Wrong != nullptr) {
        addUnlessEmpty(report, "a success, but: ", call.m_Wrong(state));
    }
    if (report.m_Code != KVX_OK && state.m_Out != nullptr) {
        report.add("a failure, but with an object");
    }
    // What a dead process left behind goes with the next write that succeeds.
    if (std::string(call.m_Name).find("(left-over)") == std::string::npos) {
        addUnlessEmpty(report, "files: ", stage.whatIsBroken(newTexts()));
    }
    if (!call.m_IsOnce) {
        state.clearOutputs();
        Report again = {};
        std::int32_t const code = runFailing(call, state, {}, again);
        if (code == KVX_E_OUT_OF_MEMORY && code != call.m_Code && !isWarm) {
            report.m_Count = kStuck;
        } else if (code != call.m_Code) {
            report.add("the same call returns " + codeText(code) + " afterwards " + again.m_Text);
        } else if (code == KVX_OK && call.m_Wrong != nullptr) {
            addUnlessEmpty(report, "afterwards: ", call.m_Wrong(state));
        }
        addUnlessEmpty(report, "files afterwards: ", stage.whatIsBroken(newTexts()));
    }
    if (countDescriptors() != descriptors) {
        report.add("a descriptor is left open");
    }
}

/// OpenSSL itself loses a text where one of its own allocations fails, in a TLS exchange up to three. An object of it
/// that the library loses is more: a number two, a key, a session or a context far more.
long lossOfOpenSsl(FlatCall const& call, Report const& report) {
    if (std::strstr(report.m_Stack, "libcrypto.so") == nullptr) {
        return 0;
    }
    return call.m_Network == CallNetwork::kTls ? 3 : 1;
}

/// Fails one allocation in this process.
void failOne(FlatCall const& call, std::string const& directory, bool isWarm, HeapFault const& fault, Report& report) {
    WithoutSync const quick;
    auto const network = networkFor(call);
    if (isWarm) {
        Stage stage(directory);
        if (call.m_SetUp != nullptr) {
            call.m_SetUp(stage);
        }
        Report ignored = {};
        runAndCheck(call, stage, isWarm, {}, ignored);
    }
    long lost = 0;
    for (int run = 0; run < kLeakRuns; ++run) {
        Stage stage(directory);
        if (call.m_SetUp != nullptr) {
            call.m_SetUp(stage);
        }
        stage.remember();
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        Report fresh = {};
        HeapWatch const watch;
        runAndCheck(call, stage, isWarm, fault, fresh);
        ScriptedNetwork::forgetRequests();
        if (isWarm) {
            OPENSSL_thread_stop();  // the thread's error queue keeps texts
        }
        lost = HeapWatch::outstanding();
        if (run == 0) {
            report = fresh;
            if (TbRefCounter::m_nTotalRef != living) {
                report.add("objects left behind at the end");
            }
        }
        if (!isWarm || lost <= lossOfOpenSsl(call, report) || !report.m_Reached) {
            break;
        }
        if (run == kLeakRuns - 1) {
            report.add(std::to_string(lost) + " allocations are lost\n" + HeapWatch::newestStack());
        }
    }
}

/// Makes every call in a process in which OpenSSL has failed to initialise itself. Each has its own result and its
/// effect, or lacks memory.
void callAll(std::string const& directory, Report& report) {
    for (FlatCall const& call : flatCalls()) {
        auto const network = networkFor(call);
        Stage stage(directory);
        if (call.m_SetUp != nullptr) {
            call.m_SetUp(stage);
        }
        stage.remember();
        CallState state(stage);
        if (call.m_Prepare != nullptr) {
            call.m_Prepare(state);
        }
        state.clearOutputs();
        std::string const what = std::string("then ") + call.m_Name;
        std::int32_t const code = call.m_Run(state);
        if (code != call.m_Code && code != KVX_E_OUT_OF_MEMORY) {
            report.add(what + " returns " + codeText(code));
        }
        if (code == KVX_OK && call.m_Wrong != nullptr) {
            addUnlessEmpty(report, what + ": ", call.m_Wrong(state));
        }
        if (code != KVX_OK && state.m_Out != nullptr) {
            report.add(what + " fails, but with an object");
        }
        addUnlessEmpty(report, what + ", files: ", stage.whatIsBroken(newTexts()));
    }
}

struct Row {
    FlatCall const& m_Call;
    bool m_IsWarm;
    Mode m_Mode;

    [[nodiscard]] std::string key() const {
        return std::string(m_Call.m_Name) + ", " + (m_IsWarm ? "warm" : "cold") + ", " +
               (m_Mode == Mode::kOnce ? "once" : "from there");
    }
};

std::string joined(std::set<std::string> const& codes) {
    std::string text;
    for (std::string const& code : codes) {
        text += (text.empty() ? "" : " ") + code;
    }
    return text;
}

/// Fails the allocations of a row and returns the codes. Fails the test at every run that went wrong.
std::set<std::string> codesOf(Row const& row, std::string const& directory, std::string const& allowed) {
    Report const whole = inIsolation([&](Report& report) { failOne(row.m_Call, directory, row.m_IsWarm, {}, report); });
    // A key generation needs more attempts at one time than at another.
    long const count = whole.m_Count + whole.m_Count / 4 + 16;
    long const samples = row.m_IsWarm ? kWarmSamples : kColdSamples;
    long const step = wantsAll() ? 1 : count / samples + 1;
    std::set<std::string> codes;
    int complaints = 0;
    std::map<std::string, int> byCode;
    auto const look = [&](long number, Report const& report) {
        if (report.m_Finished && !report.m_Reached) {
            EXPECT_EQ(codeText(report.m_Code), codeText(row.m_Call.m_Code)) << row.key() << ", without a fault";
            EXPECT_STREQ(report.m_Text, "") << row.key() << ", without a fault";
            return;
        }
        std::string const code = codeText(report.m_Code);
        bool const isStuck = report.m_Count == kStuck;
        bool const isWrong =
            report.m_Text[0] != '\0' || !isAllowed(code, allowed) || (isStuck && !isAllowed(kStuckText, allowed));
        complaints += isWrong ? 1 : 0;
        if (isWrong && ++byCode[code] <= kMaxComplaints) {
            ADD_FAILURE() << row.key() << ", allocation " << number << ": " << code << "\n"
                          << report.m_Text << "  after\n"
                          << report.m_Stack;
        }
        if (report.m_Finished) {
            codes.insert(code);
        }
        if (isStuck) {
            codes.insert(kStuckText);
        }
    };
    auto const run = [&](long number, Report& report) {
        failOne(row.m_Call, directory, row.m_IsWarm, {number, row.m_Mode}, report);
        if (report.m_Count == kStuck) {
            callAll(directory, report);
        }
    };
    if (row.m_IsWarm) {
        manyInIsolation(0, step, count / step + 1, run, look);
    } else {
        for (long number = 0; number < count; number += step) {
            Report const report = inIsolation([&](Report& r) { run(number, r); });
            look(number, report);
            if (report.m_Finished && !report.m_Reached) {
                break;
            }
        }
    }
    if (complaints > 0) {
        ADD_FAILURE() << row.key() << ": " << complaints << " runs went wrong";
    }
    return codes;
}

/// The life of a process that serves over TLS.
void serveTls(TlsOptions const& options, std::function<void(std::uint16_t)> const& isReady) {
    TlsServer const tls([](Peer& peer) { peer.send(httpResponse(bodyFor(peer.receiveRequest()))); }, options);
    isReady(tls.port());
    for (;;) {
        ::pause();
    }
}

/// All rows whose calls have a name that `matches`.
void failAllocations(bool isWarm, Mode mode) {
    ExpectedTable const table(kTable);
    TemporaryDirectory const root;
    std::string const trustFile = root.file("trusted.pem");
    SideProcess const server([](auto const& isReady) { serveTls({}, isReady); });
    SideProcess const trusted([&](auto const& isReady) {
        CertificateOptions options;
        options.m_Hosts = "IP:127.0.0.1";
        TlsIdentity const identity(options);
        std::ofstream(trustFile) << identity.certificatePem();
        TlsOptions peer;
        peer.m_Identity = &identity;
        serveTls(peer, isReady);
    });
    setTlsServers({server.port(), trusted.port(), trustFile});
    char const* const only = std::getenv("KVX_FAULTS_ONLY");
    std::vector<std::pair<std::string, std::string>> rows;
    for (FlatCall const& call : flatCalls()) {
        if (only != nullptr && std::string(call.m_Name).find(only) == std::string::npos) {
            continue;
        }
        Row const row = {call, isWarm, mode};
        std::string const wanted = table.find(row.key());
        std::set<std::string> const codes = codesOf(row, root.file("account"), wanted);
        rows.emplace_back(row.key(), codes.empty() ? "none" : joined(codes));
        EXPECT_EQ(codes.empty(), wanted == "none") << row.key();
    }
    writeTable(std::string("allocations_") + (isWarm ? "warm" : "cold") + (mode == Mode::kOnce ? "_once" : "_from"),
               rows);
}

}  // namespace

TEST(FailingAllocations, AloneInAFirstCall) {
    failAllocations(false, Mode::kOnce);
}

TEST(FailingAllocations, FromThereOnInAFirstCall) {
    failAllocations(false, Mode::kFromThere);
}

TEST(FailingAllocations, AloneInALaterCall) {
    failAllocations(true, Mode::kOnce);
}

TEST(FailingAllocations, FromThereOnInALaterCall) {
    failAllocations(true, Mode::kFromThere);
}
