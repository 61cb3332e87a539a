// The log: what asks for it, what a line holds, rotation, and that it never fails a call.
//
// Each test forgets the requests of the one before, because the environment is read once in a process.

#include "core/kvxlog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/kvxbase.h"
#include "core/kvxctx.h"
#include "core/kvxctx_settings.h"
#include "core/kvxreason.h"
#include "tests/support/allocations.h"
#include "tests/support/directories.h"
#include "tests/support/systemcalls.h"

using namespace kvxtest;

namespace {

std::vector<std::string> linesOf(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool exists(std::string const& path) {
    struct ::stat status = {};
    return ::stat(path.c_str(), &status) == 0;
}

class Log : public testing::Test {
protected:
    Log() { forget(); }
    ~Log() override { forget(); }

    void request(std::string const& path, char const* bytes = nullptr) {
        kvxForgetLogRequests();
        ::setenv("KVXLOG", path.c_str(), 1);
        if (bytes != nullptr) {
            ::setenv("KVXLOGSIZE", bytes, 1);
        }
    }

    static void trace(std::string const& detail) { KVX_TraceLog::Write("source", 7, 0, "EVENT", detail.c_str()); }

    [[nodiscard]] std::string content() const { return exists(m_File) ? contentOf(m_File) : ""; }

    TemporaryDirectory m_Directory;
    std::string m_File = m_Directory.path() + "/log";

private:
    static void forget() {
        ::unsetenv("KVXLOG");
        ::unsetenv("KVXLOGSIZE");
        kvxForgetLogRequests();
    }
};

TEST_F(Log, IsOffByDefault) {
    SystemCalls calls;
    calls->open = [](char const*, int, mode_t) {
        ADD_FAILURE();
        return -1;
    };
    trace("x");
    EXPECT_FALSE(kvxLogIsOn());
    kvxRecordFailure(KVX_E_BAD_HANDLE);
    EXPECT_FALSE(exists(m_File));
}

TEST_F(Log, HasALineForEachTraceRecordAndFailure) {
    request(m_File);
    trace("detail");
    KVX_TraceLog::Write("kvxhttp", 338, KVX_E_HTTP_NAME_LOOKUP, "DNS LOOKUP", "failed to lookup host");
    KVX_TraceLog::Write("kvxctx", 516, 0, "START RECONFIGURE", "");
    kvxRecordFailure(KVX_E_BAD_HANDLE);
    kvxRecordFailure(KVX_E_BUFFER_TOO_SMALL);  // a question for the size
    kvxRecordFailure(KVX_Exception(KVX_E_SERVER_ERROR, "no such account", "kvxctx", 348));
    std::vector<std::string> const lines = linesOf(content());
    std::string const head = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )" + std::to_string(::getpid()) + "/\\d+ ";
    char const* const expected[] = {
        R"(TRACE source\(7\) EVENT detail)",
        R"(TRACE kvxhttp\(338\) DNS LOOKUP 0x80042021 failed to lookup host)",
        R"(TRACE kvxctx\(516\) START RECONFIGURE)",
        R"(FAILURE 0x80040216 KVX_E_BAD_HANDLE ErrorCode = 0x80040216: the handle is null, destroyed or of another kind)",
        R"(TRACE kvxctx\(348\) EXCEPTION 0x80040213 the request failed \(no such account\))",
        R"(FAILURE 0x80040213 KVX_E_SERVER_ERROR the request failed \(no such account\))",
    };
    ASSERT_EQ(lines.size(), std::size(expected)) << content();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_TRUE(std::regex_match(lines[i], std::regex(head + expected[i]))) << lines[i];
    }
    struct ::stat status = {};
    ASSERT_EQ(::stat(m_File.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U & ~::umask(::umask(0))) << "its owner's alone";
}

TEST_F(Log, LeavesSecretsOutAndReplacesControlCharacters) {
    request(m_File);
    TbString secret("Sesame");
    secret.keepSecret();
    KVX_TraceLog::Write("source", 7, 0, "EVENT", secret);
    trace("two\nlines\tand\x7Fmore");
    kvxRecordFailure(KVX_Exception(KVX_E_SERVER_ERROR, secret, "kvxctx", 348));
    EXPECT_EQ(content().find("Sesame"), std::string::npos) << content();
    EXPECT_NE(content().find("EVENT (not shown)\n"), std::string::npos);
    EXPECT_NE(content().find("EVENT two?lines?and?more\n"), std::string::npos);
    EXPECT_EQ(linesOf(content()).size(), 4U);
}

TEST_F(Log, CutsLongLines) {
    request(m_File);
    trace(std::string(100000, 'x'));
    trace("next");
    std::vector<std::string> const lines = linesOf(content());
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].size(), 1999U);
}

