/*
 * ostrel: the boundary of the single-sign-on plug-in.
 *
 * Plain C, usable from C and C++. Every string that crosses this boundary is
 * zero-terminated 16-bit text (UTF-16 code units) on every platform. Whatever
 * the plug-in hands out is allocated by it and comes back through the matching
 * SSOFree* function.
 */
#ifndef OSTREL_OSTREL_H
#define OSTREL_OSTREL_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
typedef wchar_t ostrel_char;
#define OSTREL_T(s) L##s
#define OSTREL_CALL __cdecl
#elif defined(__cplusplus)
typedef char16_t ostrel_char;
#define OSTREL_T(s) u##s
#define OSTREL_CALL
#else
#include <uchar.h>
typedef char16_t ostrel_char;
#define OSTREL_T(s) u##s
#define OSTREL_CALL
#endif

#if defined(OSTREL_BUILDING_LIBRARY)
#if defined(_WIN32)
#define OSTREL_API __declspec(dllexport)
#else
#define OSTREL_API __attribute__((visibility("default")))
#endif
#else
#define OSTREL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Results of every function. */
#define SSO_STATUS_OK 0u
#define SSO_STATUS_CONTINUE 1u
#define SSO_STATUS_SERVER_DONE 2u
#define SSO_STATUS_LOGON_DENIED 3u
#define SSO_STATUS_FAILURE 100u
#define SSO_STATUS_NOT_SUPPORTED 101u
#define SSO_STATUS_NO_CONTEXT 103u
#define SSO_STATUS_OUT_OF_MEMORY 106u
#define SSO_STATUS_NO_CONNECTION 110u
#define SSO_STATUS_EXTERNAL_SETUP 113u

/* Parameter types of a ParasSeq element. */
#define SSO_PARAM_STRING 1u
#define SSO_PARAM_LONG 2u
#define SSO_PARAM_BOOL 3u

/* Parameter keys of the host's property names. */
#define WP_SI_SERVER_SSPI_SPN_W OSTREL_T("SI_SERVER_SSPI_SPN")
#define WP_SI_CACHE_SECCONTEXT_W OSTREL_T("SI_CACHE_SECCONTEXT")
#define WP_SI_SSO_VENDOR_W OSTREL_T("SI_SSO_VENDOR")
#define WP_SI_SSO_SERVERS_AND_PORTS_W OSTREL_T("SI_SSO_SERVERS_AND_PORTS")
#define WP_SI_SSO_SHARED_SECRET_W OSTREL_T("SI_SSO_SHARED_SECRET")
#define WP_SI_SSO_AGENT_W OSTREL_T("SI_SSO_AGENT")
#define WP_SI_SSO_ACCESS_MODE_W OSTREL_T("SI_SSO_ACCESS_MODE")

/* The plug-in's own keys. */
#define SSO_KEY_CTXT_CACHE_EXPIRY OSTREL_T("SSPI_CTXT_CACHE_EXPIRY")
#define SSO_KEY_CONTEXT_RENEWALS_ALLOWED OSTREL_T("CONTEXT_RENEWALS_ALLOWED")
#define SSO_KEY_GSSAPI_USER_NAME OSTREL_T("GSSAPI_USER_NAME")
#define SSO_KEY_SSPI_USER_SID OSTREL_T("SSPI_USER_SID")
#define SSO_KEY_SSPI_USER_GROUP_SIDS OSTREL_T("SSPI_USER_GROUP_SIDS")

/* Session keys with a fixed meaning. */
#define SSO_DUMMY_KEY OSTREL_T("DUMMY_KEY")
#define SSO_DUMMY_KEY_CACHING_IS_OFF OSTREL_T("DUMMY_KEY__CACHING_IS_OFF")

/* Provider names. */
#define SSO_PROVIDER_SSPI OSTREL_T("SSPI")
#define SSO_PROVIDER_GSSAPI OSTREL_T("GSSAPI")
#define SSO_PROVIDER_THREADTOKEN OSTREL_T("THREADTOKEN")

/* One element of a flat parameter list: 32 bytes on 64-bit platforms. */
typedef struct ParasSeq {
    ostrel_char* key;
    uint32_t type; /* read by its low 8 bits */
    uint32_t reserved;
    ostrel_char* value; /* text form, whatever the type */
    struct ParasSeq* next;
} ParasSeq;

typedef struct SubstString {
    ostrel_char* data; /* NULL for an empty substitution string */
    struct SubstString* next;
} SubstString;

