#include "ExternalSSO.h"

#include <cstring>
#include <new>
#include <utility>

#include "foundation/DateTime.h"
#include "foundation/SharedLibrary.h"
#include "foundation/Trace.h"
#include "ostrel_platform/ISystemApi.h"

namespace ostrel {

using Tarvik500::CSharedLibraryException;
using Tarvik500::ECS_UTF8;
using Tarvik500::MBCSCodesetConverter;
using Tarvik500::SSimpleBuffer;
using Tarvik500::ToInt32;

using platform::AgentAttributeRecord;
using platform::AgentInitRecord;
using platform::AgentManagementRecord;
using platform::AgentServerRecord;

const char* const g_arrExternalUserTypeNames[11] = {
    "Unknown", "User", "User Group",      "User Attribute", "User Role",    "Organization",
    "Query",   "All",  "Group Attribute", "Org Attribute",  "DN Attribute",
};

namespace {

constexpr WORD kWinsockVersion = 514;  // 2.2

// The token attributes that are read; others are skipped.
enum AttributeId : int32_t {
    ATTR_USERNAME = 218,
    ATTR_MAXIDLETIME = 225,
    ATTR_MAXSESSIONTIME = 226,
    ATTR_STARTSESSIONTIME = 154,
    ATTR_LASTSESSIONTIME = 155,
};

// Copies narrow text into a record field that has room for it and its terminator.
void CopyText(char (&o_field)[platform::SM_AGENTAPI_TEXT_SIZE], const SSimpleBuffer& i_text) {
    std::memcpy(o_field, i_text.data(), i_text.size());
    o_field[i_text.size()] = 0;
}

// a - b as 32-bit arithmetic wraps, without the undefined overflow of int.
int32_t Difference32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

}  // namespace

CSiteMinderSSO::CSiteMinderSSO(SWCharString i_ssServersAndPorts, SWCharString i_ssAgentName,
                               SWCharString i_ssSharedSecret, int i_nAccessMode)
    : m_nServerTimeout(SSOConstants::Defaults::ServerTimeout),
      m_nConnectionMin(SSOConstants::Defaults::ConnectionMin),
      m_nConnectionMax(SSOConstants::Defaults::ConnectionMax),
      m_nConnectionStep(SSOConstants::Defaults::ConnectionStep),
      m_ssServersAndPorts(std::move(i_ssServersAndPorts)),
      m_ssAgentName(std::move(i_ssAgentName)),
      m_ssSharedSecret(std::move(i_ssSharedSecret)),
      m_nAccessMode(i_nAccessMode) {}

CSiteMinderSSO::~CSiteMinderSSO() {
    if (m_pAgentHandle != nullptr) {
        UninitializeSSONoLock();
    }
}

void CSiteMinderSSO::BindAgentLibrary() {
    if (m_pAgent != nullptr) {
        return;
    }
    try {
        m_pAgent = platform::SiteMinderAgentLoader().Load();
    } catch (CSharedLibraryException& e) {
        STRACE("ostrel: InitializeSSO() cannot bind the SiteMinder agent library: %1", e.text());
        throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_SECRET_OR_AGENT);
    }
}

