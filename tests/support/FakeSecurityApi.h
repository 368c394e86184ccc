// A scriptable security package: each operation answers from its own queue (then success), logs the
// arguments that matter, hands out numbered handles and tells which of them are still open.
#pragma once

#include <cstring>
#include <deque>
#include <set>
#include <string>

#include "ostrel_platform/ISecurityApi.h"

namespace ostrel_test {

class FakeSecurityApi : public ostrel::platform::ISecurityApi {
public:
    struct Step {
        SECURITY_STATUS status = SEC_E_OK;
        ULONG nOutput = 0;  // bytes of token written
    };
    std::deque<Step> query, acquire, init, accept, revert;
    LONGLONG nExpiry = 0;                                    // the tsExpiry of every context
    std::set<ULONG_PTR> credentials, contexts;               // open handles
    std::string calls;                                       // with the arguments that matter
    int nInfoFrees = 0, nImpersonating = 0, nBadCloses = 0;  // impersonations of open contexts not reverted

    SECURITY_STATUS QuerySecurityPackageInfoW(LPWSTR pszName, PSecPkgInfoW* ppInfo) override {
        calls += "query " + Text(pszName) + ";";
        *ppInfo = &m_info;
        return Next(query).status;
    }
    SECURITY_STATUS FreeContextBuffer(PVOID) override { return ++nInfoFrees, SEC_E_OK; }
    SECURITY_STATUS AcquireCredentialsHandleW(LPWSTR, LPWSTR, ULONG use, PVOID, PVOID pAuth, SEC_GET_KEY_FN, PVOID,
                                              PCredHandle ph, PTimeStamp) override {
        const auto* a = static_cast<SEC_WINNT_AUTH_IDENTITY_W*>(pAuth);  // none: the caller's own identity
        calls += "acquire " + std::to_string(use) + " " +
                 (a == nullptr ? ""
                               : Text(a->User, a->UserLength) + "|" + Text(a->Domain, a->DomainLength) + "|" +
                                     Text(a->Password, a->PasswordLength) + "|" + std::to_string(a->Flags)) +
                 ";";
        return Open(Next(acquire).status, credentials, ph);
    }
    SECURITY_STATUS FreeCredentialsHandle(PCredHandle ph) override { return Close(credentials, ph); }
    SECURITY_STATUS InitializeSecurityContextW(PCredHandle, PCtxtHandle ph, SEC_WCHAR* pszTarget, ULONG req, ULONG,
                                               ULONG rep, PSecBufferDesc pIn, ULONG, PCtxtHandle phNew,
                                               PSecBufferDesc pOut, ULONG*, PTimeStamp) override {
        calls +=
            "init " + Text(pszTarget) + " " + std::to_string(req) + " " + std::to_string(rep) + (pIn ? " in;" : ";");
        return Run(init, ph, phNew, pOut);
    }
    SECURITY_STATUS AcceptSecurityContext(PCredHandle, PCtxtHandle ph, PSecBufferDesc, ULONG req, ULONG,
                                          PCtxtHandle phNew, PSecBufferDesc pOut, ULONG* pAttrs, PTimeStamp) override {
        calls += "accept " + std::to_string(req) + " " + std::to_string(*pAttrs) + ";";
        return Run(accept, ph, phNew, pOut);
    }
    SECURITY_STATUS DeleteSecurityContext(PCtxtHandle ph) override { return Close(contexts, ph); }
    SECURITY_STATUS QueryContextAttributesW(PCtxtHandle, ULONG, PVOID p) override {
        return static_cast<SecPkgContext_Lifespan*>(p)->tsExpiry.QuadPart = nExpiry, SEC_E_OK;
    }
    SECURITY_STATUS ImpersonateSecurityContext(PCtxtHandle ph) override { return Count(SEC_E_OK, ph, 1); }
    SECURITY_STATUS RevertSecurityContext(PCtxtHandle ph) override { return Count(Next(revert).status, ph, -1); }

private:
    static std::string Text(const void* p, size_t n = std::u16string::npos) {
        const std::u16string s(static_cast<const char16_t*>(p));
        return std::string(s.begin(), s.begin() + (n < s.size() ? n : s.size()));
    }
    static Step Next(std::deque<Step>& io_steps) {
        const Step next = io_steps.empty() ? Step{} : io_steps.front();
        return io_steps.empty() ? next : (io_steps.pop_front(), next);
    }
    SECURITY_STATUS Open(SECURITY_STATUS i_status, std::set<ULONG_PTR>& io_open, PSecHandle o_ph) {
        if (i_status == SEC_E_OK) *o_ph = SecHandle{*io_open.insert(++m_nLast).first, 1};
        return i_status;
    }
    SECURITY_STATUS Close(std::set<ULONG_PTR>& io_open, PSecHandle ph) {
        return io_open.erase(ph->dwLower) == 1 ? SEC_E_OK : (++nBadCloses, SEC_E_INVALID_HANDLE);
    }
    SECURITY_STATUS Run(std::deque<Step>& io_steps, PCtxtHandle ph, PCtxtHandle phNew, PSecBufferDesc pOut) {
        const Step step = Next(io_steps);
        if (ph == nullptr) Open(SEC_E_OK, contexts, phNew);
        std::memset(pOut->pBuffers->pvBuffer, 'T', pOut->pBuffers->cbBuffer = step.nOutput);
        return step.status;
    }
    SECURITY_STATUS Count(SECURITY_STATUS i_status, PCtxtHandle ph, int i_nStep) {
        if (i_status == SEC_E_OK && contexts.count(ph->dwLower) != 0) nImpersonating += i_nStep;
        return i_status;
    }

    SecPkgInfoW m_info = {0, 0, 0, 64, nullptr, nullptr};
    ULONG_PTR m_nLast = 0;
};

}  // namespace ostrel_test