typedef struct Plugin_Exception_Struct {
    uint32_t errCode;
    uint32_t messageId;
    SubstString* pSubstStrings;
    ostrel_char* message;
} Plugin_Exception_Struct;

/* An external single-sign-on verifier; the host keeps it as an opaque value. */
typedef struct CExternalSSO CExternalSSO;

/* Life and errors. */
OSTREL_API unsigned int OSTREL_CALL SSOInitPackage(void);
OSTREL_API unsigned int OSTREL_CALL SSOTermPackage(void);
OSTREL_API unsigned int OSTREL_CALL SSOFreeString(ostrel_char* i_pString);
OSTREL_API unsigned int OSTREL_CALL SSOGetError(unsigned int i_ErrorCode,
                                                Plugin_Exception_Struct** o_ppError);
OSTREL_API unsigned int OSTREL_CALL SSOFreeError(Plugin_Exception_Struct* i_pError);
OSTREL_API unsigned int OSTREL_CALL SSOGetMessageContent(unsigned int i_MessageId,
                                                         ostrel_char** o_ppMessage);
/* Kept for hosts that look the name up; it does nothing and answers 100. */
OSTREL_API unsigned int OSTREL_CALL SSOReleaseAllProviderSecContexts(void);

/* Providers, logins and contexts. */
OSTREL_API unsigned int OSTREL_CALL SSOInitProvider(const ostrel_char* i_pProvider,
                                                   const ParasSeq* i_pParameters);
OSTREL_API unsigned int OSTREL_CALL SSOGetRequiredParameters(const ostrel_char* i_pProvider,
                                                            ParasSeq** o_ppParameters);
OSTREL_API unsigned int OSTREL_CALL SSOStartLogin(const ostrel_char* i_pUsername,
                                                 const ostrel_char* i_pPassword,
                                                 const ostrel_char* i_pProvider,
                                                 const ParasSeq* i_pParameters,
                                                 ostrel_char** o_ppSessionKey, void** o_ppvBuffer,
                                                 size_t* o_pnBufferLength);
OSTREL_API unsigned int OSTREL_CALL SSOContinueLogin(const ostrel_char* i_pSessionKey,
                                                    const void* i_pvBuffer, size_t i_nBufferLength,
                                                    void** o_ppvBuffer, size_t* o_pnBufferLength);
OSTREL_API unsigned int OSTREL_CALL SSOAcceptLogin(const ostrel_char* i_pSessionKey,
                                                  const ostrel_char* i_pProvider,
                                                  const void* i_pvBuffer, size_t i_nBufferLength,
                                                  void** o_ppvBuffer, size_t* o_pnBufferLength,
                                                  ParasSeq** o_ppParameters,
                                                  ostrel_char** o_ppSessionKey);
OSTREL_API unsigned int OSTREL_CALL SSOImpersonate(const ostrel_char* i_pSessionID);
OSTREL_API unsigned int OSTREL_CALL SSORevert(const ostrel_char* i_pSessionID);
OSTREL_API unsigned int OSTREL_CALL SSOAssociateSecurityContext(const ostrel_char* i_pSessionID,
                                                               const ostrel_char* i_pNewKey);
OSTREL_API unsigned int OSTREL_CALL SSOLookupSecurityContext(const ostrel_char* i_pSessionID);
OSTREL_API unsigned int OSTREL_CALL SSOAcquireCurrentSecurityContext(
    const ostrel_char* i_pProvider, const ParasSeq* i_pParameters, ostrel_char** o_ppSessionID);
OSTREL_API unsigned int OSTREL_CALL SSOReleaseSecurityContext(const ostrel_char* i_pSessionID);
OSTREL_API unsigned int OSTREL_CALL SSOReleaseAllSecurityContexts(void);
OSTREL_API unsigned int OSTREL_CALL SSOFreeBuffer(void* i_pvBuffer);
OSTREL_API unsigned int OSTREL_CALL SSOFreeParameters(ParasSeq* i_pParameters);

/* External single-sign-on verification. */
OSTREL_API unsigned int OSTREL_CALL ExternalSSOCreateHandle(const ParasSeq* i_pParameters,
                                                           CExternalSSO** o_pHandle);
OSTREL_API unsigned int OSTREL_CALL ExternalSSODestroyHandle(CExternalSSO* i_Handle);
OSTREL_API unsigned int OSTREL_CALL ExternalSSOVerifyUser(CExternalSSO* i_Handle,
                                                         const ostrel_char* i_pToken,
                                                         ostrel_char** o_ppUserName);

#ifdef __cplusplus
}
#endif

#endif /* OSTREL_OSTREL_H */
