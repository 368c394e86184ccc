#include <vector>

#include "ostrel_platform/ISiteMinderAgent.h"
#include "ostrel_platform/WinTypes.h"

namespace ostrel::platform {

// Read at each binding, so that a host can point a new handle at another file.
Tarvik500::SWCharString detail::SiteMinderLibraryName() {
    const wchar_t* pVariable = L"OSTREL_SITEMINDER_LIBRARY";
    const DWORD nChars = ::GetEnvironmentVariableW(pVariable, nullptr, 0);
    if (nChars > 1) {
        std::vector<wchar_t> name(nChars);
        if (::GetEnvironmentVariableW(pVariable, name.data(), nChars) + 1 == nChars) {
            return Tarvik500::SWCharString(name.data());
        }
    }
    // The loader adds ".dll" and searches the usual way: the host's directory, the system's, PATH.
    return Tarvik500::SWCharString(L"smagentapi");
}

}  // namespace ostrel::platform
