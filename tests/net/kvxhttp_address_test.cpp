// Addresses from host names and ports.
//
// Names go to a scripted resolver, so no test asks a real one. Odd: the buffer of the resolver doubles up to 128 KiB;
// ports are read as numbers alone.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>

#include "net/kvxhttp.h"
#include "tests/net/interposed.h"
#include "tests/net/netsupport.h"
#include "tests/support/allocations.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

using Answer = ScriptedResolver::Answer;

std::string dotted(sockaddr_in const& address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

TEST(MakeHostAddr, FillsAddressPortAndFamilyAlone) {
    sockaddr_in address;
    std::memset(&address, 0x5A, sizeof address);
    ASSERT_EQ(MakeHostAddr("10.1.2.3", "8443", generic(address)), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(dotted(address), "10.1.2.3");
    EXPECT_EQ(ntohs(address.sin_port), 8443);
    for (unsigned char const byte : address.sin_zero) {
        EXPECT_EQ(byte, 0x5A);
    }
}

TEST(MakeHostAddr, ReadsPortsAsNumbersOfSixteenBits) {
    struct {
        char const* m_Text;
        unsigned m_Port;
    } const cases[] = {{"80", 80},   {"", 0},       {"http", 0},   {" 81x", 81},         {"65535", 65535},
                       {"65536", 0}, {"65617", 81}, {"-1", 65535}, {"4294967376", 65535}};
    for (auto const& row : cases) {
        sockaddr_in address = {};
        ASSERT_EQ(MakeHostAddr("127.0.0.1", row.m_Text, generic(address)), 0);
        EXPECT_EQ(ntohs(address.sin_port), row.m_Port) << row.m_Text;
    }
}

TEST(MakeHostAddr, KeepsTheGenerousFormsOfDottedAddresses) {
    ScriptedResolver const resolver(Answer::kUnknown);
    struct {
        char const* m_Host;
        char const* m_Address;
    } const cases[] = {{"1", "0.0.0.1"}, {"127.1", "127.0.0.1"}, {"0x7f.1", "127.0.0.1"}, {"1.2.3.4 x", "1.2.3.4"}};
    for (auto const& row : cases) {
        sockaddr_in address = {};
        EXPECT_EQ(MakeHostAddr(row.m_Host, "80", generic(address)), 0) << row.m_Host;
        EXPECT_EQ(dotted(address), row.m_Address);
    }
    EXPECT_TRUE(resolver.lookUps().empty());
}

TEST(MakeHostAddr, ResolvesNames) {
    ScriptedResolver const resolver(Answer::kAddress, "10.0.0.7");
    sockaddr_in address = {};
    EXPECT_EQ(MakeHostAddr("gateway", "80", generic(address)), 0);
    EXPECT_EQ(dotted(address), "10.0.0.7");
    EXPECT_EQ(resolver.lookUps(), std::vector<std::string>{"gateway"});
}

TEST(MakeHostAddr, ReportsNamesThatCannotBeResolvedAndTouchesNothing) {
    for (Answer const answer : {Answer::kUnknown, Answer::kNoAddress}) {
        ScriptedResolver const resolver(answer);
        sockaddr_in address;
        std::memset(&address, 0x5A, sizeof address);
        EXPECT_EQ(static_cast<std::uint32_t>(MakeHostAddr("gateway", "80", generic(address))), 0x80042021U);
        EXPECT_EQ(address.sin_port, 0x5A5A);
    }
}

TEST(MakeHostAddr, ResolvesAnEmptyHostLikeAName) {
    ScriptedResolver const resolver(Answer::kUnknown);
    sockaddr_in address = {};
    EXPECT_EQ(MakeHostAddr("", "80", generic(address)), KVX_E_HTTP_NAME_LOOKUP);
    EXPECT_EQ(resolver.lookUps(), std::vector<std::string>{""});
}

TEST(MakeHostAddr, KeepsRefusingTheAddressWithAllBitsSet) {
    sockaddr_in address = {};
    // First as a text, where the reader of addresses uses it for "none"; then as the answer of a resolver.
    EXPECT_EQ(MakeHostAddr("255.255.255.255", "80", generic(address)), KVX_E_HTTP_NAME_LOOKUP);
    ScriptedResolver const resolver(Answer::kAddress, "255.255.255.255");
    EXPECT_EQ(MakeHostAddr("gateway", "80", generic(address)), KVX_E_HTTP_NAME_LOOKUP);
}

TEST(HttpHostByName, FindsTheLoopbackByItsName) {
    EXPECT_EQ(HttpHostByName("localhost"), htonl(INADDR_LOOPBACK));
}

TEST(HttpHostByName, TracesWhatItFound) {
    ScriptedResolver const resolver(Answer::kAddress, "10.0.0.7");
    TraceRecorder const trace;
    EXPECT_EQ(HttpHostByName("gateway"), inet_addr("10.0.0.7"));
    ASSERT_EQ(trace.records().size(), 1U);
    TraceRecorder::Record const& record = trace.records().front();
    EXPECT_EQ(record.m_Event, "DNS LOOKUP");
    EXPECT_EQ(record.m_Detail, "gateway -> 10.0.0.7");
    EXPECT_EQ(record.m_Code, 0);
    EXPECT_EQ(record.m_File, "kvxhttp");
    EXPECT_EQ(record.m_Line, 347);
}

TEST(HttpHostByName, PrintsTheBytesOfAnAddressUnsigned) {
    ScriptedResolver const resolver(Answer::kAddress, "255.128.0.200");
    TraceRecorder const trace;
    EXPECT_EQ(HttpHostByName("gateway"), inet_addr("255.128.0.200"));
    EXPECT_EQ(trace.of("DNS LOOKUP").at(0).m_Detail, "gateway -> 255.128.0.200");
}

TEST(HttpHostByName, TracesANameWithoutAnAddress) {
    ScriptedResolver const resolver(Answer::kNoAddress);
    TraceRecorder const trace;
    EXPECT_EQ(HttpHostByName("gateway"), 0xFFFFFFFFU);
    ASSERT_EQ(trace.records().size(), 1U);
    TraceRecorder::Record const& record = trace.records().front();
    EXPECT_EQ(record.m_Event, "DNS LOOKUP");
    EXPECT_EQ(record.m_Detail, "failed to lookup host");
    EXPECT_EQ(static_cast<std::uint32_t>(record.m_Code), 0x80042021U);
    EXPECT_EQ(record.m_File, "kvxhttp");
    EXPECT_EQ(record.m_Line, 338);
}

TEST(HttpHostByName, KeepsSilentAboutANameThatNobodyKnows) {
    ScriptedResolver const resolver(Answer::kUnknown);
    TraceRecorder const trace;
    EXPECT_EQ(HttpHostByName("gateway"), 0xFFFFFFFFU);
    EXPECT_TRUE(trace.records().empty());
}

TEST(HttpHostByName, MakesRoomForLongAnswers) {
    ScriptedResolver const resolver(Answer::kAddress, "10.0.0.7", 100000);
    EXPECT_EQ(HttpHostByName("gateway"), inet_addr("10.0.0.7"));
    EXPECT_EQ(resolver.lookUps().size(), 8U);  // 1 KiB, doubled until 128 KiB
}

TEST(HttpHostByName, SurvivesFailingAllocations) {
    ScriptedResolver const resolver(Answer::kAddress, "10.0.0.7", 5000);
    survivesEveryFailingAllocation([] { EXPECT_EQ(HttpHostByName("gateway"), inet_addr("10.0.0.7")); });
}

}  // namespace