TEST_F(Log, IsRenamedWhenItIsFull) {
    request(m_File, "1000");
    for (int i = 0; i < 100; ++i) {
        trace("line " + std::to_string(i));
        EXPECT_LT(content().size(), 1100U);
    }
    std::string const all = contentOf(m_File + ".1") + content();
    EXPECT_GE(contentOf(m_File + ".1").size(), 1000U);
    EXPECT_NE(content().find("line 99\n"), std::string::npos);
    for (std::string const& line : linesOf(all)) {
        EXPECT_NE(line.find("TRACE source(7) EVENT line "), std::string::npos) << line;
    }
    EXPECT_FALSE(exists(m_File + ".2"));
}

TEST_F(Log, IsNeverRenamedWithoutALimit) {
    request(m_File, "0");
    for (int i = 0; i < 100; ++i) {
        trace("line");
    }
    EXPECT_EQ(linesOf(content()).size(), 100U);
    EXPECT_FALSE(exists(m_File + ".1"));
}

TEST_F(Log, TakesWholeLinesOfThreadsAndProcesses) {
    constexpr int kEach = 200;
    request(m_File, "20000");  // some renaming on the way
    auto const writeAll = [](char const* who) {
        for (int i = 0; i < kEach; ++i) {
            trace(std::string(who) + std::to_string(i) + "end");
        }
    };
    pid_t const child = ::fork();
    if (child == 0) {
        std::thread other([&] { writeAll("c"); });
        writeAll("d");
        other.join();
        ::_exit(0);
    }
    std::thread other([&] { writeAll("a"); });
    writeAll("b");
    other.join();
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    std::regex const whole(R"(\S+ \d+/\d+ TRACE source\(7\) EVENT [abcd]\d+end)");
    for (std::string const& line : linesOf(contentOf(m_File + ".1") + content())) {
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    }
}

// Nothing but the request itself orders the two threads: what one has read of the environment, the other must see.
TEST_F(Log, OfTheEnvironmentIsKnownToThreadsThatHaveNotReadIt) {
    request(m_File);
    std::atomic<bool> hasRead{false};
    std::thread other([&] {
        while (!hasRead.load(std::memory_order_relaxed)) {
            std::this_thread::yield();
        }
        kvxLogFailure(kvxLogIsOn() ? 2 : 1, "");
    });
    EXPECT_TRUE(kvxLogIsOn());
    hasRead.store(true, std::memory_order_relaxed);
    other.join();
    EXPECT_NE(content().find("FAILURE 0x00000002"), std::string::npos) << content();
}

TEST_F(Log, OfAnotherNameIsFollowed) {
    request(m_File);
    trace("first");
    ASSERT_EQ(::rename(m_File.c_str(), (m_File + ".old").c_str()), 0);  // as logrotate does
    trace("second");
    EXPECT_NE(contentOf(m_File + ".old").find("first"), std::string::npos);
    EXPECT_NE(content().find("second"), std::string::npos);
}

TEST_F(Log, ThatCannotBeWrittenIsLostAndNothingElse) {
    struct Row {
        char const* m_What;
        std::string m_Path;
    };
    ASSERT_EQ(::mkfifo((m_Directory.path() + "/pipe").c_str(), 0600), 0);
    for (Row const& row : {Row{"a missing directory", m_Directory.path() + "/missing/log"},
                           Row{"a directory", m_Directory.path()}, Row{"a pipe", m_Directory.path() + "/pipe"},
                           Row{"a device", "/dev/full"}, Row{"a long path", "/" + std::string(5000, 'x')}}) {
        request(row.m_Path);
        errno = 4711;
        trace("x");
        kvxRecordFailure(KVX_E_BAD_HANDLE);
        EXPECT_EQ(errno, 4711) << row.m_What;
    }
}

TEST_F(Log, OnAFullDiskIsLostAndGoesOnWithAWholeLine) {
    request(m_File);
    trace("before");
    {
        SystemCalls calls;
        calls->write = [](int, void const*, std::size_t) -> ssize_t {
            errno = ENOSPC;
            return -1;
        };
        errno = 0;
        trace("lost");
        EXPECT_EQ(errno, 0);
    }
    {
        SystemCalls calls;
        calls->write = [](int file, void const* data, std::size_t) { return ::write(file, data, 10); };
        trace("torn");
    }
    trace("after");
    trace("last");
    std::vector<std::string> const lines = linesOf(content());
    ASSERT_EQ(lines.size(), 4U) << content();
    EXPECT_EQ(lines[1].size(), 10U);
    EXPECT_NE(lines[2].find("EVENT after"), std::string::npos);
    EXPECT_NE(lines[3].find("EVENT last"), std::string::npos);
}

