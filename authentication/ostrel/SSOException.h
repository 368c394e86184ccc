// The one internal failure type: a status for the host, a message id, and up
// to three substitution strings.
#pragma once

#include <cstdint>

#include "FoundationNames.h"
#include "foundation/Containers.h"
#include "foundation/SString.h"

namespace ostrel {

// Message ids the plug-in raises; their texts live in the message store.
enum MessageId : uint32_t {
    MSG_PARAMETER_WRONG_TYPE = 42038,
    MSG_DEFAULT = 42254,
    MSG_OUT_OF_MEMORY_RECORD = 42256,
    MSG_OUT_OF_MEMORY = 42502,
    MSG_NOT_INITIALIZED = 47300,
    MSG_BAD_USER_NAME = 47702,
    MSG_EXTERNAL_PARAMETER_MISSING = 49442,
    MSG_EXTERNAL_SERVERS_MALFORMED = 49443,
    MSG_EXTERNAL_SECRET_OR_AGENT = 49444,
    MSG_EXTERNAL_VENDOR = 49446,
    MSG_EXTERNAL_HOST_TOO_LONG = 49447,
    MSG_EXTERNAL_AGENT_TOO_LONG = 49448,
    MSG_EXTERNAL_SECRET_TOO_LONG = 49449,
    MSG_NO_AUTHENTICATING_AUTHORITY = 50046,
    MSG_TARGET_UNKNOWN = 50047,
    MSG_LOGON_DENIED_CLIENT = 50054,
    MSG_CACHING_OFF = 61748,
    MSG_WRONG_PRINCIPAL = 61749,
    MSG_SPN_MISSING = 61773,
    MSG_CREDENTIALS = 61774,
    MSG_TOKEN_NOT_FOUND = 61775,
    MSG_IMPERSONATION = 61776,
    MSG_MECHANISM_UNAVAILABLE = 61777,
    MSG_NO_HANDLER = 61778,
    MSG_NO_TOKEN = 61869,
};

// Results of the exports.
enum Status : uint32_t {
    STATUS_OK = 0,
    STATUS_CONTINUE = 1,
    STATUS_SERVER_DONE = 2,
    STATUS_LOGON_DENIED = 3,
    STATUS_FAILURE = 100,
    STATUS_NOT_SUPPORTED = 101,
    STATUS_NO_CONTEXT = 103,
    STATUS_OUT_OF_MEMORY = 106,
    STATUS_NO_CONNECTION = 110,
    STATUS_EXTERNAL_SETUP = 113,
};

class SSOException {
public:
    explicit SSOException(uint32_t i_nStatus) : m_nStatus(i_nStatus), m_nMessageId(MSG_DEFAULT) {}
    SSOException(uint32_t i_nStatus, uint32_t i_nMessageId) : m_nStatus(i_nStatus), m_nMessageId(i_nMessageId) {}
    SSOException(uint32_t i_nStatus, uint32_t i_nMessageId, const SIArray<SWCharString>& i_arrSubstStrings)
        : m_nStatus(i_nStatus), m_nMessageId(i_nMessageId), m_arrSubstStrings(i_arrSubstStrings) {}
    SSOException(const SSOException&) = default;
    SSOException& operator=(const SSOException&) = default;
    virtual ~SSOException() = default;

    uint32_t GetCode() const { return m_nStatus; }
    uint32_t GetMessageId() const { return m_nMessageId; }
    const SIArray<SWCharString>& GetSubstStrings() const { return m_arrSubstStrings; }

private:
    uint32_t m_nStatus;
    uint32_t m_nMessageId;
    SIArray<SWCharString> m_arrSubstStrings;
};

// Built at load so that running out of memory needs no allocation but a copy.
extern const SSOException g_OutOfMemoryException;

// One substitution string, the common case.
SSOException MakeSSOException(uint32_t i_nStatus, uint32_t i_nMessageId, const SWCharString& i_ssSubst);

}  // namespace ostrel
