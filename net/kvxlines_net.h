/// Published source names and lines of the network layer. They travel inside exceptions and trace records and callers
/// may know them, so they are constants: moving code changes nothing. Internal: not installed.
#ifndef TALLOWIN_NET_KVXHTTPLINES_H
#define TALLOWIN_NET_KVXHTTPLINES_H

namespace kvx {

// clang-format off
inline constexpr char const* kSourceHttp = "kvxhttp";

inline constexpr long kLineLookupFailed          = 338;  // trace "DNS LOOKUP", no address
inline constexpr long kLineLookupDone            = 347;  // trace "DNS LOOKUP", found
inline constexpr long kLineUseSsl                = 419;  // trace "USE SSL"
inline constexpr long kLineHttpConnect           = 719;  // trace "HTTP CONNECT"
inline constexpr long kLineReplyStatus           = 855;  // a status that is not 200
inline constexpr long kLineUrlOpen               = 885;  // trace "URL OPEN"

// Not published before; kept stable all the same. kvxhttp:
inline constexpr long kLineConnectState          = 612;
inline constexpr long kLineProxyAddress          = 624;
inline constexpr long kLineUseProxy              = 629;  // trace "USE PROXY"
inline constexpr long kLineProxyScheme           = 634;
inline constexpr long kLineHostAddress           = 645;
inline constexpr long kLineScheme                = 657;
inline constexpr long kLineConnect               = 666;
inline constexpr long kLineSetup                 = 678;
inline constexpr long kLineProxyWrite            = 735;
inline constexpr long kLineProxyRead             = 742;
inline constexpr long kLineProxyReply            = 754;
inline constexpr long kLineProxyStatus           = 768;
inline constexpr long kLineBuildState            = 780;
inline constexpr long kLineSendState             = 804;
inline constexpr long kLineSend                  = 809;
inline constexpr long kLineReceiveState          = 818;
inline constexpr long kLineReceive               = 825;
inline constexpr long kLineExtractState          = 836;
inline constexpr long kLineReplyNoStatus         = 843;
inline constexpr long kLineReplyNoBody           = 850;
// clang-format on

}  // namespace kvx

#endif