TEST_F(Log, NeedsNoMemoryForTheEnvironmentsRequest) {
    request(m_File);
    TbString const detail("detail");
    TbString const event("EVENT");
    FailingAllocation const none(0, FailingAllocation::Mode::kAllFromThere);
    KVX_TraceLog::Write("source", 7, 0, event, detail);
    EXPECT_EQ(FailingAllocation::requested(), 0);
}

/// What `write` writes to standard error, which is a pipe meanwhile.
template <class Write>
std::string onStandardError(Write write, bool hasReader = true) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    int const before = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
    if (!hasReader) {
        ::close(ends[0]);
    }
    write();
    ::dup2(before, STDERR_FILENO);
    ::close(before);
    char text[4096] = {};
    ssize_t const length = hasReader ? ::read(ends[0], text, sizeof text) : 0;
    if (hasReader) {
        ::close(ends[0]);
    }
    return {text, static_cast<std::size_t>(length < 0 ? 0 : length)};
}

TEST_F(Log, MayBeStandardError) {
    request("-");
    EXPECT_NE(onStandardError([] { trace("here"); }).find("TRACE source(7) EVENT here\n"), std::string::npos);
}

TEST_F(Log, NeverWaitsForAReaderAndNeverEndsTheProcess) {
    request("-");
    onStandardError([] { trace("nobody reads"); }, false);
    onStandardError([] {
        for (int i = 0; i < 1000; ++i) {
            trace(std::string(1000, 'x'));  // more than a pipe holds
        }
    });
}

TEST_F(Log, OfADirectoryIsAskedForBySettings) {
    TemporaryDirectory const other;
    m_Directory.write("settings.xml", R"(<KVX LOGFILE="own.log" LOGSIZE="5000"/>)");
    KVX_Context context;
    context.Open(m_Directory.path().c_str());
    TbString value;
    EXPECT_FALSE(exists(m_Directory.path() + "/own.log"));
    m_Directory.write("config.xml", R"(<KVX A="1"/>)");
    EXPECT_TRUE(context.QueryValue("config.xml", "A", value));  // reads the settings
    kvxRecordFailure(KVX_E_BAD_HANDLE);
    context.Open(m_Directory.path().c_str());
    std::string const log = contentOf(m_Directory.path() + "/own.log");
    EXPECT_NE(log.find("FAILURE 0x80040216"), std::string::npos) << log;
    EXPECT_NE(log.find("TRACE kvxctx(23) OPEN CONTEXT " + m_Directory.path()), std::string::npos) << log;

    context.Open(other.path().c_str());
    kvxRecordFailure(KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(contentOf(m_Directory.path() + "/own.log"), log) << "another directory has no log";

    context.Open(m_Directory.path().c_str());
    std::string const longer = contentOf(m_Directory.path() + "/own.log");
    EXPECT_GT(longer.size(), log.size());
    m_Directory.write("settings.xml", "<KVX/>");
    EXPECT_TRUE(context.QueryValue("config.xml", "A", value));
    kvxRecordFailure(KVX_E_OUT_OF_MEMORY);
    context.Open(m_Directory.path().c_str());
    EXPECT_EQ(contentOf(m_Directory.path() + "/own.log"), longer) << "the settings do not ask for it any more";
}

TEST_F(Log, OfTheEnvironmentTakesAllLines) {
    request(m_File);
    m_Directory.write("settings.xml", R"(<KVX LOGFILE="own.log"/>)");
    m_Directory.write("config.xml", R"(<KVX A="1"/>)");
    KVX_Context context;
    context.Open(m_Directory.path().c_str());
    TbString value;
    EXPECT_TRUE(context.QueryValue("config.xml", "A", value));
    kvxRecordFailure(KVX_E_BAD_HANDLE);
    EXPECT_NE(content().find("FAILURE"), std::string::npos);
    EXPECT_FALSE(exists(m_Directory.path() + "/own.log"));
}

TEST_F(Log, OfSettingsHasAFileAndASize) {
    auto const requestIn = [](char const* text) {
        KvxLogRequest log;
        static_cast<void>(kvxSettingsIn(text, log));
        return log;
    };
    EXPECT_EQ(requestIn("<KVX/>").m_Bytes, kKvxLogBytes);
    EXPECT_TRUE(requestIn("<KVX PROFILE=\"strict\"/>").m_File.isEmpty());
    EXPECT_EQ(requestIn(R"(<KVX LOGSIZE="1000"/>)").m_Bytes, 1000U);
    EXPECT_EQ(requestIn(R"(<KVX LOGSIZE="1 MB"/>)").m_Bytes, kKvxLogBytes);
    EXPECT_STREQ(requestIn(R"(<KVX LOGFILE="/var/log/shop.log"/>)").m_File.c_str(), "/var/log/shop.log");
}

}  // namespace