void CSiteMinderSSO::InitializeSSO() {
    CSmartWriteLocker lock(m_Lock);
    if (m_ssServersAndPorts.isEmpty() || m_ssAgentName.isEmpty() || m_ssSharedSecret.isEmpty() || m_nAccessMode == 0) {
        STRACE(
            "ostrel: InitializeSSO() one of the following are empty: servers and ports, agent name, shared "
            "secret, access mode.");
        throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_PARAMETER_MISSING);
    }
    AgentServerRecord* pServers = nullptr;
    try {
        AgentInitRecord initRecord;
        std::memset(&initRecord, 0, sizeof(initRecord));
        if (m_pAgentHandle != nullptr) {
            UninitializeSSONoLock();
        }
        FillInitRecord(initRecord, pServers);
        // Bound only now, so that a bad configuration is reported as such on a machine without the library.
        BindAgentLibrary();

        void* pAgentHandle = nullptr;
        const int nResult = m_pAgent->Sm_AgentApi_Init(&initRecord, &pAgentHandle);
        delete[] pServers;
        pServers = nullptr;
        if (nResult == platform::SM_AGENTAPI_REFUSED) {
            STRACE(
                "ostrel: InitializeSSO() failed to create a handle to the SiteMinder server.  agent name or "
                "shared secret are incorrect.");
            throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_SECRET_OR_AGENT);
        }
        if (nResult != platform::SM_AGENTAPI_SUCCESS) {
            STRACE("ostrel: InitializeSSO() unknown return code from Sm_AgentApi_Init: %1", nResult);
            throw SSOException(STATUS_FAILURE);
        }
        // A handle whose server does not answer is not closed, as the agent expects.
        if (!TestConnection(pAgentHandle)) {
            STRACE(
                "ostrel: InitializeSSO() could not contact the SiteMinder server, host name or port information "
                "is not correct or server is down.");
            throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_SERVERS_MALFORMED);
        }
        m_pAgentHandle = pAgentHandle;
    } catch (...) {
        delete[] pServers;
        STRACE(OSTREL_T("ostrel: InitializeSiteMinderSSO: caught exception initializing SiteMinder."));
        throw;
    }
}

void CSiteMinderSSO::FillInitRecord(AgentInitRecord& o_record, AgentServerRecord*& o_pServers) {
    SIArray<SSimpleBuffer> arrSSOServers;
    SIArray<int> arrAzPorts;
    SIArray<int> arrAuthPorts;
    SIArray<int> arrAcctPorts;
    ParseSiteMinderServersAndPorts(m_ssServersAndPorts, arrSSOServers, arrAzPorts, arrAuthPorts, arrAcctPorts);
    const int64_t nServers = arrSSOServers.GetSize();
    const bool bSizesAgree =
        nServers == arrAzPorts.GetSize() && nServers == arrAuthPorts.GetSize() && nServers == arrAcctPorts.GetSize();
    SASSERT(bSizesAgree,
            "(arrSSOServers.GetSize() == arrAzPorts.GetSize()) && (arrSSOServers.GetSize() == "
            "arrAuthPorts.GetSize()) && (arrSSOServers.GetSize() == arrAcctPorts.GetSize())");
    if (!bSizesAgree) {
        STRACE(
            "ostrel: InitializeSSO() the server and port information is malformed, number of servers and ports "
            "do not match.");
        throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_SERVERS_MALFORMED);
    }

    const SSimpleBuffer agentName = MBCSCodesetConverter::TToExplicitCodeset(m_ssAgentName, ECS_UTF8);
    const SSimpleBuffer sharedSecret = MBCSCodesetConverter::TToExplicitCodeset(m_ssSharedSecret, ECS_UTF8);

    // Started once per connection and never cleaned up: the agent library may use sockets at any time.
    WSADATA wsaData;
    if (platform::System().WSAStartup(kWinsockVersion, &wsaData) != 0) {
        STRACE("ostrel: InitializeSSO() WSAStartup failed - initialization of the WS2_32.DLL was not possible.");
        throw SSOException(STATUS_FAILURE);
    }

    constexpr int kMaxLength = static_cast<int>(platform::SM_AGENTAPI_TEXT_SIZE);
    o_record.nVersion = platform::SM_AGENTAPI_VERSION;
    if (agentName.size() >= platform::SM_AGENTAPI_TEXT_SIZE) {
        STRACE("ostrel: InitializeSSO() the agent name %1 exceeds the max length of %2", agentName.data(), kMaxLength);
        throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_AGENT_TOO_LONG);
    }
    CopyText(o_record.szAgentName, agentName);
    if (sharedSecret.size() >= platform::SM_AGENTAPI_TEXT_SIZE) {
        STRACE("ostrel: InitializeSSO() the agent nshared secret exceeds the max length of %1", kMaxLength);
        throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_SECRET_TOO_LONG);
    }
    CopyText(o_record.szSharedSecret, sharedSecret);

    o_record.nFailOver = m_nAccessMode == 1 ? 0 : 1;
    o_record.nServers = static_cast<int32_t>(nServers);
    try {
        o_pServers = new AgentServerRecord[static_cast<size_t>(nServers)]();
    } catch (std::bad_alloc&) {
        throw SSOException(g_OutOfMemoryException);
    }
    o_record.pServers = o_pServers;
    for (int64_t i = 0; i < nServers; ++i) {
        AgentServerRecord& server = o_pServers[i];
        if (arrSSOServers[i].size() >= platform::SM_AGENTAPI_TEXT_SIZE) {
            STRACE("ostrel: InitializeSSO() the host name %1 exceeds the max length of %2", arrSSOServers[i].data(),
                   kMaxLength);
            throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_HOST_TOO_LONG);
        }
        CopyText(server.szHostName, arrSSOServers[i]);
        server.nConnectionMin = m_nConnectionMin;
        server.nConnectionMax = m_nConnectionMax;
        server.nConnectionStep = m_nConnectionStep;
        server.nServerTimeout = m_nServerTimeout;
        server.nAzPort = arrAzPorts[i];
        server.nAuthPort = arrAuthPorts[i];
        server.nAcctPort = arrAcctPorts[i];
    }
}

