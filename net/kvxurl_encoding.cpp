#include "core/kvxpercent.h"
#include "net/kvxurl.h"

// On the wire. Do not change.
char const base64_table[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

namespace {

/// The bytes of a stream for Base64Encode. After the end every byte is 0.
class SevenBitReader {
public:
    explicit SevenBitReader(TbStringStream& in) : m_In(in) {}

    unsigned next() {
        if (m_Ended) {
            return 0;
        }
        char byte = '\0';
        m_In.get(byte);
        if (m_In.atEnd() || static_cast<signed char>(byte) <= 0) {
            m_Ended = true;
            return 0;
        }
        return static_cast<unsigned char>(byte);
    }

    [[nodiscard]] bool hasEnded() const { return m_Ended; }

private:
    TbStringStream& m_In;
    bool m_Ended = false;
};

}  // namespace

void UrlEncode(TbStringStream* in, TbStringStream* out) {
    out->joinSecrecyOf(*in);
    for (;;) {
        char character = '\0';
        in->get(character);
        if (in->atEnd() || character == '\0') {
            return;
        }
        KvxPercentEncoded const piece(static_cast<unsigned char>(character));
        out->put(piece.m_Text, piece.m_Length);
    }
}

void Base64Encode(TbStringStream* in, TbStringStream* out) {
    out->joinSecrecyOf(*in);
    SevenBitReader reader(*in);
    // Deliberate (base64-without-padding): the end is checked after a whole group only, so there is always a group that
    // holds it.
    while (!reader.hasEnded()) {
        unsigned const first = reader.next();
        unsigned const second = reader.next();
        unsigned const third = reader.next();
        char const group[] = {base64_table[first >> 2], base64_table[(first & 0x03U) << 4 | second >> 4],
                              base64_table[(second & 0x0FU) << 2 | third >> 6], base64_table[third & 0x3FU]};
        out->put(group, sizeof group);
    }
}
