// Receiving a response: how much is read at a time, the memory for it, and the text that the bytes become.
//
// The peer is a text that the replaced system call hands out. What one large read makes of it is compared with what as
// many small ones make of it, capacity included.

#include "net/kvxresponse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "net/kvxhttp.h"
#include "tests/net/netsupport.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"

using namespace kvxtest;

namespace {

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;

/// While it lives sockets receive `bytes`, as much as there is room for, then the end.
class ScriptedBytes {
public:
    explicit ScriptedBytes(std::string bytes) {
        s_Bytes = std::move(bytes);
        s_At = 0;
        s_Reads = 0;
        m_Calls->recv = [](int, void* buffer, std::size_t room, int) {
            std::size_t const count = std::min(room, s_Bytes.size() - s_At);
            std::memcpy(buffer, s_Bytes.data() + s_At, count);
            s_At += count;
            ++s_Reads;
            return static_cast<ssize_t>(count);
        };
    }

    static std::size_t taken() { return s_At; }
    static int reads() { return s_Reads; }

private:
    static inline std::string s_Bytes;
    static inline std::size_t s_At = 0;
    static inline int s_Reads = 0;

    SystemCalls m_Calls;
};

/// A text with zero bytes at these places.
std::string withZeros(std::size_t length, std::vector<std::size_t> const& places) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    for (std::size_t const place : places) {
        text.at(place) = '\0';
    }
    return text;
}

/// Reads all bytes of a peer, `most` at a time; 0: with the operation that takes one chunk.
void readAll(KVX_Connection& connection, TbStringStream& into, std::uint32_t most) {
    std::int32_t count = 1;
    while (count > 0) {
        count = most == 0 ? connection.Read(into) : connection.ReadUpTo(into, most);
    }
    EXPECT_EQ(count, 0);
}

TEST(ReadUpTo, MakesTheTextOfAsManyReads) {
    std::vector<std::size_t> all(3000);
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = i;
    }
    struct {
        char const* m_Name;
        std::string m_Bytes;
    } const rows[] = {
        {"nothing", ""},
        {"one byte", withZeros(1, {})},
        {"a chunk", withZeros(1024, {})},
        {"more than a chunk", withZeros(1025, {})},
        {"less than two", withZeros(2047, {})},
        {"many", withZeros(70000, {})},
        {"a zero first", withZeros(1500, {0})},
        {"a zero last", withZeros(1024, {1023})},
        {"a zero behind a chunk", withZeros(3000, {1024})},
        {"two in one chunk", withZeros(3000, {1100, 1200})},
        {"in several chunks", withZeros(9000, {5, 2048, 8999})},
        {"zeros alone", withZeros(3000, all)},
    };
    for (auto const& row : rows) {
        for (char const* const before : {"", "before ", static_cast<char const*>(nullptr)}) {
            SockConnection connection;
            TbStringStream expected;
            expected.put(before);
            {
                ScriptedBytes const peer(row.m_Bytes);
                readAll(connection, expected, 0);
            }
            for (std::uint32_t const most : {1024U, 2048U, 65536U, 131072U}) {
                TbStringStream text;
                text.put(before);
                ScriptedBytes const peer(row.m_Bytes);
                readAll(connection, text, most);
                EXPECT_EQ(bytesOf(text), bytesOf(expected)) << row.m_Name << ", " << most;
                EXPECT_EQ(text.capacity(), expected.capacity()) << row.m_Name << ", " << most;
                EXPECT_NE(text.buffer(), nullptr) << row.m_Name;
                EXPECT_FALSE(text.atEnd()) << row.m_Name;
            }
        }
    }
}

TEST(ReadUpTo, MakesTheTextOfAsManyReadsOverTls) {
    std::string const bytes = withZeros(50000, {3, 4096, 20000, 49999});
    TlsServer const server(bytes);
    std::string texts[2];
    for (std::uint32_t const most : {0U, 65536U}) {
        SslConnection connection;
        sockaddr_in address = addressOf(server);
        ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
        ASSERT_EQ(connection.Setup(), KVX_OK);
        TbStringStream request("\r\n\r\n");
        EXPECT_EQ(connection.Write(request), KVX_OK);
        TbStringStream text;
        readAll(connection, text, most);
        texts[most == 0 ? 0 : 1] = bytesOf(text);
        endConnection(connection);
    }
    EXPECT_LT(texts[0].size(), bytes.size());
    EXPECT_EQ(texts[1], texts[0]);
}

TEST(ReadUpTo, LeavesTheTextAloneWhenItFails) {
    SockConnection plain;
    SslConnection secure;
    for (KVX_Connection* const connection :
         {static_cast<KVX_Connection*>(&plain), static_cast<KVX_Connection*>(&secure)}) {
        TbStringStream text("before");
        std::uint32_t const capacity = text.capacity();
        EXPECT_EQ(connection->ReadUpTo(text, 65536), -1);
        EXPECT_EQ(connection->LastError(), KVX_E_SOCKET_FAMILY | (connection == &plain ? EBADF : 57));  // ENOTCONN
        EXPECT_EQ(bytesOf(text), "before");
        EXPECT_EQ(text.capacity(), capacity);
        TbStringStream empty;
        EXPECT_EQ(connection->ReadUpTo(empty, 65536), -1);
        EXPECT_EQ(bytesOf(empty), "");
        EXPECT_TRUE(empty.atEnd());
    }
}

TEST(ReadUpTo, ReadsOnceWhereAConnectionHasNothingElse) {
    FakeConnection connection;
    connection.respond("abcdef", 4);
    TbStringStream text;
    EXPECT_EQ(connection.ReadUpTo(text, 65536), 4);
    EXPECT_EQ(bytesOf(text), "abcd");
}

