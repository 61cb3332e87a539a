/// The published sources and lines of the public objects; core/kvxsource.h says why they are constants. Do not change.
/// Internal: not installed.
#ifndef TALLOWIN_API_KVXLINES_API_H
#define TALLOWIN_API_KVXLINES_API_H

#include "core/kvxsource.h"

namespace kvx {

// clang-format off
inline constexpr KvxSource kSourceConfigurationSetup{"cConfigurationSetup"};
inline constexpr long kLineSetupAttributeNotFound = 42;   // no such value

inline constexpr KvxSource kSourceMessageFactory{"cMessageFactory"};
inline constexpr long kLineRequestWithoutType     = 121;  // request without type

inline constexpr KvxSource kSourceMessageObject{"cMessageObject"};
inline constexpr long kLineUrlOfForeignMessage    = 29;   // URL of a message that no Create function made
inline constexpr long kLineNoText                 = 91;   // text of an empty message
// clang-format on

}  // namespace kvx

#endif
