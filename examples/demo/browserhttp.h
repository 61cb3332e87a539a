#ifndef TALLOWIN_EXAMPLES_DEMO_BROWSERHTTP_H
#define TALLOWIN_EXAMPLES_DEMO_BROWSERHTTP_H

#include <string>

namespace demo {

/// An absolute address, split for a client.
struct Address {
    std::string m_Host;    ///< "127.0.0.1"
    std::string m_Port;    ///< "8080"; "80" when the address names none.
    std::string m_Target;  ///< "/pay?DATA=...", at least "/".
};

/// Throws std::runtime_error when `url` is no plain HTTP address.
Address splitAddress(std::string const& url);

/// What a browser gets.
struct Answer {
    int m_Status = 0;
    std::string m_Location;  ///< Where a redirect leads, byte for byte as it was sent, else empty.
    std::string m_Body;
};

/// Fetches `url`. With a `form`, posts that as a form's content. Redirects are not followed. Waits ten seconds at most
/// for each step; every failure to get a whole answer is a std::runtime_error.
Answer fetch(std::string const& url, std::string const& form = "");

}  // namespace demo

#endif
