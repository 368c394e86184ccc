// The provider "THREADTOKEN": captures who the caller already is (the
// thread's impersonation token, else the process's) as a cached context.
#pragma once

#include "HandlerFactory.h"
#include "SSOSession.h"
#include "StaticToken.h"
#include "ostrel_platform/WinTypes.h"

namespace ostrel {

class ThreadTokenHandler : public SSOHandler {
public:
    ThreadTokenHandler();

    void InitHandler(const Parameters& i_params) override;
    void GetRequiredParameters(Parameters& o_params) override;
    int InitializeContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession, const void* i_pvBuffer,
                          size_t i_nBufferSize, void** o_ppvBuffer, size_t* o_pnBufferSize) override;
    int AcceptContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession, const void* i_pvBuffer,
                      size_t i_nBufferSize, void** o_ppvBuffer, size_t* o_pnBufferSize, bool i_bGetLogonInfo,
                      Parameters& o_params) override;
    int AcquireCurrentContext(const Parameters& i_params, SSOSessionPtr i_pSession) override;
    SSOSessionPtr CreateSession(const ParasSeq* i_pParas) override;
    SSOCredentialsPtr CreateClientCredentials(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword,
                                              int i_nType) override;
    SSOCredentialsPtr CreateServerCredentials(int i_nType) override;
    void* AllocateBuffer(size_t i_nSize) override;
    void FreeBuffer(void* i_pvBuffer) override;
};

class ThreadTokenSession : public SSOSession {
public:
    explicit ThreadTokenSession(const ParasSeq* i_pParas);
    CSmartRefCountPtr<StaticToken> GetStaticToken() override;

protected:
    ~ThreadTokenSession() override;

private:
    friend class ThreadTokenHandler;
    HANDLE m_hToken = nullptr;  // owned while not null
};

class ThreadStaticToken : public StaticToken {
public:
    explicit ThreadStaticToken(HANDLE i_pToken);

    void Impersonate() override;
    void Revert() override;
    bool Expired(const SDateTime& i_now) override;
    bool RenegotiateImpl() override;
    STimeSpan GetRemainingLifetime(const SDateTime& i_now) override;
    STimeSpan GetLifetime() override;

protected:
    ~ThreadStaticToken() override;

private:
    HANDLE m_pToken;  // never null in a constructed object; closed by the destructor
};

// The system's text for the calling thread's last error.
SWCharString LastErrorText();

}  // namespace ostrel
