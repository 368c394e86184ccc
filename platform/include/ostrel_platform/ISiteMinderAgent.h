// The SiteMinder agent library: the records it reads and writes, laid out as
// it lays them out, and the five functions the logic calls. The library is
// bound at run time, once per external handle, so that the plug-in loads on a
// machine without it. The live loader is SiteMinderAgentLoader().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/SString.h"
#include "ostrel_platform/Seam.h"

namespace ostrel::platform {

// Results of the agent's calls that the logic tells apart.
constexpr int SM_AGENTAPI_SUCCESS = 0;
constexpr int SM_AGENTAPI_ANSWERED = 1;  // a management call that the server answered, too
constexpr int SM_AGENTAPI_REFUSED = -1;  // agent name or shared secret refused
constexpr int SM_AGENTAPI_NOCONNECTION = -3;

constexpr int32_t SM_AGENTAPI_VERSION = 1024;
constexpr size_t SM_AGENTAPI_TEXT_SIZE = 256;
constexpr int32_t SM_AGENTAPI_MANAGEMENT_COMMAND = 1;

// Text fields are narrow, zero-terminated, in the code set the logic converts to.
struct AgentServerRecord {
    char szHostName[SM_AGENTAPI_TEXT_SIZE];
    int32_t nConnectionMin;
    int32_t nConnectionMax;
    int32_t nConnectionStep;
    int32_t nServerTimeout;
    int32_t nAzPort;
    int32_t nAuthPort;
    int32_t nAcctPort;
    unsigned char reserved[36];
};

struct AgentInitRecord {
    int32_t nVersion;
    char szAgentName[SM_AGENTAPI_TEXT_SIZE];
    char szSharedSecret[SM_AGENTAPI_TEXT_SIZE];
    int32_t nFailOver;  // 0 for access mode 1, otherwise 1
    int32_t nServers;
    int32_t nReserved;
    AgentServerRecord* pServers;
};

struct AgentManagementRecord {
    int32_t nCommand;
    char data[SM_AGENTAPI_TEXT_SIZE];
};

struct AgentAttributeRecord {
    int32_t nAttributeId;
    unsigned char reserved[76];
    char* pValue;  // may be null
};

static_assert(sizeof(void*) == 8, "the agent's records are those of its 64-bit library");
static_assert(sizeof(AgentServerRecord) == 320);
static_assert(offsetof(AgentServerRecord, nConnectionMin) == 256);
static_assert(offsetof(AgentServerRecord, nConnectionMax) == 260);
static_assert(offsetof(AgentServerRecord, nConnectionStep) == 264);
static_assert(offsetof(AgentServerRecord, nServerTimeout) == 268);
static_assert(offsetof(AgentServerRecord, nAzPort) == 272);
static_assert(offsetof(AgentServerRecord, nAuthPort) == 276);
static_assert(offsetof(AgentServerRecord, nAcctPort) == 280);
static_assert(sizeof(AgentInitRecord) == 536);
static_assert(offsetof(AgentInitRecord, szAgentName) == 4);
static_assert(offsetof(AgentInitRecord, szSharedSecret) == 260);
static_assert(offsetof(AgentInitRecord, nFailOver) == 516);
static_assert(offsetof(AgentInitRecord, nServers) == 520);
static_assert(offsetof(AgentInitRecord, nReserved) == 524);
static_assert(offsetof(AgentInitRecord, pServers) == 528);
static_assert(sizeof(AgentManagementRecord) == 260);
static_assert(offsetof(AgentManagementRecord, data) == 4);
static_assert(sizeof(AgentAttributeRecord) == 88);
static_assert(offsetof(AgentAttributeRecord, pValue) == 80);

// One bound agent library, with the library's own names and arguments.
class ISiteMinderAgent {
public:
    virtual ~ISiteMinderAgent() = default;

    virtual int Sm_AgentApi_Init(AgentInitRecord* pInitRecord, void** ppHandle) = 0;
    virtual int Sm_AgentApi_UnInit(void** ppHandle) = 0;
    virtual int Sm_AgentApi_DoManagement(void* pHandle, AgentManagementRecord* pManagement, int32_t* pnAttributes,
                                         AgentAttributeRecord** ppAttributes) = 0;
    // The third and fourth are outputs the logic does not read; the last three are 0, null, null.
    virtual int Sm_AgentApi_DecodeSSOToken(void* pHandle, const char* pszToken, int32_t* pnOutput3, int32_t* pnOutput4,
                                           int32_t* pnAttributes, AgentAttributeRecord** ppAttributes,
                                           int32_t nArgument7, void* pArgument8, void* pArgument9) = 0;
    virtual int Sm_AgentApi_FreeAttributes(int32_t nAttributes, AgentAttributeRecord* pAttributes) = 0;
};

class ISiteMinderAgentLoader {
public:
    virtual ~ISiteMinderAgentLoader() = default;
    // Binds the library and its five functions; a library that cannot be
    // loaded or lacks one of them is a Tarvik500::CSharedLibraryException
    // whose text names the file and the function.
    virtual std::shared_ptr<ISiteMinderAgent> Load() = 0;
};

namespace detail {
// The live loader, shared by the platforms.
ISiteMinderAgentLoader& PortSiteMinderAgentLoader();
// OSTREL_SITEMINDER_LIBRARY as it stands now, or the platform's usual name.
Tarvik500::SWCharString SiteMinderLibraryName();
}  // namespace detail

inline ISiteMinderAgentLoader& SiteMinderAgentLoader() {
    return Seam<ISiteMinderAgentLoader>::Get(detail::PortSiteMinderAgentLoader);
}

using ScopedSiteMinderAgentLoaderOverride = ScopedOverride<ISiteMinderAgentLoader>;

}  // namespace ostrel::platform
