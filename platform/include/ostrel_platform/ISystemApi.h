// System services: the calling thread's last error, message text, memory the
// system hands out, time conversion, the start of sockets. The live
// implementation is System().
#pragma once

#include <cstdarg>

#include "ostrel_platform/Seam.h"
#include "ostrel_platform/WinTypes.h"

namespace ostrel::platform {

class ISystemApi {
public:
    virtual ~ISystemApi() = default;

    // Per thread, as on Windows.
    virtual DWORD GetLastError() = 0;
    virtual void SetLastError(DWORD dwErrCode) = 0;
    // With FORMAT_MESSAGE_ALLOCATE_BUFFER, lpBuffer is really an LPWSTR* that
    // receives text to be freed with LocalFree.
    virtual DWORD FormatMessageW(DWORD dwFlags, LPCVOID lpSource, DWORD dwMessageId, DWORD dwLanguageId,
                                 LPWSTR lpBuffer, DWORD nSize, va_list* Arguments) = 0;
    virtual HLOCAL LocalFree(HLOCAL hMem) = 0;
    virtual BOOL FileTimeToSystemTime(const FILETIME* lpFileTime, LPSYSTEMTIME lpSystemTime) = 0;
    // 0 on success, else an error number.
    virtual int WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData) = 0;
};

namespace detail {
// The port's own implementation, one per platform.
ISystemApi& PortSystemApi();
}  // namespace detail

// The implementation in force for the whole process.
inline ISystemApi& System() { return Seam<ISystemApi>::Get(detail::PortSystemApi); }

using ScopedSystemApiOverride = ScopedOverride<ISystemApi>;

}  // namespace ostrel::platform
