#include "ostrel_platform/GssLibraryName.h"

namespace ostrel::platform {

// The runtime package's soname: a machine without the development files still has it.
const ostrel_char* DefaultGssapiLibraryName() { return OSTREL_T("libgssapi_krb5.so.2"); }

}  // namespace ostrel::platform