bool CSiteMinderSSO::TestConnection(void* i_pAgentHandle) {
    AgentManagementRecord management;
    std::memset(&management, 0, sizeof(management));
    management.nCommand = platform::SM_AGENTAPI_MANAGEMENT_COMMAND;
    int32_t nAttributes = 0;
    AgentAttributeRecord* pAttributes = nullptr;
    bool bAnswered = false;
    try {
        const int nResult = m_pAgent->Sm_AgentApi_DoManagement(i_pAgentHandle, &management, &nAttributes, &pAttributes);
        bAnswered = nResult == platform::SM_AGENTAPI_SUCCESS || nResult == platform::SM_AGENTAPI_ANSWERED;
    } catch (...) {
        bAnswered = false;
    }
    if (pAttributes != nullptr) {
        try {
            m_pAgent->Sm_AgentApi_FreeAttributes(nAttributes, pAttributes);
        } catch (...) {
        }
    }
    return bAnswered;
}

void CSiteMinderSSO::UninitializeSSO() {
    CSmartWriteLocker lock(m_Lock);
    UninitializeSSONoLock();
}

void CSiteMinderSSO::UninitializeSSONoLock() {
    try {
        if (m_pAgent != nullptr) {
            m_pAgent->Sm_AgentApi_UnInit(&m_pAgentHandle);
        }
    } catch (...) {
        STRACE("ostrel: CSiteMinderSSO::UninitializeSSONoLock: Caught exception from 3rd party SiteMinder libs");
    }
    m_pAgentHandle = nullptr;
}

bool CSiteMinderSSO::IsInitialized() {
    CSmartReadLocker lock(m_Lock);
    return m_pAgentHandle != nullptr;
}

