/// Texts and names of the result codes, as rows. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXERRORTABLE_H
#define TALLOWIN_CORE_KVXERRORTABLE_H

#include <cstdint>

#include "core/kvxbase.h"

// All rows are written from catalogue/errors.json, those of `ErrorTable` too; each table ends with a null text.
// Deliberate (two-request-texts): KVX_E_WRONG_RESPONSE is "request failed", KVX_E_SERVER_ERROR "the request failed".

/// The names of the constants, families included.
extern KVX_ErrorRow const kKvxErrorNames[];

/// The families, without the numbers inside them.
extern KVX_ErrorRow const kKvxFamilyNames[];

/// The published text of a code; null without one. Static.
[[nodiscard]] char const* kvxErrorText(std::int32_t code) noexcept;

/// The name of a code: its constant, that of its family, or the system's name of an errno. "" without one. Static.
[[nodiscard]] char const* kvxErrorName(std::int32_t code) noexcept;

#endif
