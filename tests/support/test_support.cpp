#include "tests/support/test_support.h"

#include <pthread.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "foundation/tbmemory.h"

namespace kvxtest {

namespace {

std::atomic<long> g_Asked{0};
std::atomic<long> g_Failing{-1};
std::atomic<bool> g_AllFromThere{false};
std::vector<TraceRecorder::Record> g_Records;

bool gate(std::size_t) {
    long const number = g_Asked++;
    return g_AllFromThere ? number < g_Failing : number != g_Failing;
}

void sink(char const* file, long line, long code, TbString const& event, TbString const& detail) {
    g_Records.push_back({file, line, static_cast<std::int32_t>(code), event.c_str(), detail.c_str()});
}

}  // namespace

std::int32_t thrownCode(std::function<void()> const& call) {
    try {
        call();
    } catch (KVX_Exception const& failure) {
        return failure.code();
    } catch (TBFC_Exception const& failure) {
        return failure.code();
    }
    return 0;
}

Thrown thrown(std::function<void()> const& call) {
    try {
        call();
    } catch (KVX_Exception const& failure) {
        return {failure.code(), bytesOf(failure.text()), bytesOf(failure.file()), failure.line()};
    }
    return {};
}

std::string bytesOf(TbString const& text) {
    return {text.c_str(), text.length()};
}

TbString stringOf(std::string const& bytes) {
    TbString text("");
    text.append(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    return text;
}

FailingAllocation::FailingAllocation(long failing, Mode mode) {
    g_Asked = 0;
    g_Failing = failing;
    g_AllFromThere = mode == Mode::kAllFromThere;
    tbSetAllocationGate(&gate);
}

FailingAllocation::~FailingAllocation() {
    tbSetAllocationGate(nullptr);
}

long FailingAllocation::asked() {
    return g_Asked;
}

long survivesEveryFailingAllocation(std::function<void()> const& call) {
    constexpr long kMostRuns = 100000;
    for (long run = 0; run < kMostRuns; ++run) {
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        bool reached = false;
        try {
            FailingAllocation const failing(run, FailingAllocation::Mode::kAllFromThere);
            call();
            reached = FailingAllocation::asked() > run;
        } catch (TBFC_Exception const& failure) {
            EXPECT_EQ(failure.code(), KVX_E_OUT_OF_MEMORY) << "allocation " << run;
            reached = true;
        }
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << "objects left behind by failing allocation " << run;
        if (!reached) {
            return run;
        }
    }
    ADD_FAILURE() << "no end after " << kMostRuns << " runs";
    return kMostRuns;
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kvxtest-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a directory from " + pattern);
    }
    m_Path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

void TempDir::write(std::string const& name, std::string const& content) const {
    std::filesystem::path const target(file(name));
    std::filesystem::create_directories(target.parent_path());
    std::ofstream out(target, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + target.string());
    }
}

std::string TempDir::read(std::string const& name) const {
    std::ifstream in(file(name), std::ios::binary);
    EXPECT_TRUE(in.is_open()) << "cannot read " << name;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool TempDir::exists(std::string const& name) const {
    return std::filesystem::exists(file(name));
}

TraceRecorder::TraceRecorder() {
    g_Records.clear();
    KVX_SetTraceSink(&sink);
}

TraceRecorder::~TraceRecorder() {
    KVX_SetTraceSink(nullptr);
}

std::vector<TraceRecorder::Record> const& TraceRecorder::records() const {
    return g_Records;
}

std::vector<TraceRecorder::Record> TraceRecorder::of(std::string const& event) const {
    std::vector<Record> found;
    for (Record const& record : g_Records) {
        if (record.m_Event == event) {
            found.push_back(record);
        }
    }
    return found;
}

void onStackOf(std::size_t stackBytes, std::function<void()> const& call) {
    struct Work {
        std::function<void()> const& m_Call;
        std::exception_ptr m_Failure;
    } work{call, nullptr};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, stackBytes), 0);
    pthread_t thread;
    int const started = pthread_create(
        &thread, &attributes,
        [](void* argument) -> void* {
            auto* const todo = static_cast<Work*>(argument);
            try {
                todo->m_Call();
            } catch (...) {
                todo->m_Failure = std::current_exception();
            }
            return nullptr;
        },
        &work);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(started, 0);
    pthread_join(thread, nullptr);
    if (work.m_Failure) {
        std::rethrow_exception(work.m_Failure);
    }
}

std::size_t countDescriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

int inChildProcess(std::function<int()> const& call) {
    pid_t const child = ::fork();
    if (child == 0) {
        int status = 99;
        try {
            status = call();
        } catch (...) {
            // The status tells.
        }
        ::_exit(status);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::uint64_t testSeed() {
    char const* const given = std::getenv("KVX_TEST_SEED");
    return given == nullptr ? 20240131U : std::strtoull(given, nullptr, 10);
}

}  // namespace kvxtest
