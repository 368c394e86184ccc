// A handler that plays a script: each call it expects, in order, and its answer.
#pragma once

#include <cstring>
#include <deque>
#include <string>

#include <gtest/gtest.h>

#include "authentication/ostrel/SSOSession.h"
#include "support/FakeToken.h"

namespace ostrel_test {

struct ScriptStep {
    std::string op{};            // "Initialize", "Accept" or "Acquire"
    int status = 0;              // what the call returns
    std::string token{};         // the output token it hands over
    uint32_t nThrow = 0;         // above 0: throws SSOException with this status instead
    const char* user = nullptr;  // Accept: the logon facts it gives, if asked for
};

class ScriptedHandler : public FakeHandler {
public:
    class Session : public SSOSession {
    public:
        Session(ScriptedHandler& i_h, const ParasSeq* i_p) : SSOSession(i_p), m_h(i_h) {
            m_ssProvider = m_h.m_ssName;
            ++m_h.m_nLiveSessions;
        }
        ~Session() override { --m_h.m_nLiveSessions; }
        CSmartRefCountPtr<StaticToken> GetStaticToken() override {
            return CSmartRefCountPtr<StaticToken>(new FakeToken(m_h.m_ssName));
        }
        ScriptedHandler& m_h;
    };
    class Credentials : public SSOCredentials {};

    std::deque<ScriptStep> m_script;
    std::string m_lastInput;  // the input token of the last call
    bool m_bLastLogonInfo = false;
    int m_nLiveSessions = 0;
    int m_nBuffersOut = 0;  // handed over and not yet freed
    SWCharString m_ssName;  // for the tokens of finished logins

    int InitializeContext(SSOCredentialsPtr, SSOSessionPtr, const void* i_pv, size_t i_n, void** o_pp,
                          size_t* o_pn) override {
        return Play("Initialize", i_pv, i_n, o_pp, o_pn);
    }
    int AcceptContext(SSOCredentialsPtr, SSOSessionPtr, const void* i_pv, size_t i_n, void** o_pp, size_t* o_pn,
                      bool i_bLogon, Parameters& o_params) override {
        m_bLastLogonInfo = i_bLogon;
        const char* pUser = m_script.empty() ? nullptr : m_script.front().user;
        if (pUser != nullptr && i_bLogon) o_params.AddParameter(SWCharString(OSTREL_T("USER")), ToWCharString(pUser));
        return Play("Accept", i_pv, i_n, o_pp, o_pn);
    }
    int AcquireCurrentContext(const Parameters&, SSOSessionPtr) override { return Play("Acquire", nullptr, 0, nullptr, nullptr); }
    SSOSessionPtr CreateSession(const ParasSeq* i_p) override { return SSOSessionPtr(new Session(*this, i_p)); }
    SSOCredentialsPtr CreateClientCredentials(const SWCharString&, const SWCharString&, int) override {
        return SSOCredentialsPtr(new Credentials());
    }
    SSOCredentialsPtr CreateServerCredentials(int) override { return SSOCredentialsPtr(new Credentials()); }
    void* AllocateBuffer(size_t i_n) override { return ++m_nBuffersOut, new char[i_n]; }
    void FreeBuffer(void* i_p) override {
        m_nBuffersOut -= i_p != nullptr ? 1 : 0;
        delete[] static_cast<char*>(i_p);
    }

private:
    int Play(const char* i_pOp, const void* i_pv, size_t i_n, void** o_pp, size_t* o_pn) {
        if (m_script.empty() || m_script.front().op != i_pOp) {
            ADD_FAILURE() << "unexpected call " << i_pOp;
            throw SSOException(STATUS_FAILURE);
        }
        const ScriptStep step = m_script.front();
        m_script.pop_front();
        m_lastInput.assign(static_cast<const char*>(i_pv), i_pv != nullptr ? i_n : 0);
        if (o_pp != nullptr && !step.token.empty()) {
            *o_pp = std::memcpy(AllocateBuffer(step.token.size()), step.token.data(), step.token.size());
            *o_pn = step.token.size();
        } else if (o_pn != nullptr) {
            *o_pn = 7;  // no token, and a length the driver must not pass on
        }
        if (step.nThrow != 0) throw SSOException(step.nThrow);
        return step.status;
    }
};

}  // namespace ostrel_test