void CSiteMinderSSO::SeparateElements(SWCharString i_ssText, SIArray<SWCharString>& o_arrElements,
                                      ostrel_char i_cSeparator, ostrel_char i_cEscape, bool i_bCollapseEscapes) {
    o_arrElements.RemoveAll();
    if (i_ssText.isEmpty()) {
        STRACE("ostrel: CSiteMinderSSO::SeparateElements: Empty List");
        return;
    }
    SWCharString ssElement;
    const ostrel_char* pText = i_ssText.c_str();
    const uint64_t nChars = i_ssText.getNChars();
    for (uint64_t i = 0; i < nChars; ++i) {
        const ostrel_char c = pText[i];
        if (c == i_cSeparator) {
            if (!ssElement.isEmpty()) {
                o_arrElements.Add(ssElement);
            }
            ssElement = SWCharString();
        } else if (c != i_cEscape) {
            ssElement += c;
        } else if (i + 1 == nChars) {
            SASSERT(false, "!itr.isAtEnd()");
            STRACE("ostrel: CSiteMinderSSO::SeparateElements: Invalid parameter");
            throw SSOException(STATUS_FAILURE);
        } else {
            const ostrel_char next = pText[++i];
            if (next == i_cEscape && i_bCollapseEscapes) {
                ssElement += next;
            } else if (next == i_cSeparator) {
                ssElement += next;
            } else {
                // Both stay: an escape before anything else is an ordinary character,
                // and without collapsing the next pass still sees the escaped escape.
                ssElement += c;
                ssElement += next;
            }
        }
    }
    if (!ssElement.isEmpty()) {
        o_arrElements.Add(ssElement);
    }
}

void CSiteMinderSSO::ParseSiteMinderServersAndPorts(const SWCharString& i_ssServersAndPorts,
                                                    SIArray<SSimpleBuffer>& arrSSOServers, SIArray<int>& arrAzPorts,
                                                    SIArray<int>& arrAuthPorts, SIArray<int>& arrAcctPorts) {
    using Defaults = SSOConstants::Defaults;
    try {
        SIArray<SWCharString> arrServers;
        SeparateElements(i_ssServersAndPorts, arrServers, Defaults::ServerSeparator, Defaults::Escape, false);
        for (int64_t i = 0; i < arrServers.GetSize(); ++i) {
            SIArray<SWCharString> arrHostPorts;
            SeparateElements(arrServers[i], arrHostPorts, Defaults::PortSeparator, Defaults::Escape, true);
            SASSERT(arrHostPorts.GetSize() == Defaults::ServerInfoCount,
                    "arrHostPorts.GetSize() == SSOConstants::Defaults::ServerInfoCount");
            if (arrHostPorts.GetSize() != Defaults::ServerInfoCount) {
                STRACE("ostrel: ParseServersAndPorts() malformed server and port info.");
                throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_SERVERS_MALFORMED);
            }
            arrSSOServers.Add(MBCSCodesetConverter::TToExplicitCodeset(arrHostPorts[0], ECS_UTF8));
            int arrPorts[3] = {0, 0, 0};
            for (int nPort = 0; nPort < 3; ++nPort) {
                if (!ToInt32(arrHostPorts[nPort + 1], arrPorts[nPort])) {
                    STRACE("ostrel: ParseServersAndPorts() could not parse port information from string to int.");
                    throw SSOException(STATUS_EXTERNAL_SETUP, MSG_EXTERNAL_SERVERS_MALFORMED);
                }
            }
            arrAzPorts.Add(arrPorts[0]);
            arrAuthPorts.Add(arrPorts[1]);
            arrAcctPorts.Add(arrPorts[2]);
        }
    } catch (SSOException& e) {
        STRACE(
            OSTREL_T("ostrel: CSiteMinderSSO::ParseSiteMinderServersAndPorts: caught exception parsing hosts and "
                     "ports."));
        throw SSOException(e);
    }
}

