// System services on Windows: the system's own calls, unchanged.
#include "ostrel_platform/ISystemApi.h"

namespace ostrel::platform {
namespace {

class Win32SystemApi final : public ISystemApi {
public:
    DWORD GetLastError() override { return ::GetLastError(); }
    void SetLastError(DWORD dwErrCode) override { ::SetLastError(dwErrCode); }
    DWORD FormatMessageW(DWORD dwFlags, LPCVOID lpSource, DWORD dwMessageId, DWORD dwLanguageId, LPWSTR lpBuffer,
                         DWORD nSize, va_list* Arguments) override {
        return ::FormatMessageW(dwFlags, lpSource, dwMessageId, dwLanguageId, lpBuffer, nSize, Arguments);
    }
    HLOCAL LocalFree(HLOCAL hMem) override { return ::LocalFree(hMem); }
    BOOL FileTimeToSystemTime(const FILETIME* lpFileTime, LPSYSTEMTIME lpSystemTime) override {
        return ::FileTimeToSystemTime(lpFileTime, lpSystemTime);
    }
    int WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData) override {
        return ::WSAStartup(wVersionRequested, lpWSAData);
    }
};

}  // namespace

ISystemApi& detail::PortSystemApi() {
    static Win32SystemApi s_api;
    return s_api;
}

}  // namespace ostrel::platform
