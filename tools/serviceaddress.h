/// The address of a service, checked before anything is sent to it.
#ifndef TALLOWIN_TOOLS_SERVICEADDRESS_H
#define TALLOWIN_TOOLS_SERVICEADDRESS_H

#include <string>

namespace tool {

struct HostPort {
    std::string m_Host;
    std::string m_Port;  ///< Empty when none was named.
};

/// Splits "HOST:PORT" or "HOST". UsageError for an empty host, one of other characters than names and addresses have,
/// or a port that is no number from 1 to 65535.
HostPort hostPortOf(std::string const& text);

/// Refuses (UsageError) what the library would send to another place or not at all: another scheme, a host or port that
/// is none, no "/" behind it, a query, and credentials inside the address.
void requireServiceAddress(std::string const& url);

/// Whether what is sent to `url` can be read on the network: "http" to another machine.
bool isInClearText(std::string const& url);

}  // namespace tool

#endif
