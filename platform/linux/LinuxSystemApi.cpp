#include "platform/linux/LinuxSystemApi.h"

#include "foundation/DateTime.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

namespace ostrel::platform {

ISystemApi& detail::PortSystemApi() {
    static linuxport::LinuxSystemApi s_api;
    return s_api;
}

namespace linuxport {

namespace {

thread_local DWORD t_dwLastError = ERROR_SUCCESS;

// LocalFree must refuse what it did not hand out without reading it.
class LocalAllocations {
public:
    bool Add(void* i_p) {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_live.insert(i_p).second;
    }
    bool Remove(void* i_p) {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_live.erase(i_p) == 1;
    }

private:
    std::mutex m_lock;
    std::unordered_set<void*> m_live;
};

LocalAllocations& Allocations() {
    // Never destroyed: threads may free text while the process exits.
    static LocalAllocations* s_pAllocations = new LocalAllocations;
    return *s_pAllocations;
}

struct ErrorText {
    DWORD m_dwError;
    const ostrel_char* m_pText;
};

constexpr ErrorText kErrorTexts[] = {
    {ERROR_SUCCESS, u"The operation succeeded."},
    {ERROR_INVALID_FUNCTION, u"The function is not valid for this object."},
    {ERROR_ACCESS_DENIED, u"Access is denied."},
    {ERROR_INVALID_HANDLE, u"The handle is not valid."},
    {ERROR_NOT_ENOUGH_MEMORY, u"There is not enough memory to complete the operation."},
    {ERROR_OUTOFMEMORY, u"There is not enough memory to complete the operation."},
    {ERROR_NOT_SUPPORTED, u"The request is not supported."},
    {ERROR_INVALID_PARAMETER, u"A parameter is not valid."},
    {ERROR_CALL_NOT_IMPLEMENTED, u"This function is not available on this system."},
    {ERROR_INSUFFICIENT_BUFFER, u"The buffer passed to the system is too small."},
    {ERROR_MR_MID_NOT_FOUND, u"There is no message text for this message number."},
    {ERROR_ARITHMETIC_OVERFLOW, u"The result is too large to be represented."},
    {ERROR_NOACCESS, u"The memory given for this access is not usable."},
    {ERROR_INVALID_FLAGS, u"The flags are not valid."},
    {ERROR_NO_TOKEN, u"The token referred to does not exist."},
    {ERROR_NO_IMPERSONATION_TOKEN, u"The thread is not impersonating a client."},
    {ERROR_PRIVILEGE_NOT_HELD, u"The caller does not hold a privilege the operation needs."},
    {ERROR_INVALID_SID, u"The security identifier is not valid."},
    {ERROR_BAD_IMPERSONATION_LEVEL, u"The impersonation level is missing or too low for this operation."},
    {ERROR_CANT_OPEN_ANONYMOUS, u"A token of the anonymous level cannot be opened."},
    {ERROR_RESOURCE_LANG_NOT_FOUND, u"There is no message text in the language asked for."},
};

bool IsLanguageServed(DWORD i_dwLanguageId) {
    const WORD primary = PRIMARYLANGID(i_dwLanguageId);
    return i_dwLanguageId == 0 || primary == LANG_NEUTRAL || primary == LANG_ENGLISH;
}


}  // namespace

DWORD PortLastError() noexcept { return t_dwLastError; }

void SetPortLastError(DWORD i_dwError) noexcept { t_dwLastError = i_dwError; }

HLOCAL PortLocalAlloc(size_t i_nBytes) noexcept {
    void* p = std::calloc(i_nBytes == 0 ? 1 : i_nBytes, 1);
    if (p == nullptr) {
        return nullptr;
    }
    try {
        Allocations().Add(p);
    } catch (const std::bad_alloc&) {
        std::free(p);
        return nullptr;
    }
    return p;
}

const ostrel_char* PortErrorText(DWORD i_dwError) noexcept {
    for (const ErrorText& entry : kErrorTexts) {
        if (entry.m_dwError == i_dwError) {
            return entry.m_pText;
        }
    }
    return nullptr;
}

DWORD LinuxSystemApi::GetLastError() { return PortLastError(); }

void LinuxSystemApi::SetLastError(DWORD dwErrCode) { SetPortLastError(dwErrCode); }

DWORD LinuxSystemApi::FormatMessageW(DWORD dwFlags, LPCVOID lpSource, DWORD dwMessageId, DWORD dwLanguageId,
                                     LPWSTR lpBuffer, DWORD nSize, va_list* Arguments) {
    (void)lpSource;
    (void)Arguments;
    if (lpBuffer == nullptr || (dwFlags & FORMAT_MESSAGE_FROM_SYSTEM) == 0 ||
        (dwFlags & FORMAT_MESSAGE_FROM_STRING) != 0) {
        SetPortLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (!IsLanguageServed(dwLanguageId)) {
        SetPortLastError(ERROR_RESOURCE_LANG_NOT_FOUND);
        return 0;
    }
    const ostrel_char* pText = PortErrorText(dwMessageId);
    if (pText == nullptr) {
        SetPortLastError(ERROR_MR_MID_NOT_FOUND);
        return 0;
    }
    size_t nChars = 0;
    while (pText[nChars] != 0) {
        ++nChars;
    }
    if ((dwFlags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
        const size_t nAlloc = nChars + 1 > nSize ? nChars + 1 : nSize;
        auto* pOut = static_cast<LPWSTR>(PortLocalAlloc(nAlloc * sizeof(WCHAR)));
        if (pOut == nullptr) {
            SetPortLastError(ERROR_NOT_ENOUGH_MEMORY);
            return 0;
        }
        std::memcpy(pOut, pText, (nChars + 1) * sizeof(WCHAR));
        std::memcpy(lpBuffer, &pOut, sizeof(pOut));
        return static_cast<DWORD>(nChars);
    }
    if (nSize < nChars + 1) {
        SetPortLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::memcpy(lpBuffer, pText, (nChars + 1) * sizeof(WCHAR));
    return static_cast<DWORD>(nChars);
}

HLOCAL LinuxSystemApi::LocalFree(HLOCAL hMem) {
    if (hMem == nullptr) {
        return nullptr;
    }
    if (!Allocations().Remove(hMem)) {
        SetPortLastError(ERROR_INVALID_HANDLE);
        return hMem;
    }
    std::free(hMem);
    return nullptr;
}

BOOL LinuxSystemApi::FileTimeToSystemTime(const FILETIME* lpFileTime, LPSYSTEMTIME lpSystemTime) {
    if (lpFileTime == nullptr || lpSystemTime == nullptr) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    const uint64_t nTicks =
        (static_cast<uint64_t>(lpFileTime->dwHighDateTime) << 32) | static_cast<uint64_t>(lpFileTime->dwLowDateTime);
    // Windows refuses what a signed 64-bit count cannot hold.
    if (nTicks > 0x7FFFFFFFFFFFFFFFull) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    constexpr uint64_t kTicksPerMillisecond = 10000;
    constexpr int64_t kDaysFrom1601To1970 = 134774;
    const uint64_t nMilliseconds = nTicks / kTicksPerMillisecond;
    const uint64_t nSeconds = nMilliseconds / 1000;
    const auto nDays = static_cast<int64_t>(nSeconds / 86400);
    const uint64_t nSecondOfDay = nSeconds % 86400;

    int64_t nYear = 0;
    int nMonth = 0;
    int nDay = 0;
    Tarvik500::CivilFromDays(nDays - kDaysFrom1601To1970, nYear, nMonth, nDay);

    lpSystemTime->wYear = static_cast<WORD>(nYear);
    lpSystemTime->wMonth = static_cast<WORD>(nMonth);
    // 1601-01-01 was a Monday; Sunday is 0.
    lpSystemTime->wDayOfWeek = static_cast<WORD>((nDays + 1) % 7);
    lpSystemTime->wDay = static_cast<WORD>(nDay);
    lpSystemTime->wHour = static_cast<WORD>(nSecondOfDay / 3600);
    lpSystemTime->wMinute = static_cast<WORD>(nSecondOfDay / 60 % 60);
    lpSystemTime->wSecond = static_cast<WORD>(nSecondOfDay % 60);
    lpSystemTime->wMilliseconds = static_cast<WORD>(nMilliseconds % 1000);
    return TRUE;
}

int LinuxSystemApi::WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData) {
    constexpr int kWsaEFault = 10014;
    if (lpWSAData == nullptr) {
        return kWsaEFault;
    }
    std::memset(lpWSAData, 0, sizeof(*lpWSAData));
    lpWSAData->wHighVersion = MAKEWORD(2, 2);
    lpWSAData->wVersion = wVersionRequested;
    std::strcpy(lpWSAData->szDescription, "Linux sockets");
    std::strcpy(lpWSAData->szSystemStatus, "Running");
    return 0;
}

}  // namespace linuxport
}  // namespace ostrel::platform
