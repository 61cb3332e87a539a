#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "foundation/tblocalstring.h"
#include "net/kvxdecimal.h"
#include "net/kvxhttp.h"
#include "net/kvxhttp_address.h"
#include "net/kvxlines_net.h"
#include "net/kvxlookup.h"

namespace {

/// The result of address look-ups without an address.
constexpr std::uint32_t kNoAddress = 0xFFFFFFFFU;

/// Traces what a lookup has found and returns the address. A secret host, which may be a piece of a password, makes a
/// secret record.
std::uint32_t traced(TbString const& host, KvxLookup const& lookup) {
    if (lookup.m_Outcome == KvxLookup::Outcome::kNoAddress) {
        kvx::kSourceHttp.trace(kvx::kLineLookupFailed, "DNS LOOKUP", "failed to lookup host", KVX_E_HTTP_NAME_LOOKUP);
    }
    if (lookup.m_Outcome != KvxLookup::Outcome::kFound) {
        return kNoAddress;
    }
    char dotted[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &lookup.m_Address, dotted, sizeof dotted);
    kvx::kSourceHttp.trace(kvx::kLineLookupDone, "DNS LOOKUP", host + " -> " + dotted);
    return lookup.m_Address;
}

}  // namespace

std::uint32_t HttpHostByName(char const* host) {
    return traced(TbBorrowed(host), kvxLookUp(host));
}

std::int32_t MakeHostAddr(TbString const& host, TbString const& port, sockaddr* address) {
    return kvxMakeHostAddr(host, port, 0, address);
}

std::int32_t kvxMakeHostAddr(TbString const& host, TbString const& port, std::int64_t latest, sockaddr* address) {
    // Deliberate (generous-addresses): the old, lenient reader of addresses ("127.1" and "1" are valid), which returns
    // all bits set on failure.
    std::uint32_t ip = ::inet_addr(host.c_str());
    if (ip == kNoAddress) {
        char const* const name = host.c_str();
        KvxLookup const lookup = latest == 0 ? kvxLookUp(name) : kvxLookUp(name, KvxDeadline(0, latest));
        if (lookup.m_Outcome == KvxLookup::Outcome::kLate) {
            return KVX_E_SOCKET_TIMEOUT;
        }
        ip = traced(host, lookup);
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
