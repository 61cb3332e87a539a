/// How long parsed keys may live on between calls (icct_keptkey.h). Internal: not installed.
#ifndef TALLOWIN_CORE_ICCT_KEYUSERS_H
#define TALLOWIN_CORE_ICCT_KEYUSERS_H

#include <cstdint>

/// Counts one public object more. Any thread.
void kvxAddKeyUser() noexcept;

/// Counts one less. With the last one all kept keys are freed and wiped. Requires: the calling thread is outside any
/// TbForkGate. Any thread.
void kvxRemoveKeyUser() noexcept;

#ifdef KVX_TEST_SEAMS
/// Test builds only: how many keys are kept now, those in use left out.
[[nodiscard]] std::uint32_t kvxCountKeptKeys() noexcept;
#endif

#endif
