/// How an exchange with a server is limited and protected.
#ifndef TALLOWIN_NET_KVXTRANSFER_H
#define TALLOWIN_NET_KVXTRANSFER_H

#include <cstdint>

#include "tallowin/export.h"
#include "tallowin/tbstring.h"

/// The lowest version of TLS that a connection accepts.
enum class KVX_TlsVersion : std::uint8_t {
    // NOLINTBEGIN(readability-identifier-naming): published names
    Any,  ///< What the TLS library accepts by default.
    Tls10,
    Tls11,
    Tls12,
    Tls13,
    // NOLINTEND(readability-identifier-naming)
};

/// Limits and protection of one exchange. Every default is the plain behaviour: no limit, no check.
struct KVX_EXPORT KVX_Transfer {
    // NOLINTBEGIN(readability-identifier-naming): as the record that holds it
    std::uint32_t connectTimeout = 0;                     ///< Seconds for each connect; 0: none.
    std::uint32_t ioTimeout = 0;                          ///< Seconds for each read or write; 0: none.
    std::uint32_t totalTimeout = 0;                       ///< Seconds for the whole exchange; 0: none.
    std::uint32_t maxResponse = 0;                        ///< Bytes of a response, header included; 0: no limit.
    bool verifyPeer = false;                              ///< Check the server's certificate chain and host name.
    TbString trustFile;                                   ///< PEM file of authorities; empty: the system's.
    KVX_TlsVersion minimumVersion = KVX_TlsVersion::Any;  ///< Refuse older versions of TLS.
    bool sendHost = false;                                ///< Send a Host header.
    bool reuseTls = false;                                ///< Keep TLS context and sessions between exchanges.
    bool sendAll = false;                                 ///< Continue a short send.
    bool isQuiet = false;                                 ///< Print nothing.
    // NOLINTEND(readability-identifier-naming)
};

#endif
