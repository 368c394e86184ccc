#include "Parameters.h"

#include <cstdlib>

#include "SSOException.h"
#include "foundation/Trace.h"

namespace ostrel {

const SWCharString g_ssKeyServerSpn(WP_SI_SERVER_SSPI_SPN_W);
const SWCharString g_ssKeyCacheSecContext(WP_SI_CACHE_SECCONTEXT_W);
const SWCharString g_ssKeySsoVendor(WP_SI_SSO_VENDOR_W);
const SWCharString g_ssKeySsoServers(WP_SI_SSO_SERVERS_AND_PORTS_W);
const SWCharString g_ssKeySsoSharedSecret(WP_SI_SSO_SHARED_SECRET_W);
const SWCharString g_ssKeySsoAgent(WP_SI_SSO_AGENT_W);
const SWCharString g_ssKeySsoAccessMode(WP_SI_SSO_ACCESS_MODE_W);
const SWCharString g_ssKeyCacheExpiry(SSO_KEY_CTXT_CACHE_EXPIRY);
const SWCharString g_ssKeyRenewalsAllowed(SSO_KEY_CONTEXT_RENEWALS_ALLOWED);
// Declared beside the keys for hosts of old; nothing reads it.
const SWCharString g_ssKeyCacheExpiryLegacy(OSTREL_T("SSOCacheExpirySSPI"));

bool SequenceParser::Pop(SWCharString& o_ssKey, SWCharString& o_ssValue, unsigned char& o_nType) {
    if (m_pCurrent == nullptr) {
        return false;
    }
    o_ssKey = m_pCurrent->key;
    o_ssValue = m_pCurrent->value;
    o_nType = static_cast<unsigned char>(m_pCurrent->type & 0xFF);
    STRACE("ssoplugin: SequenceParser::Pop() -- key=%1, value=%2, type=%3 ", o_ssKey, o_ssValue,
           static_cast<int>(o_nType));
    m_pCurrent = m_pCurrent->next;
    return true;
}

Parameters::Parameters(const ParasSeq* i_pParas) {
    if (i_pParas == nullptr) {
        return;
    }
    try {
        SequenceParser parser(i_pParas);
        SWCharString ssKey;
        SWCharString ssValue;
        unsigned char nType = 0;
        while (parser.Pop(ssKey, ssValue, nType)) {
            m_mapParameters.SetAt(ssKey, Parameter(ssKey, nType, ssValue));
        }
    } catch (...) {
        SASSERT_FAIL("ssoplugin: Parameters::Parameters(const ParasSeq*) -- Caught an exception!");
        throw;
    }
}

bool Parameters::GetParameter(const SWCharString& i_ssKey, SWCharString& o_ssValue) const {
    const Parameter* p = m_mapParameters.Find(i_ssKey);
    if (p == nullptr) {
        STRACE("ssoplugin: Parameters::GetParameter(SString) -- %1 not found", i_ssKey);
        return false;
    }
    if (p->m_eType != Parameter::String) {
        SASSERT(false, "p.m_eType == Parameter::String");
        throw MakeSSOException(STATUS_FAILURE, MSG_PARAMETER_WRONG_TYPE, i_ssKey);
    }
    o_ssValue = p->m_ssValue;
    return true;
}

bool Parameters::GetParameter(const SWCharString& i_ssKey, int64_t& o_nValue) const {
    const Parameter* p = m_mapParameters.Find(i_ssKey);
    if (p == nullptr) {
        STRACE("ssoplugin: Parameters::GetParameter(int) -- %1 not found", i_ssKey);
        return false;
    }
    if (p->m_eType != Parameter::Long) {
        SASSERT(false, "p.m_eType == Parameter::Long");
        throw MakeSSOException(STATUS_EXTERNAL_SETUP, MSG_PARAMETER_WRONG_TYPE, i_ssKey);
    }
    int64_t nValue = 0;
    const bool bConverted = ToInt64(p->m_ssValue, nValue);
    if (!bConverted) {
        SASSERT(bConverted, "bConverted");
        throw SSOException(STATUS_FAILURE);
    }
    o_nValue = nValue;
    return true;
}

bool Parameters::GetParameter(const SWCharString& i_ssKey, bool& o_bValue) const {
    const Parameter* p = m_mapParameters.Find(i_ssKey);
    if (p == nullptr) {
        STRACE("ssoplugin: Parameters::GetParameter(bool) -- %1 not found", i_ssKey);
        return false;
    }
    if (p->m_eType != Parameter::Bool) {
        SASSERT(false, "p.m_eType == Parameter::Bool");
        throw MakeSSOException(STATUS_FAILURE, MSG_PARAMETER_WRONG_TYPE, i_ssKey);
    }
    // "-1" is accepted on purpose, and it means false.
    if (p->m_ssValue == OSTREL_T("1")) {
        o_bValue = true;
        return true;
    }
    if (p->m_ssValue == OSTREL_T("0") || p->m_ssValue == OSTREL_T("-1")) {
        o_bValue = false;
        return true;
    }
    if (ShouldAssert()) {
        SWCharString ssMessage(OSTREL_T("ssoplugin: Parameters::GetParameter(bool) -- Could not get a boolean from "));
        ssMessage << p->m_ssValue << OSTREL_T(" for ") << i_ssKey;
        SAssert(__FILE__, __LINE__, "0", ssMessage.c_str());
    }
    throw SSOException(STATUS_FAILURE);
}

void Parameters::AddParameter(const SWCharString& i_ssKey, const SWCharString& i_ssValue) {
    m_mapParameters.SetAt(i_ssKey, Parameter(i_ssKey, Parameter::String, i_ssValue));
}

void Parameters::AddParameter(const SWCharString& i_ssKey, int64_t i_nValue) {
    m_mapParameters.SetAt(
        i_ssKey, Parameter(i_ssKey, Parameter::Long, SWCharStringConv::ToString(static_cast<long long>(i_nValue), 10)));
}

void Parameters::AddParameter(const SWCharString& i_ssKey, bool i_bValue) {
    m_mapParameters.SetAt(i_ssKey,
                          Parameter(i_ssKey, Parameter::Bool, SWCharString(i_bValue ? OSTREL_T("1") : OSTREL_T("0"))));
}

bool Parameters::CheckParameters(const SISet<SWCharString>& i_Required) const {
    if (i_Required.IsEmpty()) {
        STRACE("ssoplugin: Parameters::CheckParameters() -- Nothing to check!");
        return true;
    }
    SISet<SWCharString>::Iterator itr(i_Required);
    while (!itr.isAtEnd()) {
        if (m_mapParameters.Find(itr.value()) == nullptr) {
            return false;
        }
        ++itr;
    }
    return true;
}

void Parameters::ToParasSeq(ParasSeq** o_ppParameters) const {
    if (o_ppParameters == nullptr) {
        SASSERT_MSG(false, "o_ppParameters", "ssoplugin: Parameters::ToParasSeq() -- NULL pointer!");
        throw SSOException(STATUS_FAILURE);
    }
    SASSERT_MSG(*o_ppParameters == nullptr, "!*o_ppParameters",
                "ssoplugin: Parameters::ToParasSeq() -- Overwriting non-NULL data!  Possible leak!");
    *o_ppParameters = nullptr;

    const uint64_t n = m_mapParameters.GetCount();
    if (n == 0) {
        return;
    }
    // Past 2^59 elements the block's size no longer fits in 64 bits.
    if (n >= (UINT64_C(1) << 59)) {
        SASSERT_FAIL("Integer overflow.  Aborting.");
        throw SSOException(STATUS_FAILURE);
    }
    auto* pParameters = static_cast<ParasSeq*>(std::malloc(n * sizeof(ParasSeq)));
    if (pParameters == nullptr) {
        SASSERT_MSG(false, "pParameters", "ssoplugin: Parameters::ToParasSeq() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    try {
        for (uint64_t i = 0; i < n; ++i) {
            pParameters[i].key = nullptr;
            pParameters[i].type = 0;
            pParameters[i].value = nullptr;
            pParameters[i].next = (i + 1 < n) ? &pParameters[i + 1] : nullptr;
        }
        uint64_t nCounter = 0;
        SIMap<SWCharString, Parameter>::Iterator itr(m_mapParameters);
        while (!itr.isAtEnd()) {
            if (nCounter >= n) {
                SASSERT_FAIL("ssoplugin: Parameters::ToParasSeq() -- Out of bounds!");
                throw SSOException(STATUS_FAILURE);
            }
            pParameters[nCounter].key = WideDup(itr.key().c_str());
            pParameters[nCounter].type = itr.value().m_eType;
            pParameters[nCounter].value = WideDup(itr.value().m_ssValue.c_str());
            ++nCounter;
            ++itr;
        }
    } catch (SSOException&) {
        FreeParasSeq(pParameters);
        throw;
    }
    *o_ppParameters = pParameters;
}

void FreeParasSeq(ParasSeq* i_pParameters) {
    if (i_pParameters == nullptr) {
        return;
    }
    ParasSeq* pElement = i_pParameters;
    while (pElement != nullptr) {
        std::free(pElement->key);
        std::free(pElement->value);
        pElement->key = nullptr;
        pElement->value = nullptr;
        pElement->type = 0;
        ParasSeq* pNext = pElement->next;
        pElement->next = nullptr;
        pElement = pNext;
    }
    std::free(i_pParameters);
}

}  // namespace ostrel
