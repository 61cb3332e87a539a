/// Published source names and lines of the public objects. Do not change. Internal: not installed.
#ifndef TALLOWIN_API_KVXLINES_API_H
#define TALLOWIN_API_KVXLINES_API_H

namespace kvx {

inline constexpr char const* kSourceConfigurationSetup = "cConfigurationSetup";
inline constexpr char const* kSourceMessageFactory = "cMessageFactory";
inline constexpr char const* kSourceMessageObject = "cMessageObject";

inline constexpr long kLineSetupAttributeNotFound = 42;
inline constexpr long kLineRequestWithoutType = 121;
inline constexpr long kLineUrlOfForeignMessage = 29;
inline constexpr long kLineNoText = 91;

}  // namespace kvx

#endif