// How much is read at a time.

/// A response of `length` bytes that begins with `header`.
std::string responseOf(std::size_t length, std::string const& header) {
    std::string response = "HTTP/1.0 200 OK\r\n" + header + "\r\n";
    response.resize(length, 'x');
    return response;
}

TEST(ResponseRoom, ReadsASmallResponseAtOnce) {
    SockConnection connection;
    ScriptedBytes const peer(responseOf(3000, ""));
    TbStringStream text;
    KvxResponseRoom room(text, 0);
    AllocationMeter const meter;
    EXPECT_EQ(room.next(0), 4096U);
    EXPECT_EQ(connection.ReadUpTo(text, 4096), 3000);
    EXPECT_EQ(room.next(3000), 1024U);
    EXPECT_EQ(connection.ReadUpTo(text, 1024), 0);
    EXPECT_EQ(AllocationMeter::calls(), 1U);
    EXPECT_LT(AllocationMeter::bytes(), 4500U);
}

/// What a session that receives a response asks its allocator for.
struct Reception {
    std::uint64_t m_Allocations = 0;
    std::uint64_t m_Bytes = 0;
    int m_Reads = 0;
    std::int32_t m_Code = 0;
};

Reception receptionOf(std::string const& response, std::uint32_t maxResponse = 0) {
    KVX_RequestInfo request = requestFor("http://127.0.0.1/x");
    request.transfer.maxResponse = maxResponse;
    OpenSession session(request);
    session.enter(3, new SockConnection);
    ScriptedBytes const peer(response);
    AllocationMeter const meter;
    Reception reception;
    reception.m_Code = thrownCode([&] { session.ReceiveResponse(); });
    reception.m_Allocations = AllocationMeter::calls();
    reception.m_Bytes = AllocationMeter::bytes();
    reception.m_Reads = ScriptedBytes::reads();
    if (reception.m_Code == 0) {
        EXPECT_EQ(bytesOf(session.m_Response), response);
    }
    return reception;
}

TEST(ResponseRoom, BelievesAnAnnouncedLength) {
    std::size_t const length = kMebibyte / 2;
    for (char const* const name : {"Content-Length: ", "content-length:", "Server: x\r\nCONTENT-LENGTH: \t"}) {
        Reception const reception = receptionOf(responseOf(length, name + std::to_string(length) + "\r\n"));
        EXPECT_EQ(reception.m_Allocations, 2U) << name;
        EXPECT_LT(reception.m_Bytes, length + 20000) << name;
        EXPECT_LE(reception.m_Reads, 12) << name;
    }
}

TEST(ResponseRoom, BelievesNoMoreThanHasBeenShown) {
    struct {
        char const* m_Header;
        std::size_t m_Length;
        std::uint64_t m_MostBytes;
    } const rows[] = {
        {"Content-Length: 2147483647\r\n", 3000, 4500},  // one read is enough
        {"Content-Length: 2147483647\r\n", 5000, kMebibyte + 20000},
        {"Content-Length: 99999999999999999999\r\n", 5000, kMebibyte + 20000},
        {"Content-Length: 2147483647\r\n", kMebibyte + 100000, 20 * kMebibyte},
        {"Content-Length: -5\r\n", 5000, 80000},
        {"Content-Length: 0\r\n", 5000, 80000},
        {"Content-Length: none\r\n", 5000, 80000},
        {"Content-Length 100000\r\n", 5000, 80000},
        {"X-Content-Length: 100000\r\n", 5000, 80000},
        {"", 5000, 80000},
    };
    for (auto const& row : rows) {
        Reception const reception = receptionOf(responseOf(row.m_Length, row.m_Header));
        EXPECT_EQ(reception.m_Code, 0) << row.m_Header;
        EXPECT_LT(reception.m_Bytes, row.m_MostBytes) << row.m_Header;
    }
}

TEST(ResponseRoom, GrowsForMoreThanWasAnnounced) {
    for (std::size_t const length : {std::size_t{1000}, std::size_t{4096}, std::size_t{70000}, std::size_t{3000000}}) {
        EXPECT_EQ(receptionOf(responseOf(length, "Content-Length: 5000\r\n")).m_Code, 0) << length;
        EXPECT_EQ(receptionOf(responseOf(length, "")).m_Code, 0) << length;
    }
}

TEST(ResponseRoom, StaysNearThePermittedLength) {
    std::string const response = responseOf(5 * kMebibyte, "Content-Length: 5242880\r\n");
    for (std::uint32_t const most : {1U, 1023U, 1024U, 5000U, 100000U, 300001U}) {
        Reception const reception = receptionOf(response, most);
        EXPECT_EQ(reception.m_Code, KVX_E_BUFFER_TOO_SMALL) << most;
        EXPECT_LE(ScriptedBytes::taken(), most / 1024 * 1024 + 1024) << most;
        EXPECT_GT(ScriptedBytes::taken(), most);
        EXPECT_LT(reception.m_Bytes, 2 * most + 80000) << most;
    }
    EXPECT_EQ(receptionOf(response, 5 * kMebibyte).m_Code, 0);
}

TEST(ResponseRoom, SurvivesFailingAllocations) {
    std::string const response = responseOf(300000, "");
    KVX_RequestInfo const request = requestFor("http://127.0.0.1/x");
    long const runs = survivesEveryFailingAllocation([&] {
        OpenSession session(request);
        session.enter(3, new SockConnection);
        ScriptedBytes const peer(response);
        session.ReceiveResponse();
        EXPECT_EQ(bytesOf(session.m_Response), response);
    });
    EXPECT_GT(runs, 4);
}

}  // namespace
