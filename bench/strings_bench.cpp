// Appends to strings byte by byte, compared with std::string; encodes, compared with loops over std::string and
// OpenSSL.
//
// Times faster in one run:
//   percent-encode 1 KB, std::string     3.62
//   percent-encode 1 MB, std::string     3.75
//   Base64 1 KB, OpenSSL                 1.37
//   Base64 1 MB, OpenSSL                 1.58
//   to hexadecimal 1 KB, std::string     5.19
//   to hexadecimal 1 MB, std::string     6.34
//   from hexadecimal 1 KB, std::string   2.19
//   from hexadecimal 1 MB, std::string   1.88

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <string>

#include "bench/bench_support.h"
#include "bench/plain.h"
#include "core/kvxctx.h"
#include "foundation/tbstring.h"
#include "net/kvxurl.h"

namespace {

using kvxbench::require;
namespace plain = kvxbench::plain;

constexpr std::size_t kMegabyte = std::size_t{1} << 20;

std::string toStd(TbString const& text) {
    return {text.c_str(), text.length()};
}

/// `bytes` bytes of typical messages.
std::string messageText(std::size_t bytes) {
    std::string text;
    while (text.size() < bytes) {
        text += R"(<KVX MSGTYPE="PayInit" AMOUNT="1250" SUCCESSLINK="https://shop.example.test/paid?shop=1"/>)";
    }
    text.resize(bytes);
    return text;
}

void addAppending(std::size_t megabytes) {
    std::size_t const bytes = megabytes * kMegabyte;
    kvxbench::addContest("append byte by byte " + std::to_string(megabytes) + " MB",
                         [bytes] {
                             TbString text;
                             for (std::size_t i = 0; i < bytes; ++i) {
                                 text.append('x');
                             }
                             benchmark::DoNotOptimize(text.buffer());
                         },
                         {{"std::string", [bytes] {
                               std::string text;
                               for (std::size_t i = 0; i < bytes; ++i) {
                                   text += 'x';
                               }
                               benchmark::DoNotOptimize(text.data());
                           }}});
}

/// The encoders are its members.
KVX_Context& context() {
    static KVX_Context s_Context;
    return s_Context;
}

TbString oursBase64(TbString const& text) {
    TbStringStream in(text);
    TbStringStream out;
    Base64Encode(&in, &out);
    return out;
}

void addEncoders(std::string const& size, std::size_t bytes) {
    std::string const text = messageText(bytes);
    TbString const ours(text.c_str());
    plain::Bytes const raw(text.begin(), text.end());
    std::string const hex = plain::toHex(raw);
    TbString const oursHex(hex.c_str());

    auto const shared = std::make_shared<plain::Bytes>(raw);  // the encoder takes a pointer to non-const
    auto const toHex = [shared] {
        return context().BufferToHex(shared->data(), static_cast<unsigned long>(shared->size()));
    };
    auto const fromHex = [oursHex, bytes] {
        plain::Bytes buffer(bytes);
        auto length = static_cast<unsigned long>(bytes);
        require(context().HexToBuffer(oursHex, buffer.data(), &length) == KVX_OK, "no hexadecimal text");
        return buffer;
    };
    require(toStd(context().Encode(ours)) == plain::percentEncode(text), "different percent encodings");
    require(toStd(oursBase64(ours)) == plain::toBase64(text) + (bytes % 3 == 0 ? "AAAA" : ""), "different Base64");
    require(toStd(toHex()) == hex && fromHex() == raw, "different hexadecimal texts");

    kvxbench::addContest("percent-encode " + size, [ours] { benchmark::DoNotOptimize(context().Encode(ours)); },
                         {{"std::string", [text] { benchmark::DoNotOptimize(plain::percentEncode(text)); }, 3}});
    kvxbench::addContest("Base64 " + size, [ours] { benchmark::DoNotOptimize(oursBase64(ours)); },
                         {{"OpenSSL", [text] { benchmark::DoNotOptimize(plain::toBase64(text)); }, 1}});
    kvxbench::addContest("to hexadecimal " + size, [toHex] { benchmark::DoNotOptimize(toHex()); },
                         {{"std::string", [raw] { benchmark::DoNotOptimize(plain::toHex(raw)); }, 3}});
    kvxbench::addContest("from hexadecimal " + size, [fromHex] { benchmark::DoNotOptimize(fromHex()); },
                         {{"std::string", [hex] { benchmark::DoNotOptimize(plain::fromHex(hex)); }, 2}});
}

void setUp() {
    for (std::size_t const megabytes : {std::size_t{1}, std::size_t{4}, std::size_t{16}}) {
        addAppending(megabytes);
    }
    kvxbench::compareScaling("append byte by byte, 16 MB of 1 MB", "append byte by byte 16 MB/ours",
                             "append byte by byte 1 MB/ours", 16);
    addEncoders("1 KB", 1023);
    addEncoders("1 MB", 1023 * 1024);
    for (std::string const what : {"percent-encode", "Base64", "to hexadecimal", "from hexadecimal"}) {
        kvxbench::compareScaling("" + what + ", 1 MB of 1 KB", what + " 1 MB/ours", what + " 1 KB/ours", 1024);
    }
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
