/// Conversions without the copies that the context's published functions take. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXCTX_CONVERSIONS_H
#define TALLOWIN_CORE_KVXCTX_CONVERSIONS_H

#include <cstdint>

/// Decodes the `length` digits at `hex`, borrowed; the rest as KVX_Context::HexToBuffer().
[[nodiscard]] std::int32_t kvxHexToBytes(char const* hex, std::uint32_t length, unsigned char* buffer,
                                         unsigned long* size) noexcept;

#endif
