// ledger_driver STORE ACCOUNT KILL_AT COMMAND [ARGUMENT]: one process of a shop, for tests that race and kill
// processes.
//
//   begin NUMBER    prints the payment URL
//   confirm FILE    confirms the pairs of lines in FILE, DATA and SIGNATURE, and prints outcome and number of each
//   run             works until nothing is due, with leases that have run out at once
//   run-leased      works until nothing is due
//   renew URL       renews the merchant's key, and prints what has become of it
//
// At the KILL_AT-th point, counted from 1, the process kills itself; 0: never. "renew" has further points: each of the
// component's calls that change a file or use the network.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "foundation/tbsystem.h"
#include "ledger/testpoints.h"
#include "tallowin/ledger.h"

namespace {

long s_Remaining = 0;

void countPoint() {
    if (--s_Remaining == 0) {
        static_cast<void>(std::fflush(stdout));
        static_cast<void>(std::raise(SIGKILL));
    }
}

/// Makes the component's calls that change files or use the network points, before they happen.
void countSystemCalls() {
    static TbSystemCalls const s_Real = tbSystem();
    TbSystemCalls& calls = tbSystem();
    calls.write = [](int file, void const* bytes, std::size_t count) {
        return countPoint(), s_Real.write(file, bytes, count);
    };
    calls.fsync = [](int file) { return countPoint(), s_Real.fsync(file); };
    calls.rename = [](char const* from, char const* to) { return countPoint(), s_Real.rename(from, to); };
    calls.mkdir = [](char const* path, mode_t mode) { return countPoint(), s_Real.mkdir(path, mode); };
    calls.send = [](int socket, void const* bytes, std::size_t count, int flags) {
        return countPoint(), s_Real.send(socket, bytes, count, flags);
    };
    calls.recv = [](int socket, void* bytes, std::size_t count, int flags) {
        return countPoint(), s_Real.recv(socket, bytes, count, flags);
    };
}

int fail(char const* what, std::int32_t code) {
    char reason[500] = "";
    std::int32_t size = sizeof reason;
    static_cast<void>(Ledger_GetLastErrorText(&size, reason));
    std::fprintf(stderr, "%s: 0x%08x %s\n", what, static_cast<unsigned>(code), reason);
    return 1;
}

int begin(KVX_HANDLE ledger, char const* number) {
    constexpr std::size_t kMaxUrl = 8000;
    KVX_HANDLE order = nullptr;
    char url[kMaxUrl] = "";
    std::int32_t size = sizeof url;
    std::int32_t code = Ledger_CreateOrder(ledger, number, "12.50", "EUR", &order);
    for (char const* link : {"SUCCESSLINK", "FAILLINK", "BACKLINK"}) {
        code = code == KVX_OK ? LedgerOrder_SetAttribute(order, link, "http://shop.example/back") : code;
    }
    code = code == KVX_OK ? LedgerOrder_Begin(order, &size, url) : code;
    DestroyLedgerOrder(order);
    if (code != KVX_OK) {
        return fail("begin", code);
    }
    std::puts(url);
    return 0;
}

int confirm(KVX_HANDLE ledger, char const* file) {
    std::ifstream lines(file);
    std::string data;
    std::string signature;
    while (std::getline(lines, data) && std::getline(lines, signature)) {
        std::int32_t outcome = -1;
        char number[KVX_LEDGER_NUMBER_SIZE] = "";
        std::int32_t size = sizeof number;
        std::int32_t const code =
            Ledger_Confirm(ledger, "driver", data.c_str(), signature.c_str(), &outcome, &size, number);
        if (code != KVX_OK) {
            return fail("confirm", code);
        }
        std::printf("%s %s\n", Ledger_GetOutcomeName(outcome), number);
        static_cast<void>(std::fflush(stdout));
    }
    return 0;
}

int run(KVX_HANDLE ledger) {
    std::int32_t done = -1;
    while (done != 0) {
        std::int32_t const code = Ledger_RunDue(ledger, 10, &done);
        if (code != KVX_OK) {
            return fail("run", code);
        }
    }
    return 0;
}

int renew(KVX_HANDLE ledger, char const* url) {
    std::int32_t outcome = -1;
    std::int32_t const code = Ledger_RenewKeys(ledger, url, "demo", "demo", &outcome);
    std::printf("%d\n", outcome);
    return code == KVX_OK ? 0 : fail("renew", code);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fputs("usage: ledger_driver STORE ACCOUNT KILL_AT COMMAND [ARGUMENT]\n", stderr);
        return 2;
    }
    KVX_HANDLE const ledger = CreateLedger();
    char const* const options[][2] = {
        {"STATUSTYPE", "Status"}, {"SETTLESECONDS", "0"}, {"RETRYBASE", "0"}, {"COMPLETE", "1"}};
    for (auto const& option : options) {
        static_cast<void>(Ledger_SetOption(ledger, option[0], option[1]));
    }
    if (std::strcmp(argv[4], "run") == 0) {
        static_cast<void>(Ledger_SetOption(ledger, "LEASESECONDS", "0"));
    }
    s_Remaining = std::strtol(argv[3], nullptr, 10);
    ledger::g_TestPoint = [](ledger::TestPoint point) {
        // Before a transaction nothing differs from after the one before it.
        if (point != ledger::TestPoint::kBeforeChange) {
            countPoint();
        }
    };
    std::int32_t const code = Ledger_Open(ledger, argv[1], argv[2]);
    if (code != KVX_OK) {
        return fail("open", code);
    }
    char const* const argument = argc > 5 ? argv[5] : "";
    int status = 2;
    if (std::strcmp(argv[4], "begin") == 0) {
        status = begin(ledger, argument);
    } else if (std::strcmp(argv[4], "confirm") == 0) {
        status = confirm(ledger, argument);
    } else if (std::strncmp(argv[4], "run", 3) == 0) {
        status = run(ledger);
    } else if (std::strcmp(argv[4], "renew") == 0) {
        countSystemCalls();
        status = renew(ledger, argument);
    }
    DestroyLedger(ledger);
    return status;
}
