// The message store: the text of every message id the plug-in raises.
#pragma once

#include "SString.h"

namespace Tarvik500 {

class SResManager {
public:
    static bool Initialize();
    static bool Terminate();
    // The text of a message; empty when the store has none. i_nFlags is 0.
    static SWCharString LoadStringW(unsigned long i_nMessageId, unsigned long i_nFlags);
};

}  // namespace Tarvik500
