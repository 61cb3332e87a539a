#pragma once

#include <string>

namespace demo {

/// An absolute address, split for a client.
struct Address {
    std::string host;    ///< "127.0.0.1"
    std::string port;    ///< "8080"; "80" when the address names none.
    std::string target;  ///< "/pay?DATA=...", at least "/".
};

/// Throws std::runtime_error when `url` is no plain HTTP address.
Address splitAddress(std::string const& url);

/// What a browser gets.
struct Answer {
    int status = 0;
    std::string location;  ///< Where a redirect leads, byte for byte as it was sent, else empty.
    std::string body;
};

/// Fetches `url`. With a `form`, posts that as a form's content. Redirects are not followed. Waits ten seconds at most
/// for each step; every failure to get a whole answer is a std::runtime_error.
Answer fetch(std::string const& url, std::string const& form = "");

}  // namespace demo
