// External single sign-on: the handle's parameters (a sequence, FuzzInput.h; the server list among them), then the
// agent's result for the token, the token, and the attributes the agent returns, a line each ("id=value"; no '=':
// a NULL value), from an agent of the fuzzer's own behind the agent family's seam.
#include <cstdlib>
#include <cstring>

#include "FuzzInput.h"
#include "ostrel_platform/ISiteMinderAgent.h"

using namespace ostrel::platform;

struct FuzzAgent : ISiteMinderAgent, ISiteMinderAgentLoader {
    std::shared_ptr<ISiteMinderAgent> Load() override {
        return {this, [](ISiteMinderAgent*) {}};
    }
    int Sm_AgentApi_Init(AgentInitRecord* pInit, void** ppHandle) override {
        for (int32_t i = 0; i < pInit->nServers; ++i) g_nTouched = g_nTouched + strlen(pInit->pServers[i].szHostName);
        return *ppHandle = this, SM_AGENTAPI_SUCCESS;
    }
    int Sm_AgentApi_UnInit(void** ppHandle) override { return *ppHandle = nullptr, SM_AGENTAPI_SUCCESS; }
    int Sm_AgentApi_DoManagement(void*, AgentManagementRecord*, int32_t*, AgentAttributeRecord**) override { return 0; }
    int Sm_AgentApi_DecodeSSOToken(void*, const char* pszToken, int32_t*, int32_t*, int32_t* pnCount,
                                   AgentAttributeRecord** ppAttributes, int32_t, void*, void*) override {
        g_nTouched = g_nTouched + strlen(pszToken);
        *pnCount = static_cast<int32_t>(attributes.size());  // as the agent promises: the array's own length
        *ppAttributes = attributes.empty() ? nullptr : new AgentAttributeRecord[attributes.size()]();
        for (size_t i = 0; i < attributes.size(); ++i) {
            const size_t eq = attributes[i].find('=');
            (*ppAttributes)[i].nAttributeId = std::atoi(attributes[i].c_str());
            (*ppAttributes)[i].pValue = eq == std::string::npos ? nullptr : strdup(attributes[i].c_str() + eq + 1);
        }
        return nResult;
    }
    int Sm_AgentApi_FreeAttributes(int32_t nCount, AgentAttributeRecord* pAttributes) override {
        for (int32_t i = 0; i < nCount; ++i) std::free(pAttributes[i].pValue);
        return delete[] pAttributes, SM_AGENTAPI_SUCCESS;
    }
    int nResult = 0;
    std::vector<std::string> attributes;
} g_agent;
ScopedSiteMinderAgentLoaderOverride g_override(g_agent);

extern "C" int LLVMFuzzerInitialize(int*, char***) { return SSOInitPackage() == SSO_STATUS_OK ? 0 : 1; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* i_pData, size_t i_nSize) {
    std::string_view rest(reinterpret_cast<const char*>(i_pData), i_nSize);
    const Sequence seq(rest);
    g_agent.nResult = std::atoi(RawLine(rest).c_str());
    const std::u16string token = Line(rest);
    for (g_agent.attributes.clear(); !rest.empty();) g_agent.attributes.push_back(RawLine(rest));
    CExternalSSO* pHandle = nullptr;
    ostrel_char* pName = nullptr;
    if (Check(ExternalSSOCreateHandle(seq.Head(), &pHandle)) == SSO_STATUS_OK) {
        if (Check(ExternalSSOVerifyUser(pHandle, token.c_str(), &pName)) == SSO_STATUS_OK) Touch(pName);
        SSOFreeString(pName), Check(ExternalSSODestroyHandle(pHandle));
    }
    return 0;
}
