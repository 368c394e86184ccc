// The types and constants of the security support provider interface. On Windows
// they come from the system's headers; elsewhere they are defined here with
// Windows' sizes, layouts and values.
#pragma once

#include "ostrel_platform/WinTypes.h"

#if defined(_WIN32)

#ifndef SECURITY_WIN32
#define SECURITY_WIN32
#endif
#include <security.h>

#else  // !_WIN32

typedef LONG SECURITY_STATUS;
typedef WCHAR SEC_WCHAR;
typedef unsigned short USHORT;

typedef struct _SecHandle {
    ULONG_PTR dwLower;
    ULONG_PTR dwUpper;
} SecHandle, *PSecHandle;

typedef SecHandle CredHandle;
typedef PSecHandle PCredHandle;
typedef SecHandle CtxtHandle;
typedef PSecHandle PCtxtHandle;

// 100-nanosecond ticks since 1601-01-01, as a FILETIME; SSPI fills them in local time.
typedef LARGE_INTEGER SECURITY_INTEGER, *PSECURITY_INTEGER;
typedef SECURITY_INTEGER TimeStamp;
typedef SECURITY_INTEGER* PTimeStamp;

typedef struct _SecBuffer {
    ULONG cbBuffer;
    ULONG BufferType;
    void* pvBuffer;
} SecBuffer, *PSecBuffer;

typedef struct _SecBufferDesc {
    ULONG ulVersion;
    ULONG cBuffers;
    PSecBuffer pBuffers;
} SecBufferDesc, *PSecBufferDesc;

typedef struct _SecPkgInfoW {
    ULONG fCapabilities;
    USHORT wVersion;
    USHORT wRPCID;
    ULONG cbMaxToken;
    SEC_WCHAR* Name;
    SEC_WCHAR* Comment;
} SecPkgInfoW, *PSecPkgInfoW;

typedef struct _SecPkgContext_Lifespan {
    TimeStamp tsStart;
    TimeStamp tsExpiry;
} SecPkgContext_Lifespan, *PSecPkgContext_Lifespan;

typedef struct _SEC_WINNT_AUTH_IDENTITY_W {
    unsigned short* User;
    ULONG UserLength;
    unsigned short* Domain;
    ULONG DomainLength;
    unsigned short* Password;
    ULONG PasswordLength;
    ULONG Flags;
} SEC_WINNT_AUTH_IDENTITY_W, *PSEC_WINNT_AUTH_IDENTITY_W;

typedef void(WINAPI* SEC_GET_KEY_FN)(void* Arg, void* Principal, ULONG KeyVer, void** Key, SECURITY_STATUS* Status);

#define SEC_WINNT_AUTH_IDENTITY_ANSI 0x1u
#define SEC_WINNT_AUTH_IDENTITY_UNICODE 0x2u

#define SECPKG_CRED_INBOUND 0x00000001u
#define SECPKG_CRED_OUTBOUND 0x00000002u
#define SECPKG_CRED_BOTH 0x00000003u

#define SECBUFFER_VERSION 0u
#define SECBUFFER_EMPTY 0u
#define SECBUFFER_DATA 1u
#define SECBUFFER_TOKEN 2u

#define SECURITY_NATIVE_DREP 0x00000010u
#define SECURITY_NETWORK_DREP 0x00000000u

#define SECPKG_ATTR_SIZES 0u
#define SECPKG_ATTR_NAMES 1u
#define SECPKG_ATTR_LIFESPAN 2u

#define ISC_REQ_DELEGATE 0x00000001u
#define ISC_REQ_MUTUAL_AUTH 0x00000002u
#define ISC_REQ_ALLOCATE_MEMORY 0x00000100u
#define ISC_RET_DELEGATE 0x00000001u
#define ISC_RET_MUTUAL_AUTH 0x00000002u
#define ISC_RET_ALLOCATED_MEMORY 0x00000100u
#define ASC_REQ_DELEGATE 0x00000001u
#define ASC_REQ_MUTUAL_AUTH 0x00000002u
#define ASC_REQ_ALLOCATE_MEMORY 0x00000100u
#define ASC_RET_DELEGATE 0x00000001u
#define ASC_RET_MUTUAL_AUTH 0x00000002u
#define ASC_RET_ALLOCATED_MEMORY 0x00000100u

// Results, with Windows' values.
#define SEC_E_OK (static_cast<SECURITY_STATUS>(0x00000000L))
#define SEC_I_CONTINUE_NEEDED (static_cast<SECURITY_STATUS>(0x00090312L))
#define SEC_I_COMPLETE_NEEDED (static_cast<SECURITY_STATUS>(0x00090313L))
#define SEC_I_COMPLETE_AND_CONTINUE (static_cast<SECURITY_STATUS>(0x00090314L))
#define SEC_E_INSUFFICIENT_MEMORY (static_cast<SECURITY_STATUS>(0x80090300L))
#define SEC_E_INVALID_HANDLE (static_cast<SECURITY_STATUS>(0x80090301L))
#define SEC_E_UNSUPPORTED_FUNCTION (static_cast<SECURITY_STATUS>(0x80090302L))
#define SEC_E_TARGET_UNKNOWN (static_cast<SECURITY_STATUS>(0x80090303L))
#define SEC_E_INTERNAL_ERROR (static_cast<SECURITY_STATUS>(0x80090304L))
#define SEC_E_SECPKG_NOT_FOUND (static_cast<SECURITY_STATUS>(0x80090305L))
#define SEC_E_NOT_OWNER (static_cast<SECURITY_STATUS>(0x80090306L))
#define SEC_E_INVALID_TOKEN (static_cast<SECURITY_STATUS>(0x80090308L))
#define SEC_E_NO_IMPERSONATION (static_cast<SECURITY_STATUS>(0x8009030BL))
#define SEC_E_LOGON_DENIED (static_cast<SECURITY_STATUS>(0x8009030CL))
#define SEC_E_UNKNOWN_CREDENTIALS (static_cast<SECURITY_STATUS>(0x8009030DL))
#define SEC_E_NO_CREDENTIALS (static_cast<SECURITY_STATUS>(0x8009030EL))
#define SEC_E_MESSAGE_ALTERED (static_cast<SECURITY_STATUS>(0x8009030FL))
#define SEC_E_OUT_OF_SEQUENCE (static_cast<SECURITY_STATUS>(0x80090310L))
#define SEC_E_NO_AUTHENTICATING_AUTHORITY (static_cast<SECURITY_STATUS>(0x80090311L))
#define SEC_E_CONTEXT_EXPIRED (static_cast<SECURITY_STATUS>(0x80090317L))
#define SEC_E_BUFFER_TOO_SMALL (static_cast<SECURITY_STATUS>(0x80090321L))
#define SEC_E_WRONG_PRINCIPAL (static_cast<SECURITY_STATUS>(0x80090322L))
#define SEC_E_TIME_SKEW (static_cast<SECURITY_STATUS>(0x80090324L))
#define SEC_E_INVALID_PARAMETER (static_cast<SECURITY_STATUS>(0x8009035DL))

#endif  // _WIN32
