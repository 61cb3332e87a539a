#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>

#include "foundation/tbmemory.h"
#include "foundation/tbsystem.h"
#include "net/kvxdecimal.h"
#include "net/kvxhttp.h"
#include "net/kvxlines_net.h"

namespace {

/// The result of address look-ups without an address.
constexpr std::uint32_t kNoAddress = 0xFFFFFFFFU;

constexpr std::size_t kFirstLookupBuffer = 1024;

/// The resolver's result for a name, with its memory.
class HostEntry {
public:
    explicit HostEntry(char const* host) {
        int failure = 0;
        for (std::size_t bytes = kFirstLookupBuffer;; bytes *= 2) {
            m_Memory = tbHoldMemory(bytes);
            int reason = 0;
            failure = tbSystem().gethostbyname_r(host, &m_Storage, m_Memory.get(), bytes, &m_Result, &reason);
            if (failure != ERANGE) {
                break;
            }
        }
        if (failure != 0) {
            m_Result = nullptr;
        }
    }

    /// Null when the name is unknown.
    [[nodiscard]] hostent const* result() const { return m_Result; }

private:
    TbMemoryHolder m_Memory;
    hostent m_Storage = {};
    hostent* m_Result = nullptr;
};

}  // namespace

std::uint32_t HttpHostByName(char const* host) {
    HostEntry const entry(host);
    if (entry.result() == nullptr) {
        return kNoAddress;
    }
    char const* const first = entry.result()->h_addr_list[0];
    if (first == nullptr) {
        kvx::kSourceHttp.trace(kvx::kLineLookupFailed, "DNS LOOKUP", "failed to lookup host", KVX_E_HTTP_NAME_LOOKUP);
        return kNoAddress;
    }
    std::uint32_t address = 0;
    std::memcpy(&address, first, sizeof address);
    char dotted[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address, dotted, sizeof dotted);
    kvx::kSourceHttp.trace(kvx::kLineLookupDone, "DNS LOOKUP", TbString(host) + " -> " + dotted);
    return address;
}

std::int32_t MakeHostAddr(TbString const& host, TbString const& port, sockaddr* address) {
    // Deliberate (generous-addresses): the old, lenient reader of addresses ("127.1" and "1" are valid), which returns
    // all bits set on failure.
    std::uint32_t ip = ::inet_addr(host.c_str());
    if (ip == kNoAddress) {
        ip = HttpHostByName(host.c_str());
    }
    if (ip == kNoAddress) {
        return KVX_E_HTTP_NAME_LOOKUP;
    }
    sockaddr_in target;
    std::memcpy(&target, address, sizeof target);
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<std::uint16_t>(DecimalNumber(port.c_str())));
    target.sin_addr.s_addr = ip;
    std::memcpy(address, &target, sizeof target);
    return KVX_OK;
}
