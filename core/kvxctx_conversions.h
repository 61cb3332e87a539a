/// Conversions without the copies that the context's published functions take. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXCTX_CONVERSIONS_H
#define TALLOWIN_CORE_KVXCTX_CONVERSIONS_H

#include <cstdint>

#include "foundation/tbstring.h"

/// Decodes the `length` digits at `hex`, borrowed; the rest as KVX_Context::HexToBuffer().
[[nodiscard]] std::int32_t kvxHexToBytes(char const* hex, std::uint32_t length, unsigned char* buffer,
                                         unsigned long* size) noexcept;

/// `hex`, an empty string, becomes the text that KVX_Context::BufferToHex() returns.
void kvxHexInto(TbString& hex, unsigned char const* buffer, unsigned long length);

/// `text`, an empty string, becomes a new identifier, as KVX_Context::CreateUuid() returns it.
void kvxUuidInto(TbString& text);

/// `text` becomes the time that GetTimeDate() returns.
void kvxTimeDateInto(double seconds, TbString& text);

#endif
