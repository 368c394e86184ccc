// Typed key/value sets inside the plug-in, flat ParasSeq lists at the boundary.
#pragma once

#include <cstdint>

#include "FoundationNames.h"
#include "foundation/Containers.h"
#include "foundation/SString.h"
#include "ostrel/ostrel.h"

namespace ostrel {

// Keys shared by the whole plug-in, made once at load.
extern const SWCharString g_ssKeyServerSpn;         // WP_SI_SERVER_SSPI_SPN_W
extern const SWCharString g_ssKeyCacheSecContext;   // WP_SI_CACHE_SECCONTEXT_W
extern const SWCharString g_ssKeySsoVendor;         // WP_SI_SSO_VENDOR_W
extern const SWCharString g_ssKeySsoServers;        // WP_SI_SSO_SERVERS_AND_PORTS_W
extern const SWCharString g_ssKeySsoSharedSecret;   // WP_SI_SSO_SHARED_SECRET_W
extern const SWCharString g_ssKeySsoAgent;          // WP_SI_SSO_AGENT_W
extern const SWCharString g_ssKeySsoAccessMode;     // WP_SI_SSO_ACCESS_MODE_W
extern const SWCharString g_ssKeyCacheExpiry;       // "SSPI_CTXT_CACHE_EXPIRY"
extern const SWCharString g_ssKeyRenewalsAllowed;   // "CONTEXT_RENEWALS_ALLOWED"

// Reads a host's sequence element by element; keeps no pointer past the call.
class SequenceParser {
public:
    explicit SequenceParser(const ParasSeq* i_pHead) : m_pHead(i_pHead), m_pCurrent(i_pHead) {}
    bool IsEmpty() const { return m_pCurrent == nullptr; }
    bool Pop(SWCharString& o_ssKey, SWCharString& o_ssValue, unsigned char& o_nType);

private:
    [[maybe_unused]] const ParasSeq* m_pHead;  // where the walk began; kept for a debugger
    const ParasSeq* m_pCurrent;
};

class Parameters {
public:
    class Parameter {
    public:
        enum Type : uint32_t { String = 1, Long = 2, Bool = 3 };
        Parameter() = default;
        Parameter(const SWCharString& i_ssName, uint32_t i_eType, const SWCharString& i_ssValue)
            : m_ssName(i_ssName), m_eType(i_eType), m_ssValue(i_ssValue) {}

        SWCharString m_ssName;
        uint32_t m_eType = 0;  // a type byte from a host is kept as it came
        SWCharString m_ssValue;
    };

    explicit Parameters(const ParasSeq* i_pParas = nullptr);
    virtual ~Parameters() = default;
    Parameters(const Parameters&) = default;
    Parameters& operator=(const Parameters&) = default;

    // Absent means default (false, output untouched); a wrong type throws.
    bool GetParameter(const SWCharString& i_ssKey, SWCharString& o_ssValue) const;
    bool GetParameter(const SWCharString& i_ssKey, int64_t& o_nValue) const;
    bool GetParameter(const SWCharString& i_ssKey, bool& o_bValue) const;

    void AddParameter(const SWCharString& i_ssKey, const SWCharString& i_ssValue);
    void AddParameter(const SWCharString& i_ssKey, int64_t i_nValue);
    void AddParameter(const SWCharString& i_ssKey, bool i_bValue);
    // The literal overloads would otherwise pick the bool form.
    void AddParameter(const SWCharString& i_ssKey, const ostrel_char* i_pValue) {
        AddParameter(i_ssKey, SWCharString(i_pValue));
    }

    // True when every required key is present, whatever its type.
    bool CheckParameters(const SISet<SWCharString>& i_Required) const;
    // One malloc'ed block in ascending key order; NULL for an empty set.
    void ToParasSeq(ParasSeq** o_ppParameters) const;

    uint64_t GetCount() const { return m_mapParameters.GetCount(); }

private:
    SIMap<SWCharString, Parameter> m_mapParameters;
};

// Frees a sequence that ToParasSeq made; NULL does nothing.
void FreeParasSeq(ParasSeq* i_pParameters);

}  // namespace ostrel
