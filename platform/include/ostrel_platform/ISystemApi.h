// System services: the calling thread's last error, message text, memory the
// system hands out, time conversion. The live implementation is System().
#pragma once

#include <atomic>
#include <cstdarg>

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
};

namespace detail {
ISystemApi& PortSystemApi();
inline std::atomic<ISystemApi*> g_pSystemApiOverride{nullptr};
}  // namespace detail

inline ISystemApi& System() {
    ISystemApi* pOverride = detail::g_pSystemApiOverride.load(std::memory_order_acquire);
    return pOverride != nullptr ? *pOverride : detail::PortSystemApi();
}

// Puts a fake in force for its lifetime; nests, and must end in reverse order.
class ScopedSystemApiOverride {
public:
    explicit ScopedSystemApiOverride(ISystemApi& i_fake)
        : m_pPrevious(detail::g_pSystemApiOverride.exchange(&i_fake, std::memory_order_acq_rel)) {}
    ~ScopedSystemApiOverride() { detail::g_pSystemApiOverride.store(m_pPrevious, std::memory_order_release); }
    ScopedSystemApiOverride(const ScopedSystemApiOverride&) = delete;
    ScopedSystemApiOverride& operator=(const ScopedSystemApiOverride&) = delete;

private:
    ISystemApi* m_pPrevious;
};

}  // namespace ostrel::platform
