// Readers beside a process that rewrites what they read: no reading is torn.
//
// Documents and key files of many lengths replace each other; each tells its own length and holds one letter only. The
// readers go on until both numbers are reached: KVX_READS readings (20,000 unless set; the full form is 1,000,000) and
// a hundredth as many rewritings.

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tests/core/crashsupport.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

constexpr std::size_t kReaders = 2;
constexpr std::size_t kLetters = 26;

/// Lengths from an empty attribute to many of the chunks that files are read in.
std::string documentNumber(std::size_t number) {
    std::size_t const length = number * 7919 % 40000;
    return "<KVX LENGTH=\"" + std::to_string(length) + "\" FILL=\"" +
           std::string(length, static_cast<char>('a' + number % kLetters)) + "\"/>";
}

bool isTorn(std::string const& document) {
    std::size_t const begin = document.find("FILL=\"");
    if (document.rfind("<KVX LENGTH=\"", 0) != 0 || begin == std::string::npos || document.size() < begin + 9) {
        return true;
    }
    std::string const fill = document.substr(begin + 6, document.size() - begin - 9);
    return document.substr(document.size() - 3) != "\"/>" ||
           std::to_string(fill.size()) != document.substr(13, begin - 15) ||
           (!fill.empty() && fill.find_first_not_of(fill[0]) != std::string::npos);
}

TEST(TornReads, AreRecognised) {
    for (std::size_t number = 0; number < 30; ++number) {
        std::string const document = documentNumber(number);
        EXPECT_FALSE(isTorn(document)) << document.substr(0, 40);
        for (std::size_t length = 0; length < document.size(); length += 1 + length / 8) {
            EXPECT_TRUE(isTorn(document.substr(0, length))) << length;
        }
        std::string const next = documentNumber(number + 1);
        EXPECT_TRUE(isTorn(document.substr(0, document.size() / 2) + next.substr(next.size() / 2))) << number;
    }
}

TEST(TornReads, DoNotHappenBesideARewriter) {
    std::size_t const wanted = numberFrom("KVX_READS", 20000);
    Account account;
    account.write("config.xml", documentNumber(0));
    void* const memory =
        ::mmap(nullptr, sizeof(std::atomic<std::size_t>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto& rewritten = *new (memory) std::atomic<std::size_t>(0);
    pid_t const writer = ::fork();
    if (writer == 0) {
        WithoutSync const fast;
        for (std::size_t number = 1;; ++number) {
            try {
                account.m_Context.UpdateFile("config.xml", documentNumber(number).c_str());
            } catch (...) {
                ::_exit(1);
            }
            rewritten = number;
        }
    }

    std::atomic<std::size_t> reads{0};
    std::atomic<std::size_t> torn{0};
    std::atomic<std::size_t> changes{0};
    std::vector<std::thread> readers;
    for (std::size_t i = 0; i < kReaders; ++i) {
        readers.emplace_back([&] {
            KVX_Context context;
            context.Open(account.path());
            std::string last;
            while (torn == 0 && (reads < wanted || rewritten < wanted / 100) && ::kill(writer, 0) == 0) {
                TbString value;
                std::string const document = context.QueryValue("config.xml", "", value) ? bytesOf(value) : "";
                ++reads;
                torn += isTorn(document) ? 1 : 0;
                changes += document != last ? 1 : 0;
                last = document;
            }
        });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    int status = 0;
    EXPECT_EQ(::waitpid(writer, &status, WNOHANG), 0) << "the writer ended by itself";
    ::kill(writer, SIGKILL);
    ::waitpid(writer, &status, 0);
    EXPECT_EQ(torn, 0U);
    EXPECT_GE(reads, wanted);
    EXPECT_GE(rewritten, wanted / 100);
    EXPECT_GT(changes, kReaders) << "the readers saw no rewriting";
    RecordProperty("reads", std::to_string(reads));
    RecordProperty("rewritings", std::to_string(rewritten));
    RecordProperty("changes seen", std::to_string(changes));
    ::munmap(memory, sizeof rewritten);
}

}  // namespace