bool CSiteMinderSSO::VerifyUser(const SWCharString& i_ssToken, SWCharString& o_ssUserName) {
    CSmartReadLocker lock(m_Lock);
    const SSimpleBuffer token = MBCSCodesetConverter::TToExplicitCodeset(i_ssToken, ECS_UTF8);
    int32_t nOutput3 = 0;
    int32_t nOutput4 = 0;
    int32_t nAttributes = 0;
    AgentAttributeRecord* pTokenAttributes = nullptr;
    int nResult = -1;
    try {
        nResult = m_pAgent->Sm_AgentApi_DecodeSSOToken(m_pAgentHandle, token.data(), &nOutput3, &nOutput4, &nAttributes,
                                                       &pTokenAttributes, 0, nullptr, nullptr);
    } catch (...) {
        STRACE("ostrel: CSiteMinderSSO::VerifyUser: Caught exception from 3rd party SiteMinder libs.");
        nResult = -1;
    }
    // Whatever the way out, the attributes go back to the library.
    auto freeAttributes = [&]() {
        if (pTokenAttributes != nullptr) {
            try {
                m_pAgent->Sm_AgentApi_FreeAttributes(nAttributes, pTokenAttributes);
            } catch (...) {
                STRACE("ostrel: CSiteMinderSSO::VerifyUser: Caught exception from 3rd party SiteMinder libs.");
            }
        }
        nAttributes = 0;
        pTokenAttributes = nullptr;
    };
    if (nResult == platform::SM_AGENTAPI_NOCONNECTION) {
        freeAttributes();
        STRACE("ostrel: VerifyUser() Sm_AgentApi_DecodeSSOToken returned SM_AGENTAPI_NOCONNECTION");
        throw SSOException(STATUS_NO_CONNECTION);
    }
    bool bResult = false;
    if (nResult != platform::SM_AGENTAPI_SUCCESS) {
        STRACE("ostrel: VerifyUser() Sm_AgentApi_DecodeSSOToken failed with return code: %1", nResult);
    } else {
        SASSERT(pTokenAttributes != nullptr, "pTokenAttributes != NULL");
        SWCharString ssUserName;
        int nMaxIdleTime = -1;
        int nMaxSessionTime = -1;
        int nStartSessionTime = -1;
        int nLastSessionTime = -1;
        // A null array reads as no attributes at all.
        for (int32_t i = 0; pTokenAttributes != nullptr && i < nAttributes; ++i) {
            const AgentAttributeRecord& attribute = pTokenAttributes[i];
            if (attribute.pValue == nullptr) {
                continue;
            }
            int* pNumber = nullptr;
            switch (attribute.nAttributeId) {
                case ATTR_USERNAME:
                    ssUserName = MBCSCodesetConverter::ExplicitCodesetToT(attribute.pValue, ECS_UTF8);
                    continue;
                case ATTR_MAXIDLETIME:
                    pNumber = &nMaxIdleTime;
                    break;
                case ATTR_MAXSESSIONTIME:
                    pNumber = &nMaxSessionTime;
                    break;
                case ATTR_STARTSESSIONTIME:
                    pNumber = &nStartSessionTime;
                    break;
                case ATTR_LASTSESSIONTIME:
                    pNumber = &nLastSessionTime;
                    break;
                default:
                    continue;
            }
            // A value that is no number within int leaves the number as it stands.
            int nValue = 0;
            if (ToInt32(MBCSCodesetConverter::ExplicitCodesetToT(attribute.pValue, ECS_UTF8), nValue)) {
                *pNumber = nValue;
            }
        }
        if (ssUserName.isEmpty() || nMaxIdleTime < 0 || nMaxSessionTime < 0 || nStartSessionTime < 0 ||
            nLastSessionTime < 0) {
            STRACE("ostrel: VerifyUser() failed to extract attributes.");
        } else {
            // Seconds in signed 32 bits, as the token carries them.
            const auto nNow = static_cast<int32_t>(SDateTime::GetCurrentDateTime().GetTimeT(STimeZone::TZ_Local()));
            const bool bIdle = nMaxIdleTime != 0 && Difference32(nNow, nLastSessionTime) >= nMaxIdleTime;
            const bool bSession = nMaxSessionTime != 0 && Difference32(nNow, nStartSessionTime) >= nMaxSessionTime;
            if (bIdle || bSession) {
                STRACE(
                    "ostrel: VerifyUser() token has timed out. MaxIdleTime %1, MaxSessionTime %2, "
                    "StartSessionTime %3, LastAccessTime %4, Now %5",
                    nMaxIdleTime, nMaxSessionTime, nStartSessionTime, nLastSessionTime, nNow);
            } else {
                o_ssUserName = ssUserName;
                bResult = true;
            }
        }
    }
    freeAttributes();
    return bResult;
}

}  // namespace ostrel
