// Who has logged on: the user's and groups' SIDs, read from the thread token
// of the freshly impersonated context.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "KerberosSSPIHandler.h"
#include "foundation/Trace.h"
#include "ostrel_platform/ISecurityApi.h"
#include "ostrel_platform/ISystemApi.h"
#include "ostrel_platform/ITokenApi.h"

namespace ostrel {

using platform::Security;
using platform::System;
using platform::Tokens;

namespace {

constexpr DWORD SSPI_DEFAULT_USER_DATA_BUFFER_SIZE = 4096;
constexpr size_t s_nInitialSidChars = 256;

// Writes ASCII text into a wide buffer, never past its end.
class BoundedText {
public:
    explicit BoundedText(size_t i_nChars) : m_pText(new ostrel_char[i_nChars]), m_nCapacity(i_nChars) {
        m_pText[0] = 0;
    }
    void Append(const char* i_pText) {
        size_t nLength = std::char_traits<ostrel_char>::length(m_pText.get());
        while (*i_pText != 0 && nLength + 1 < m_nCapacity) {
            m_pText[nLength++] = static_cast<ostrel_char>(*i_pText++);
        }
        m_pText[nLength] = 0;
    }
    SWCharString Text() const { return SWCharString(m_pText.get()); }

private:
    std::unique_ptr<ostrel_char[]> m_pText;
    size_t m_nCapacity;
};

std::unique_ptr<BoundedText> NewSidBuffer(size_t i_nChars) {
    try {
        return std::make_unique<BoundedText>(i_nChars);
    } catch (std::bad_alloc&) {
        SASSERT_MSG(false, "false", "ssoplugin: KerberosSSPIHandler::SIDToSString() -- Out of memory");
        throw SSOException(STATUS_FAILURE);
    }
}

void* AllocateUserData(size_t i_nSize) {
    void* pBuffer = std::malloc(i_nSize);
    if (pBuffer == nullptr) {
        SASSERT_FAIL("ssoplugin: KerberosSSPIHandler::GetUserData() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    return pBuffer;
}

}  // namespace

void KerberosSSPIHandler::GetLogonInformation(SSOSessionPtr i_pSession, Parameters& o_params) {
    auto* pSession = i_pSession.as<SSPISession>();
    if (pSession == nullptr) {
        SASSERT_FAIL("ssoplugin: KerberosSSPIHandler::GetLogonInformation() -- Wrong type of SSOSessionPtr passed in.");
        throw SSOException(STATUS_FAILURE);
    }
    if (Security().ImpersonateSecurityContext(&pSession->m_hContext) != SEC_E_OK) {
        STRACE("ssoplugin: KerberosSSPIHandler::GetLogonInformation() -- Could not impersonate.");
        throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
    }
    HANDLE hUser = nullptr;
    void* pUserDataBuffer = nullptr;
    void* pGroupDataBuffer = nullptr;
    // A thread must never leave here while it impersonates the context.
    auto revertAndClose = [&] {
        if (Security().RevertSecurityContext(&pSession->m_hContext) != SEC_E_OK) {
            SASSERT(Tokens().RevertToSelf(), "RevertToSelf()");
        }
        if (hUser != nullptr) {
            SASSERT(Tokens().CloseHandle(hUser), "CloseHandle(hUser)");
            hUser = nullptr;
        }
    };
    try {
        if (!Tokens().OpenThreadToken(Tokens().GetCurrentThread(), TOKEN_QUERY, TRUE, &hUser)) {
            STRACE("ssoplugin: KerberosSSPIHandler::GetLogonInformation() -- OpenThreadToken() failed: %1",
                   GetSystemErrorMessage(System().GetLastError()));
            hUser = nullptr;
            throw SSOException(STATUS_FAILURE);
        }
        if (hUser == nullptr) {
            SASSERT(false, "hUser");
            throw SSOException(STATUS_FAILURE);
        }
        GetUserData(hUser, TokenUser, &pUserDataBuffer);
        if (pUserDataBuffer == nullptr) {
            SASSERT(false, "pUserDataBuffer");
            throw SSOException(STATUS_FAILURE);
        }
        SWCharString ssUserSid;
        SIDToSString(static_cast<PTOKEN_USER>(pUserDataBuffer)->User.Sid, ssUserSid);
        STRACE("ssoplugin: KerberosSSPIHandler::GetLogonInformation() -- User's SID is %1", ssUserSid);
        o_params.AddParameter(g_ssKeySspiUserSid, ssUserSid);
        std::free(pUserDataBuffer);
        pUserDataBuffer = nullptr;

        GetUserData(hUser, TokenGroups, &pGroupDataBuffer);
        if (pGroupDataBuffer == nullptr) {
            SASSERT(false, "pGroupDataBuffer");
            throw SSOException(STATUS_FAILURE);
        }
        const auto* pGroups = static_cast<const TOKEN_GROUPS*>(pGroupDataBuffer);
        SWCharString ssGroupSids;
        for (DWORD i = 0; i < pGroups->GroupCount; ++i) {
            if (i > 0) {
                ssGroupSids += OSTREL_T(";");
            }
            SWCharString ssGroupSid;
            SIDToSString(pGroups->Groups[i].Sid, ssGroupSid);
            STRACE("ssoplugin: KerberosSSPIHandler::GetLogonInformation() -- Group's SID is %1", ssGroupSid);
            ssGroupSids += ssGroupSid;
        }
        o_params.AddParameter(g_ssKeySspiUserGroupSids, ssGroupSids);
        std::free(pGroupDataBuffer);
        pGroupDataBuffer = nullptr;
    } catch (...) {
        std::free(pUserDataBuffer);
        std::free(pGroupDataBuffer);
        revertAndClose();
        throw;
    }
    revertAndClose();
}

BOOL KerberosSSPIHandler::GetUserData(HANDLE i_hUserHandle, TOKEN_INFORMATION_CLASS i_eClass,
                                      void** o_TokenInformation) {
    SASSERT(i_hUserHandle != nullptr, "i_hUserHandle");
    SASSERT(o_TokenInformation != nullptr, "o_TokenInformation");
    if (i_hUserHandle == nullptr || o_TokenInformation == nullptr) {
        throw SSOException(STATUS_FAILURE);
    }
    SASSERT_MSG(*o_TokenInformation == nullptr, "!*o_TokenInformation",
                "ssoplugin: KerberosSSPIHandler::GetUserData() -- Non-NULL out-param.  This will be overwritten and "
                "lost!");
    void* pBuffer = AllocateUserData(SSPI_DEFAULT_USER_DATA_BUFFER_SIZE);
    try {
        DWORD dwRequiredBufferSize = 0;
        BOOL bResult = Tokens().GetTokenInformation(i_hUserHandle, i_eClass, pBuffer,
                                                    SSPI_DEFAULT_USER_DATA_BUFFER_SIZE, &dwRequiredBufferSize);
        if (!bResult) {
            const DWORD nError = System().GetLastError();
            if (nError != ERROR_INSUFFICIENT_BUFFER) {
                STRACE("ssoplugin: KerberosSSPIHandler::GetUserData() -- GetTokenInformation(first try) failed: %1.",
                       GetSystemErrorMessage(nError));
                throw SSOException(STATUS_FAILURE);
            }
            STRACE("ssoplugin: KerberosSSPIHandler::GetUserData() -- Reallocating buffer.  Size is %1.",
                   static_cast<unsigned long>(dwRequiredBufferSize));
            SASSERT(dwRequiredBufferSize > SSPI_DEFAULT_USER_DATA_BUFFER_SIZE,
                    "dwRequiredBufferSize > SSPI_DEFAULT_USER_DATA_BUFFER_SIZE");
            std::free(pBuffer);
            pBuffer = nullptr;
            pBuffer = AllocateUserData(dwRequiredBufferSize);
            bResult = Tokens().GetTokenInformation(i_hUserHandle, i_eClass, pBuffer, dwRequiredBufferSize,
                                                   &dwRequiredBufferSize);
            if (!bResult) {
                STRACE("ssoplugin: KerberosSSPIHandler::GetUserData() -- GetTokenInformation(second try) failed: %1.",
                       GetSystemErrorMessage(System().GetLastError()));
                throw SSOException(STATUS_FAILURE);
            }
        }
        *o_TokenInformation = pBuffer;
        return bResult;
    } catch (...) {
        std::free(pBuffer);
        throw;
    }
}

void KerberosSSPIHandler::SIDToSString(PSID i_pSid, SWCharString& o_ssSid) {
    std::unique_ptr<BoundedText> pszTextualSid = NewSidBuffer(s_nInitialSidChars);
    if (!Tokens().IsValidSid(i_pSid)) {
        throw SSOException(STATUS_FAILURE);
    }
    const PSID_IDENTIFIER_AUTHORITY pAuthority = Tokens().GetSidIdentifierAuthority(i_pSid);
    const PUCHAR pCount = Tokens().GetSidSubAuthorityCount(i_pSid);
    if (pAuthority == nullptr || pCount == nullptr) {
        throw SSOException(STATUS_FAILURE);
    }
    const DWORD dwSubAuthorities = *pCount;
    const size_t nNeeded = 28 + static_cast<size_t>(dwSubAuthorities) * 12;
    if (nNeeded > s_nInitialSidChars) {
        STRACE("ssoplugin: KerberosSSPIHandler::SIDToSString() -- Buffer too small.  Reallocating.");
        pszTextualSid = NewSidBuffer(nNeeded);
    }
    char szPiece[32];
    std::snprintf(szPiece, sizeof(szPiece), "S-%lu-", 1ul);
    pszTextualSid->Append(szPiece);
    const BYTE* v = pAuthority->Value;
    if (v[0] != 0 || v[1] != 0) {
        std::snprintf(szPiece, sizeof(szPiece), "0x%02hx%02hx%02hx%02hx%02hx%02hx", static_cast<unsigned short>(v[0]),
                      static_cast<unsigned short>(v[1]), static_cast<unsigned short>(v[2]),
                      static_cast<unsigned short>(v[3]), static_cast<unsigned short>(v[4]),
                      static_cast<unsigned short>(v[5]));
    } else {
        const unsigned long nAuthority = (static_cast<unsigned long>(v[2]) << 24) +
                                         (static_cast<unsigned long>(v[3]) << 16) +
                                         (static_cast<unsigned long>(v[4]) << 8) + static_cast<unsigned long>(v[5]);
        std::snprintf(szPiece, sizeof(szPiece), "%lu", nAuthority);
    }
    pszTextualSid->Append(szPiece);
    for (DWORD i = 0; i < dwSubAuthorities; ++i) {
        const PDWORD pSubAuthority = Tokens().GetSidSubAuthority(i_pSid, i);
        if (pSubAuthority == nullptr) {
            throw SSOException(STATUS_FAILURE);
        }
        std::snprintf(szPiece, sizeof(szPiece), "-%lu", static_cast<unsigned long>(*pSubAuthority));
        pszTextualSid->Append(szPiece);
    }
    o_ssSid = pszTextualSid->Text();
}

SWCharString KerberosSSPIHandler::GetSystemErrorMessage(DWORD i_nError) {
    if (i_nError == 0) {
        return SWCharString();
    }
    // Signed, as the system prints its error numbers.
    SWCharString ssText(OSTREL_T("Error "));
    ssText += SWCharStringConv::ToString(static_cast<int>(static_cast<int32_t>(i_nError)), 10);
    LPWSTR pBuffer = nullptr;
    const DWORD nChars = System().FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, i_nError,
        LANG_USER_DEFAULT, reinterpret_cast<LPWSTR>(&pBuffer), 0, nullptr);
    ssText += OSTREL_T(": ");
    if (nChars != 0 && pBuffer != nullptr) {
        ssText += pBuffer;
    } else {
        ssText += OSTREL_T("???");
    }
    if (pBuffer != nullptr) {
        System().LocalFree(pBuffer);
    }
    ssText.trimRight();
    return ssText;
}

}  // namespace ostrel
