// The Linux port of the system services, and what the other Linux ports share
// with it: the calling thread's last error and memory that LocalFree takes back.
#pragma once

#include <cstddef>

#include "ostrel_platform/ISystemApi.h"

namespace ostrel::platform::linuxport {

DWORD PortLastError() noexcept;
void SetPortLastError(DWORD i_dwError) noexcept;

// Sets the calling thread's last error and returns FALSE, the usual failure.
inline BOOL FailWith(DWORD i_dwError) noexcept {
    SetPortLastError(i_dwError);
    return FALSE;
}

// Zeroed memory for LocalFree; nullptr when memory runs out.
HLOCAL PortLocalAlloc(size_t i_nBytes) noexcept;

// English text of an error number the ports produce; nullptr for any other.
const ostrel_char* PortErrorText(DWORD i_dwError) noexcept;

class LinuxSystemApi final : public ISystemApi {
public:
    DWORD GetLastError() override;
    void SetLastError(DWORD dwErrCode) override;
    // Only FORMAT_MESSAGE_FROM_SYSTEM: the texts of PortErrorText in English or
    // the neutral language. FROM_HMODULE is accepted and finds nothing more,
    // since no module carries a message table here. Texts have no inserts.
    DWORD FormatMessageW(DWORD dwFlags, LPCVOID lpSource, DWORD dwMessageId, DWORD dwLanguageId, LPWSTR lpBuffer,
                         DWORD nSize, va_list* Arguments) override;
    HLOCAL LocalFree(HLOCAL hMem) override;
    BOOL FileTimeToSystemTime(const FILETIME* lpFileTime, LPSYSTEMTIME lpSystemTime) override;
    // Sockets need no start here: succeeds with the version asked for.
    int WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData) override;
};

}  // namespace ostrel::platform::linuxport
