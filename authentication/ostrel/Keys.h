// The numbers behind session keys and cache keys: never 0, never the same twice
// in a process's life, and not to be guessed from one another.
#pragma once

#include <cstdint>

#include "foundation/SString.h"

namespace ostrel {
using namespace Tarvik500;

// A keyed permutation of a counter; the key comes from the system's random
// source at first use.
uint64_t NewKey();

// The number a key text stands for when the text is that number's own decimal
// form (no sign, no leading zero, not 0); false for any other text.
bool ParseCanonicalKey(const SWCharString& i_ssKey, uint64_t& o_nKey);

// A fixed mixing bijection, so that keys a host chose spread as well as ours.
uint64_t MixKey(uint64_t i_nKey);
uint64_t UnmixKey(uint64_t i_nMixed);

}  // namespace ostrel
