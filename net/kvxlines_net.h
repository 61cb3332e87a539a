/// The published source and lines of the network layer; core/kvxsource.h says why they are constants. Do not change.
/// Internal: not installed.
#ifndef TALLOWIN_NET_KVXLINES_NET_H
#define TALLOWIN_NET_KVXLINES_NET_H

#include "core/kvxsource.h"

namespace kvx {

// clang-format off
inline constexpr KvxSource kSourceHttp{"kvxhttp"};
inline constexpr long kLineLookupFailed          = 338;  // trace "DNS LOOKUP", no address
inline constexpr long kLineLookupDone            = 347;  // trace "DNS LOOKUP", found
inline constexpr long kLineUseSsl                = 419;  // trace "USE SSL"
inline constexpr long kLineConnectState          = 612;  // connect, out of order
inline constexpr long kLineTlsNotReady           = 618;  // checks of TLS that cannot be made
inline constexpr long kLineProxyAddress          = 624;  // proxy not resolved
inline constexpr long kLineUseProxy              = 629;  // trace "USE PROXY"
inline constexpr long kLineProxyScheme           = 634;  // proxy, unknown scheme
inline constexpr long kLineHostAddress           = 645;  // host not resolved
inline constexpr long kLineScheme                = 657;  // unknown scheme
inline constexpr long kLineConnect               = 666;  // connect failed
inline constexpr long kLineSetup                 = 678;  // handshake failed
inline constexpr long kLineHttpConnect           = 719;  // trace "HTTP CONNECT"
inline constexpr long kLineProxyWrite            = 735;  // tunnel, send failed
inline constexpr long kLineProxyRead             = 742;  // tunnel, receive failed
inline constexpr long kLineProxyReply            = 754;  // tunnel, reply without status
inline constexpr long kLineProxyStatus           = 768;  // tunnel, a status that is not 200
inline constexpr long kLineBuildState            = 780;  // build, out of order
inline constexpr long kLineSendState             = 804;  // send, out of order
inline constexpr long kLineSend                  = 809;  // send failed
inline constexpr long kLineReceiveState          = 818;  // receive, out of order
inline constexpr long kLineReceive               = 825;  // receive failed
inline constexpr long kLineReceiveTooMuch        = 829;  // a response longer than permitted
inline constexpr long kLineExtractState          = 836;  // extract, out of order
inline constexpr long kLineReplyNoStatus         = 843;  // reply without status
inline constexpr long kLineReplyNoBody           = 850;  // reply without end of header
inline constexpr long kLineReplyStatus           = 855;  // a status that is not 200
inline constexpr long kLineUrlOpen               = 885;  // trace "URL OPEN"
// clang-format on

}  // namespace kvx

#endif
