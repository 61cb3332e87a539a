// The encodings of texts, bytes and keys. First byte: how much of the input is read before encoding, second: room for
// decoded bytes.

#include <openssl/evp.h>

#include <memory>

#include "core/kvxctx.h"
#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/signmodel.h"
#include "net/kvxurl.h"

namespace kvxfuzz {

namespace {

/// OpenSSL's encoding of the 7-bit bytes in front, filled up with zeros to the next whole group behind them.
std::string modelBase64(std::string const& text) {
    std::size_t used = 0;
    while (used < text.size() && static_cast<signed char>(text[used]) > 0) {
        ++used;
    }
    std::string filled = text.substr(0, used);
    filled.resize((used / 3 + 1) * 3, '\0');
    std::string result(filled.size() / 3 * 4 + 1, '\0');
    int const length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(result.data()),
                        reinterpret_cast<unsigned char const*>(filled.data()), static_cast<int>(filled.size()));
    return result.substr(0, static_cast<std::size_t>(length));
}

void requireStreams(std::string const& text, std::size_t skipped) {
    std::string const unread = text.substr(skipped);
    for (bool const isBase64 : {false, true}) {
        TbStringStream in(tbText(text));
        for (std::size_t i = 0; i < skipped; ++i) {
            char ignored = '\0';
            in.get(ignored);
        }
        TbStringStream out("before");
        if (isBase64) {
            Base64Encode(&in, &out);
            requireEqual(textOf(out.str()), "before" + modelBase64(unread), "Base64");
        } else {
            UrlEncode(&in, &out);
            requireEqual(textOf(out.str()), "before" + percentText(upToZero(unread)), "percent-encoding of a stream");
        }
    }
}

struct ModelHex {
    std::int32_t m_Code = KVX_OK;
    std::string m_Bytes;  ///< Also those stored before a failure.
};

ModelHex modelFromHex(std::string const& digits, std::size_t room) {
    ModelHex result;
    int high = 0;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i / 2 >= room) {
            result.m_Code = KVX_E_BUFFER_TOO_SMALL;
            return result;
        }
        char const lower = digits[i] >= 'A' && digits[i] <= 'F' ? static_cast<char>(digits[i] + 32) : digits[i];
        std::size_t const value = std::string("0123456789abcdef").find(lower);
        if (value == std::string::npos) {
            result.m_Code = KVX_E_COMMAND_FAILED;
            return result;
        }
        if (i % 2 == 0) {
            high = static_cast<int>(value);
        } else {
            result.m_Bytes += static_cast<char>(high * 16 + static_cast<int>(value));
        }
    }
    return result;
}

void requireHex(std::string text, std::size_t room) {
    KVX_Context context;
    ModelHex const model = modelFromHex(text, room);
    std::unique_ptr<unsigned char[]> const bytes(new unsigned char[room]);
    unsigned long size = room;
    requireEqual(context.HexToBuffer(tbText(text), bytes.get(), &size), model.m_Code, "code of reading digits");
    requireEqual(static_cast<std::int64_t>(size),
                 static_cast<std::int64_t>(model.m_Code == KVX_OK ? model.m_Bytes.size() : room), "length of bytes");
    requireEqual(std::string(reinterpret_cast<char*>(bytes.get()), model.m_Bytes.size()), model.m_Bytes, "bytes");

    auto* const data = reinterpret_cast<unsigned char*>(text.data());
    TbString const hex = context.BufferToHex(data, static_cast<unsigned long>(text.size()));
    requireEqual(textOf(hex), hexText(text), "bytes as digits");
    std::unique_ptr<unsigned char[]> const back(new unsigned char[text.size()]);
    size = text.size();
    requireEqual(context.HexToBuffer(hex, back.get(), &size), KVX_OK, "own digits are read");
    requireEqual(std::string(reinterpret_cast<char*>(back.get()), size), text, "bytes as digits and back");
}

}  // namespace

void runTarget(Input input) {
    std::size_t const skipped = input.byte();
    std::size_t const room = input.byte();
    std::string const text = input.rest();
    requireStreams(text, std::min(skipped, text.size()));
    KVX_Context context;
    requireEqual(textOf(context.Encode(tbText(text))), percentText(text), "percent-encoding");
    requireHex(text, room);
}

}  // namespace kvxfuzz
