// Which GSS-API library the provider "GSSAPI" binds when nothing else is said.
#pragma once

#include "ostrel/ostrel.h"

namespace ostrel::platform {

// Without a file extension where the platform's loader adds one.
const ostrel_char* DefaultGssapiLibraryName();

}  // namespace ostrel::platform
