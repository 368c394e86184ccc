#include "ostrel_platform/GssLibraryName.h"

namespace ostrel::platform {

// The loader adds ".dll".
const ostrel_char* DefaultGssapiLibraryName() { return OSTREL_T("gssapi32"); }

}  // namespace ostrel::platform
