// Verifiers of tokens issued by an external single-sign-on product, and the
// one there is: SiteMinder, through its agent library.
#pragma once

#include <cstdint>
#include <memory>

#include "SSOException.h"
#include "foundation/Codeset.h"
#include "foundation/Containers.h"
#include "foundation/Locks.h"
#include "foundation/RefCount.h"
#include "foundation/SString.h"
#include "ostrel_platform/ISiteMinderAgent.h"

namespace ostrel {

struct SSOConstants {
    struct Defaults {
        static constexpr int ServerTimeout = 60;
        static constexpr int ConnectionMin = 1;
        static constexpr int ConnectionMax = 10;
        static constexpr int ConnectionStep = 1;
        // Host and three ports per server entry.
        static constexpr int64_t ServerInfoCount = 4;
        static constexpr ostrel_char ServerSeparator = u' ';
        static constexpr ostrel_char PortSeparator = u':';
        static constexpr ostrel_char Escape = u'^';
    };
};

// Names of the product's user types, by type number; nothing reads them yet.
extern const char* const g_arrExternalUserTypeNames[11];

class CExternalSSO : public CRefCount {
public:
    // Connects to the external product; failure is an SSOException.
    virtual void InitializeSSO() = 0;
    virtual void UninitializeSSO() = 0;
    virtual bool IsInitialized() = 0;
    // True, with the user's name, for a good token; SSOException 110 when the
    // product cannot be reached.
    virtual bool VerifyUser(const SWCharString& i_ssToken, SWCharString& o_ssUserName) = 0;

protected:
    ~CExternalSSO() override = default;
};

class CSiteMinderSSO : public CExternalSSO {
public:
    CSiteMinderSSO(SWCharString i_ssServersAndPorts, SWCharString i_ssAgentName, SWCharString i_ssSharedSecret,
                   int i_nAccessMode);

    void InitializeSSO() override;
    void UninitializeSSO() override;
    bool IsInitialized() override;
    bool VerifyUser(const SWCharString& i_ssToken, SWCharString& o_ssUserName) override;

    static void ParseSiteMinderServersAndPorts(const SWCharString& i_ssServersAndPorts,
                                               SIArray<Tarvik500::SSimpleBuffer>& arrSSOServers,
                                               SIArray<int>& arrAzPorts, SIArray<int>& arrAuthPorts,
                                               SIArray<int>& arrAcctPorts);
    static void SeparateElements(SWCharString i_ssText, SIArray<SWCharString>& o_arrElements, ostrel_char i_cSeparator,
                                 ostrel_char i_cEscape, bool i_bCollapseEscapes);

protected:
    ~CSiteMinderSSO() override;

private:
    // Expects the write lock.
    void UninitializeSSONoLock();
    bool TestConnection(void* i_pAgentHandle);
    // Fills the record from the configuration; the server array is the caller's to free.
    void FillInitRecord(platform::AgentInitRecord& o_record, platform::AgentServerRecord*& o_pServers);
    // Bound once per object, when it first connects.
    void BindAgentLibrary();

    CRWLock m_Lock;
    int m_nServerTimeout;
    int m_nConnectionMin;
    int m_nConnectionMax;
    int m_nConnectionStep;
    SWCharString m_ssServersAndPorts;
    SWCharString m_ssAgentName;
    SWCharString m_ssSharedSecret;
    int m_nAccessMode;
    void* m_pAgentHandle = nullptr;
    std::shared_ptr<platform::ISiteMinderAgent> m_pAgent;
};

}  // namespace ostrel
