// The stored form of shared secrets: reversible obfuscation, not encryption.
#pragma once

#include "SString.h"

namespace Tarvik500 {

class SScrambler {
public:
    // Stored form to plain text; false, with o_ssPlain untouched, on malformed input.
    static bool DecryptPasswordDB(const SWCharString& i_ssStored, SWCharString& o_ssPlain);
    // Plain text to a stored form (a fresh salt each time).
    static bool EncryptPasswordDB(const SWCharString& i_ssPlain, SWCharString& o_ssStored);
};

}  // namespace Tarvik500
