// What runs around fork(): the registration of functions with the C library, and the gate that keeps forks out.
//
// Registrations hold for the life of a process, so each test makes them in a process of its own. The program defines
// the C library's registration function again, so that a test forks in the middle of a registration, or refuses it.

#include "foundation/tbfork.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "foundation/tbforkgate.h"
#include "tests/support/processes.h"
#include "tests/support/worker.h"

using namespace kvxtest;

namespace {

/// A process that takes longer waits for a lock that nobody opens.
constexpr std::chrono::seconds kLimit{60};

using Register = int (*)(void (*before)(), void (*inParent)(), void (*inChild)(), void* object);

/// Stands in front of the C library's function, which it receives and may call; null: only that one is called.
int (*g_InFront)(Register original, void (*before)(), void (*inParent)(), void (*inChild)(), void* object) = nullptr;

int g_Before = 0;
int g_InParent = 0;
int g_InChild = 0;

void countBefore() {
    ++g_Before;
}
void countInParent() {
    ++g_InParent;
}
void countInChild() {
    ++g_InChild;
}

using Handlers = TbForkHandlers<countBefore, countInParent, countInChild>;

/// Forks once. How often each function ran for it, a decimal digit each: before, in the parent, in the child.
int runsAroundOneFork() {
    g_Before = 0;
    g_InParent = 0;
    g_InChild = 0;
    int const inChild = inChildProcess([] { return g_InChild; }, kLimit);
    return 100 * g_Before + 10 * g_InParent + inChild;
}

/// Forks; the child registers, and its exit status is what runsAroundOneFork() gives there. Returns that status.
int runsInAChildThatRegisters() {
    g_InFront = nullptr;
    pid_t const child = ::fork();
    if (child == 0) {
        Handlers::ensure();
        ::_exit(runsAroundOneFork());
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int g_InMiddle = 0;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own name
extern "C" int __register_atfork(void (*before)(), void (*inParent)(), void (*inChild)(), void* object);

extern "C" int __register_atfork(void (*before)(), void (*inParent)(), void (*inChild)(), void* object) {
    auto const original = reinterpret_cast<Register>(::dlsym(RTLD_NEXT, "__register_atfork"));
    return g_InFront == nullptr ? original(before, inParent, inChild, object)
                                : g_InFront(original, before, inParent, inChild, object);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

TEST(TbForkHandlers, RunOnceAroundEveryForkHoweverOftenTheyAreEnsured) {
    int const runs = inChildProcess([] {
        Handlers::ensure();
        Handlers::ensure();
        return runsAroundOneFork() == 111 ? runsAroundOneFork() : 0;
    });
    EXPECT_EQ(runs, 111);
}

TEST(TbForkHandlers, RunOnceInAProcessThatWasForkedInTheMiddleOfTheRegistration) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own pthread_once() does not begin again after a fork";
#endif
    for (bool const isRegistered : {false, true}) {
        int const runs = inChildProcess([&] {
            if (isRegistered) {
                g_InFront = [](Register original, void (*before)(), void (*inParent)(), void (*inChild)(),
                               void* object) {
                    int const result = original(before, inParent, inChild, object);
                    g_InMiddle = runsInAChildThatRegisters();
                    return result;
                };
            } else {
                g_InFront = [](Register original, void (*before)(), void (*inParent)(), void (*inChild)(),
                               void* object) {
                    g_InMiddle = runsInAChildThatRegisters();
                    return original(before, inParent, inChild, object);
                };
            }
            Handlers::ensure();
            return runsAroundOneFork() == 111 ? g_InMiddle : 0;
        });
        EXPECT_EQ(runs, 111) << isRegistered;
    }
}

TEST(TbForkHandlers, LetForksGoOnWithoutThemWhereTheyCannotBeRegistered) {
    int const runs = inChildProcess([] {
        g_InFront = [](Register, void (*)(), void (*)(), void (*)(), void*) { return ENOMEM; };
        Handlers::ensure();
        Handlers::ensure();
        return runsAroundOneFork();
    });
    EXPECT_EQ(runs, 0);
}

TEST(TbForkGate, CountsOnceHoweverOftenItIsClosedAndOpened) {
    int const status = inChildProcess(
        [] {
            TbForkGate gate;
            gate.close();
            gate.open();
            gate.open();
            int const whileOpen = inChildProcess([] { return 7; }, kLimit);
            gate.close();
            gate.open();
            return whileOpen;
        },
        kLimit);
    EXPECT_EQ(status, 7) << "a gate that is closed twice is open after one opening";
}

TEST(TbForkGate, HoldsBackTheForksOfOtherThreads) {
    TbForkGate gate;
    pid_t child = -1;
    {
        Worker forking([&] {
            child = ::fork();
            if (child == 0) {
                ::_exit(0);
            }
        });
        EXPECT_TRUE(forking.blocks()) << "it has forked";
        gate.open();
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(TbForkGate, IsFreeInAChild) {
    int const status = inChildProcess(
        [] {
            { TbForkGate const gate; }
            return inChildProcess([] {
                TbForkGate const gate;
                return 7;
            });
        },
        kLimit);
    EXPECT_EQ(status, 7);
}

}  // namespace
