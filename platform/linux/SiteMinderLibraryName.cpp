#include <cstdlib>

#include "ostrel_platform/ISiteMinderAgent.h"

namespace ostrel::platform {

// Read at each binding, so that a host can point a new handle at another file.
Tarvik500::SWCharString detail::SiteMinderLibraryName() {
    const char* pName = std::getenv("OSTREL_SITEMINDER_LIBRARY");
    if (pName != nullptr && *pName != 0) {
        return Tarvik500::ToWCharString(pName);
    }
    // Found through the loader's usual search: LD_LIBRARY_PATH, the cache, the system's directories.
    return Tarvik500::SWCharString(OSTREL_T("libsmagentapi.so"));
}

}  // namespace ostrel::platform
