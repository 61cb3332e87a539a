/// What a public key can verify. Internal: not installed.
#ifndef TALLOWIN_CORE_ICCT_MODULUS_H
#define TALLOWIN_CORE_ICCT_MODULUS_H

#include <cstdint>

/// Bits of the modulus of a DER public key that ICCT_Verify can work with; 0 for any other bytes: no key, a modulus
/// too large, too small for a digest with its padding, or even, an exponent that is even, 1, or not below the modulus.
/// Never throws.
[[nodiscard]] std::uint32_t ICCT_UsableModulusBits(unsigned char const* pubKey, unsigned long pubKeyLen) noexcept;

#endif
