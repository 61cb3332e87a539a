// A guard on descriptors, captured output, a fake connection and addresses.
//
// The guard joins the test program when this file is linked: each test must end with as many descriptors as it began
// with. The fake connection delivers a text in chunks of a chosen size.

#include "tests/net/netsupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iterator>
#include <stdexcept>

#include "tests/support/processes.h"
#include "tests/support/tbtext.h"

namespace kvxtest {

namespace {

class DescriptorGuard : public testing::EmptyTestEventListener {
    void OnTestStart(testing::TestInfo const&) override { m_Before = countDescriptors(); }

    void OnTestEnd(testing::TestInfo const& test) override {
        if (!test.result()->Failed()) {
            EXPECT_EQ(countDescriptors(), m_Before) << "descriptors left open";
        }
    }

    std::size_t m_Before = 0;
};

class DescriptorEnvironment : public testing::Environment {
    void SetUp() override { testing::UnitTest::GetInstance()->listeners().Append(new DescriptorGuard); }
};

// The framework owns and deletes both.
[[maybe_unused]] testing::Environment* const kGEnvironment =
    testing::AddGlobalTestEnvironment(new DescriptorEnvironment);

}  // namespace

CapturedOutput::CapturedOutput(Stream stream)
    : m_Descriptor(stream == Stream::kOutput ? STDOUT_FILENO : STDERR_FILENO), m_Original(-1), m_File(-1) {
    std::fflush(stdout);
    std::fflush(stderr);
    std::string pattern = (std::filesystem::temp_directory_path() / "kvxtest-XXXXXX").string();
    m_File = ::mkstemp(pattern.data());
    if (m_File == -1) {
        throw std::runtime_error("cannot make a file from " + pattern);
    }
    ::unlink(pattern.c_str());
    m_Original = ::dup(m_Descriptor);
    ::dup2(m_File, m_Descriptor);
}

CapturedOutput::~CapturedOutput() {
    if (m_Original != -1) {
        ::dup2(m_Original, m_Descriptor);
        ::close(m_Original);
    }
    ::close(m_File);
}

std::string CapturedOutput::text() {
    ::dup2(m_Original, m_Descriptor);
    ::close(m_Original);
    m_Original = -1;
    std::string all;
    char buffer[4096];
    ::lseek(m_File, 0, SEEK_SET);
    for (ssize_t count = ::read(m_File, buffer, sizeof buffer); count > 0;
         count = ::read(m_File, buffer, sizeof buffer)) {
        all.append(buffer, static_cast<std::size_t>(count));
    }
    return all;
}

void FakeConnection::respond(std::string const& text, std::size_t chunk) {
    for (std::size_t at = 0; at < text.size(); at += chunk) {
        m_Chunks.push_back(text.substr(at, chunk));
    }
}

std::int32_t FakeConnection::Read(TbStringStream& into) {
    if (m_Chunks.empty()) {
        return m_AfterLast;
    }
    std::string const chunk = m_Chunks.front();
    m_Chunks.pop_front();
    into.put(chunk.c_str());
    return static_cast<std::int32_t>(chunk.size());
}

std::int32_t FakeConnection::Write(TbStringStream& from) {
    m_Written += bytesOf(from);
    return m_WriteResult;
}

void OpenSession::enter(int state, KVX_Connection* connection) {
    m_State = state;
    m_Connection.reset(connection);
}

std::string plainUrl(RawServer const& server, std::string const& path) {
    return "http://127.0.0.1:" + server.portText() + path;
}

std::string secureUrl(RawServer const& server, std::string const& path) {
    return "https://127.0.0.1:" + server.portText() + path;
}

sockaddr_in addressOf(RawServer const& server) {
    return addressOf(server.portText());
}

sockaddr_in addressOf(std::string const& port) {
    sockaddr_in address = {};
    EXPECT_EQ(MakeHostAddr("127.0.0.1", stringOf(port), generic(address)), KVX_OK);
    return address;
}

void endConnection(KVX_Connection& connection) {
    EXPECT_EQ(connection.Disconnect(), KVX_OK);
    int const socket = connection.Detach();
    if (socket != -1) {
        ::close(socket);
    }
}

bool isSigPipePending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

bool isSigPipeBlocked() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
}

PendingSigPipe::PendingSigPipe() {
    sigemptyset(&m_Pipe);
    sigaddset(&m_Pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &m_Pipe, &m_Before);
    pthread_kill(pthread_self(), SIGPIPE);
}

PendingSigPipe::~PendingSigPipe() {
    timespec const now = {};
    EXPECT_EQ(sigtimedwait(&m_Pipe, nullptr, &now), SIGPIPE);
    pthread_sigmask(SIG_SETMASK, &m_Before, nullptr);
}

}  // namespace kvxtest
