#include "net/kvxresponse.h"

#include <algorithm>
#include <cstring>

#include "net/kvxdecimal.h"

namespace {

/// What the first read takes: the whole of most responses.
constexpr std::uint64_t kFirstRead = 4 * kKvxChunk;

/// What a later read takes at most: more would leave the processor's cache before anyone looks at it.
constexpr std::uint64_t kLargeRead = 64 * kKvxChunk;

/// An announced length is believed up to this many bytes, or up to so many times what has arrived.
constexpr std::uint64_t kBelieved = std::uint64_t{1} << 20;
constexpr std::uint64_t kBelievedTimes = 16;

/// The length of the body that `response` announces, 0 without a length. It only saves moving memory, so it is not
/// checked that the line stands in the header.
std::uint64_t announcedLength(TbString const& response) {
    constexpr char kName[] = "\nContent-Length:";
    char const* const line = ::strcasestr(response.c_str(), kName);
    return line == nullptr ? 0 : static_cast<std::uint64_t>(std::max(DecimalNumber(line + std::strlen(kName)), 0));
}

}  // namespace

void kvxFinishChunks(TbStringWriter& writer, std::uint32_t received) noexcept {
    char const* from = writer.begin();
    char* end = writer.begin();
    while (received != 0) {
        std::uint32_t const bytes = std::min(received, kKvxChunk);
        std::size_t const length = ::strnlen(from, bytes);
        if (end != from) {
            std::memmove(end, from, length);  // an earlier chunk was cut
        }
        if (length != 0) {
            end += length;
            writer.endPiece(end);
        }
        from += bytes;
        received -= bytes;
    }
    writer.finish(end);
}

std::uint32_t KvxResponseRoom::next(std::uint64_t received) {
    if (m_End == 0) {
        makeRoom(kFirstRead);
    } else if (m_End - m_Response.length() < kKvxChunk) {
        grow();
    }
    std::uint64_t const chunks =
        std::min((m_End - m_Response.length()) / kKvxChunk, (m_Most - received) / kKvxChunk + 1);
    return static_cast<std::uint32_t>(std::min(chunks * kKvxChunk, kLargeRead));
}

void KvxResponseRoom::grow() {
    std::uint64_t const length = m_Response.length();
    if (m_Expected == 0) {
        m_Expected = length + announcedLength(m_Response);
    }
    std::uint64_t const missing = std::max(m_Expected, length) - length;
    std::uint64_t const believed = std::min(std::max(kBelieved, kBelievedTimes * length), m_Most);
    // A chunk more, for the read that finds the end.
    makeRoom(std::max(kLargeRead, std::min(missing, believed) + kKvxChunk));
}

void KvxResponseRoom::makeRoom(std::uint64_t bytes) {
    TbStringWriter const room(m_Response, bytes);
    m_End = m_Response.length() + bytes;
}
