/// Receiving a response: how much at a time, and the memory for it. Internal: not installed.
#ifndef TALLOWIN_NET_KVXRESPONSE_H
#define TALLOWIN_NET_KVXRESPONSE_H

#include <cstdint>

#include "foundation/tbstringstream.h"
#include "foundation/tbstringwriter.h"

/// Received bytes become text in chunks of this size: a zero byte cuts off the rest of its chunk.
inline constexpr std::uint32_t kKvxChunk = 1024;

/// Makes the `received` bytes at `writer.begin()` part of its string, chunk by chunk.
void kvxFinishChunks(TbStringWriter& writer, std::uint32_t received) noexcept;

/// Appends what `receive(room)` stores at `room`, at most `most` bytes, to `into`. It returns how many those are, and
/// so does this; after a negative result `into` keeps its text. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
template <class Receive>
std::int32_t kvxReceiveInto(TbStringStream& into, std::uint32_t most, Receive receive) {
    TbStringWriter writer(into, most);
    std::int32_t const received = receive(writer.begin());
    if (received >= 0) {
        kvxFinishChunks(writer, static_cast<std::uint32_t>(received));
        into.grow(0);  // also publishes the capacity of an empty text
        into.put("");  // something was written, even if it was nothing
    }
    return received;
}

/// Decides how much of a response is read at a time and makes room for it.
///
/// A small response takes one read and little memory. The length that a larger one announces is believed as far as the
/// peer has shown that it sends much: up to 1 MiB, or 16 times what has arrived. Borrows the text.
class KvxResponseRoom {
public:
    /// `most` is the permitted length of the response; 0: no limit.
    KvxResponseRoom(TbString& response, std::uint32_t most) noexcept
        : m_Response(response), m_Most(most == 0 ? UINT64_MAX : most) {}

    /// How many bytes to read next when `received` bytes, not more than permitted, have arrived. Makes room for them.
    /// Whole chunks; the last one that is read is the one that exceeds the permitted length. Raises
    /// KVX_E_OUT_OF_MEMORY (TBFC_Exception).
    [[nodiscard]] std::uint32_t next(std::uint64_t received);

private:
    void grow();
    void makeRoom(std::uint64_t bytes);

    TbString& m_Response;
    std::uint64_t m_Most;
    std::uint64_t m_End = 0;       ///< There is room up to this length.
    std::uint64_t m_Expected = 0;  ///< The announced length of all; 0 until the header has been searched.
};

#endif
