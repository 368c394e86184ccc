// The live SiteMinder agent: the library bound by name through the foundation,
// the same on every platform but for the name it is found under.
#include <memory>

#include "foundation/SharedLibrary.h"
#include "ostrel_platform/ISiteMinderAgent.h"

namespace ostrel::platform {
namespace {

using Tarvik500::CSharedLibrary;

class BoundSiteMinderAgent final : public ISiteMinderAgent {
public:
    explicit BoundSiteMinderAgent(const Tarvik500::SWCharString& i_ssName) {
        m_library.LoadLibraryW(i_ssName, CSharedLibrary::LM_NOW_LOCAL, true);
        Bind(m_pInit, "Sm_AgentApi_Init");
        Bind(m_pUnInit, "Sm_AgentApi_UnInit");
        Bind(m_pDoManagement, "Sm_AgentApi_DoManagement");
        Bind(m_pDecodeSSOToken, "Sm_AgentApi_DecodeSSOToken");
        Bind(m_pFreeAttributes, "Sm_AgentApi_FreeAttributes");
    }

    int Sm_AgentApi_Init(AgentInitRecord* pInitRecord, void** ppHandle) override {
        return m_pInit(pInitRecord, ppHandle);
    }
    int Sm_AgentApi_UnInit(void** ppHandle) override { return m_pUnInit(ppHandle); }
    int Sm_AgentApi_DoManagement(void* pHandle, AgentManagementRecord* pManagement, int32_t* pnAttributes,
                                 AgentAttributeRecord** ppAttributes) override {
        return m_pDoManagement(pHandle, pManagement, pnAttributes, ppAttributes);
    }
    int Sm_AgentApi_DecodeSSOToken(void* pHandle, const char* pszToken, int32_t* pnOutput3, int32_t* pnOutput4,
                                   int32_t* pnAttributes, AgentAttributeRecord** ppAttributes, int32_t nArgument7,
                                   void* pArgument8, void* pArgument9) override {
        return m_pDecodeSSOToken(pHandle, pszToken, pnOutput3, pnOutput4, pnAttributes, ppAttributes, nArgument7,
                                 pArgument8, pArgument9);
    }
    int Sm_AgentApi_FreeAttributes(int32_t nAttributes, AgentAttributeRecord* pAttributes) override {
        return m_pFreeAttributes(nAttributes, pAttributes);
    }

private:
    template <class Function>
    void Bind(Function*& o_pFunction, const char* i_pName) {
        o_pFunction = reinterpret_cast<Function*>(m_library.GetFunction(i_pName, true));
    }

    CSharedLibrary m_library;
    int (*m_pInit)(AgentInitRecord*, void**) = nullptr;
    int (*m_pUnInit)(void**) = nullptr;
    int (*m_pDoManagement)(void*, AgentManagementRecord*, int32_t*, AgentAttributeRecord**) = nullptr;
    int (*m_pDecodeSSOToken)(void*, const char*, int32_t*, int32_t*, int32_t*, AgentAttributeRecord**, int32_t, void*,
                             void*) = nullptr;
    int (*m_pFreeAttributes)(int32_t, AgentAttributeRecord*) = nullptr;
};

class LiveSiteMinderAgentLoader final : public ISiteMinderAgentLoader {
public:
    std::shared_ptr<ISiteMinderAgent> Load() override {
        return std::make_shared<BoundSiteMinderAgent>(detail::SiteMinderLibraryName());
    }
};

}  // namespace

ISiteMinderAgentLoader& detail::PortSiteMinderAgentLoader() {
    static LiveSiteMinderAgentLoader s_loader;
    return s_loader;
}

}  // namespace ostrel::platform
