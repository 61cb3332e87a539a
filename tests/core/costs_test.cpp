// What a payment costs in bytes asked of the allocator: linear in the message, however it is made and however a
// response arrives.
//
// Each row is tried in four sizes. The numbers are what the steps need today, with a little room; a step that copied a
// text once more, or grew a buffer by a fixed step, would show.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "net/kvxhttp.h"
#include "net/kvxurl.h"
#include "tests/core/coresupport.h"
#include "tests/core/forgerysupport.h"
#include "tests/support/costs.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

constexpr std::size_t kKilo = 1024;

/// A server that is nothing but replaced system calls: any request gets one response, in chunks of a chosen size.
class ChunkedServer {
public:
    ChunkedServer(std::string response, std::size_t chunk) {
        s_Response = std::move(response);
        s_Sent = 0;
        s_Chunk = chunk;
        m_Calls->socket = [](int, int, int) { return kSocket; };
        m_Calls->setsockopt = [](int, int, int, void const*, socklen_t) { return 0; };
        m_Calls->connect = [](int, sockaddr const*, socklen_t) { return 0; };
        m_Calls->send = [](int, void const*, std::size_t bytes, int) { return static_cast<ssize_t>(bytes); };
        m_Calls->recv = [](int, void* buffer, std::size_t bytes, int) {
            std::size_t const count = std::min({bytes, s_Chunk, s_Response.size() - s_Sent});
            std::memcpy(buffer, s_Response.data() + s_Sent, count);
            s_Sent += count;
            return static_cast<ssize_t>(count);
        };
        m_Calls->shutdown = [](int, int) { return 0; };
        m_Calls->close = [](int) { return 0; };
    }

private:
    static constexpr int kSocket = 1000000;  ///< No file's number.
    static inline std::string s_Response;
    static inline std::size_t s_Sent = 0;
    static inline std::size_t s_Chunk = 0;

    SystemCalls m_Calls;
};

// The first size is one for which the memory has just grown: otherwise a step of growth would look like a rising cost.
TEST(ResponseCosts, AreLinearHoweverTheResponseArrives) {
    for (std::size_t const chunk : {1U, 2U, 7U, 1000U, 1024U}) {
        expectLinearCost("chunks of " + std::to_string(chunk), 72 * kKilo, 6, [chunk](std::size_t size) {
            std::string const body(size, 'x');
            ChunkedServer const server(httpResponse(body), chunk);
            KVX_RequestInfo request;
            SplitUrl("http://127.0.0.1/", request);
            TbStringStream out;
            std::uint64_t const bytes = costOf([&] { HttpSession(request, out); }).m_Bytes;
            EXPECT_EQ(bytesOf(out), body);
            return bytes;
        });
    }
}

TEST(ConversionCosts, AreLinear) {
    struct Row {
        char const* m_Name;
        std::uint64_t m_BytesForEachByte;
        void (*m_Convert)(TbString const& text);
    };
    Row const rows[] = {
        {"Encode", 3 * 5,
         [](TbString const& text) { TbString const encoded = KVX_Context().Encode(text); }},  // three characters a byte
        {"UrlEncode", 1 + 3 * 5,
         [](TbString const& text) {
             TbStringStream in(text);
             TbStringStream out;
             UrlEncode(&in, &out);
         }},
        {"Base64Encode", 1 + 7,
         [](TbString const& text) {
             TbStringStream in(text);
             TbStringStream out;
             Base64Encode(&in, &out);
         }},
        {"BufferToHex", 3,
         [](TbString const& text) {
             std::string bytes = bytesOf(text);
             TbString const hex =
                 KVX_Context().BufferToHex(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size());
         }},
        {"HexToBuffer", 2,
         [](TbString const& text) {
             std::string bytes(text.length() / 2, '\0');
             unsigned long size = bytes.size();
             EXPECT_EQ(KVX_Context().HexToBuffer(text, reinterpret_cast<unsigned char*>(bytes.data()), &size), KVX_OK);
         }},
    };
    for (Row const& row : rows) {
        std::string const unit = std::strcmp(row.m_Name, "HexToBuffer") == 0 ? "7f" : "\x7f<";
        expectLinearCost(row.m_Name, 32 * kKilo, row.m_BytesForEachByte, [&](std::size_t size) {
            std::string text;
            while (text.size() < size) {
                text += unit;
            }
            TbString const input = stringOf(text);
            return costOf([&] { row.m_Convert(input); }).m_Bytes;
        });
    }
}

struct CostsOfMerchant : testing::Test, protected Merchant {};

TEST_F(CostsOfMerchant, OfSettingAttributesAreLinear) {
    constexpr std::uint64_t kBytesForEachAttribute = 2000;
    expectLinearCost("different attributes", kKilo, kBytesForEachAttribute, [&](std::size_t count) {
        KVX_Message message;
        message.Create(&m_Context, "PayInit");
        return costOf([&] {
                   for (std::size_t i = 0; i < count; ++i) {
                       message.SetAttribute(("A" + std::to_string(i)).c_str(), "v");
                   }
               })
            .m_Bytes;
    });
    expectLinearCost("one attribute", kKilo, kBytesForEachAttribute, [&](std::size_t count) {
        KVX_Message message;
        message.Create(&m_Context, "PayInit");
        return costOf([&] {
                   for (std::size_t i = 0; i < count; ++i) {
                       message.SetAttribute("A", "v");
                   }
               })
            .m_Bytes;
    });
}

TEST_F(CostsOfMerchant, OfAPaymentUrlAreLinear) {
    constexpr std::uint64_t kBytesForEachByte = 32;
    expectLinearCost("GetURL", 32 * kKilo, kBytesForEachByte, [&](std::size_t size) {
        KVX_Message message;
        message.Create(&m_Context, "PayInit");
        message.SetAttribute("A", stringOf(std::string(size, '\xe9')));
        TbString url;
        return costOf([&] { message.GetURL(url); }).m_Bytes;
    });
}

TEST_F(CostsOfMerchant, OfVerifyingAConfirmationAreLinear) {
    constexpr std::uint64_t kBytesForEachByte = 20;
    expectLinearCost("VerifyPayConfirm", 32 * kKilo, kBytesForEachByte, [&](std::size_t size) {
        std::string const text = R"(<KVX MSGTYPE="PayConfirm" KEYID="server" A=")" + std::string(size, 'x') + "\"/>";
        std::string const signature = BlockSigner::sign(BlockSigner::blockFor(text));
        KVX_Message message;
        return costOf([&] { message.Open(&m_Context, stringOf(text), stringOf(signature)); }).m_Bytes;
    });
}

}  // namespace
