// The main road in-process: provider, sessions, cache and cleaner behind SSOImpl,
// with the platform's failures made on purpose.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "authentication/ostrel/SSOImpl.h"
#include "authentication/ostrel/ThreadTokenHandler.h"
#include "support/FailingTokenApi.h"
#include "support/TraceCapture.h"

using namespace ostrel;

namespace {

class MainRoad : public ::testing::Test {
protected:
    void SetUp() override {
        m_pImpl = SSOImpl::instance();
        ASSERT_TRUE(m_pImpl->Initialize());
    }
    void TearDown() override { m_pImpl->Shutdown(); }

    uint32_t InitProvider(const ParasSeq* i_pParams = nullptr) {
        return m_pImpl->InitSSOProvider(g_ssProviderThreadToken, i_pParams);
    }
    // Captures the calling thread; returns the status and leaves the key in o_ssKey.
    uint32_t Capture(SWCharString& o_ssKey) {
        ostrel_char* pKey = nullptr;
        const uint32_t rc = m_pImpl->AcquireCurrentSecurityContext(g_ssProviderThreadToken, nullptr, &pKey);
        o_ssKey = SWCharString(pKey);
        std::free(pKey);
        return rc;
    }
    Plugin_Exception_Struct TakeError(uint32_t i_nStatus) {
        Plugin_Exception_Struct* pError = nullptr;
        Plugin_Exception_Struct copy{};
        if (m_pImpl->GetError(i_nStatus, &pError) == 0 && pError != nullptr) {
            copy = *pError;
            copy.pSubstStrings = nullptr;
            copy.message = nullptr;
        }
        FreeErrorStruct(pError);
        return copy;
    }
    // Waits, boundedly, for what the cleaner does on another thread.
    template <class Pred>
    static bool Eventually(Pred&& i_pred) {
        for (int i = 0; i < 500; ++i) {
            if (i_pred()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return i_pred();
    }

    CSmartRefCountPtr<SSOImpl> m_pImpl;
};

// The system's own text for an error number, as the plug-in would trace it.
std::string SystemText(DWORD i_nError) {
    ostrel::platform::System().SetLastError(i_nError);
    return ToAnsiString(LastErrorText().c_str()).c_str();
}

struct Param {
    Param(const ostrel_char* k, uint32_t t, const ostrel_char* v)
        : seq{const_cast<ostrel_char*>(k), t, 0, const_cast<ostrel_char*>(v), nullptr} {}
    ParasSeq seq;
};

}  // namespace

TEST_F(MainRoad, NoTokenForThreadNorProcess) {
    ostrel_test::FailingTokenApi fake;
    fake.bFailThreadToken = fake.bFailProcessToken = true;
    ostrel::platform::ScopedTokenApiOverride scope(fake);
    ostrel_test::TraceCapture capture;
    SWCharString ssKey;
    EXPECT_EQ(Capture(ssKey), 100u);
    EXPECT_TRUE(ssKey.isEmpty());
    EXPECT_EQ(TakeError(100).messageId, 61869u);
    EXPECT_TRUE(capture.has("OpenThreadToken() failed.  Trying process token."));
    EXPECT_TRUE(capture.has("Could not get token for thread nor process: " + SystemText(ERROR_ACCESS_DENIED)));
}

TEST_F(MainRoad, ProcessTokenWhenTheThreadHasNone) {
    ostrel_test::FailingTokenApi fake;
    fake.bFailThreadToken = true;
    ostrel::platform::ScopedTokenApiOverride scope(fake);
    SWCharString ssKey;
    EXPECT_EQ(Capture(ssKey), 0u);
    EXPECT_EQ(m_pImpl->LookupSecurityContext(ssKey), 0u);
}

TEST_F(MainRoad, ImpersonationAndRevertFailures) {
    SWCharString ssKey;
    ASSERT_EQ(Capture(ssKey), 0u);
    ostrel_test::FailingTokenApi fake;
    ostrel::platform::ScopedTokenApiOverride scope(fake);
    ostrel_test::TraceCapture capture;

    fake.bFailImpersonate = true;
    EXPECT_EQ(m_pImpl->Impersonate(ssKey), 100u);
    EXPECT_EQ(TakeError(100).messageId, 61776u);
    EXPECT_TRUE(capture.has("ssoplugin: ThreadStaticToken::Impersonate() -- Could not impersonate: " +
                            SystemText(ERROR_ACCESS_DENIED)));

    fake.bFailRevert = true;
    EXPECT_EQ(m_pImpl->Revert(ssKey), 100u);
    EXPECT_EQ(TakeError(100).messageId, 61776u);
    // A number the system has no text for still gives a readable line.
    fake.nError = 0x7FFFFFF0;
    EXPECT_EQ(m_pImpl->Revert(ssKey), 100u);
    EXPECT_TRUE(capture.has("ssoplugin: ThreadStaticToken::Revert() -- Could not revert: Unknown error."));
}

TEST_F(MainRoad, WrongSessionTypeAndNullSession) {
    CSmartRefCountPtr<SSOHandler> pHandler = SSOHandlerFactory::instance()->GetHandler(g_ssProviderThreadToken);
    class OtherSession : public SSOSession {
    public:
        OtherSession() : SSOSession(nullptr) {}
        CSmartRefCountPtr<StaticToken> GetStaticToken() override { return nullptr; }
    };
    SSOSessionPtr pOther = new OtherSession();
    EXPECT_EQ(pOther->GetProvider(), SWCharString(OSTREL_T("Undefined")));
    try {
        pHandler->AcquireCurrentContext(Parameters(), pOther);
        FAIL();
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), 100u);
    }
    EXPECT_THROW(pHandler->AcquireCurrentContext(Parameters(), nullptr), SSOException);
    // A session that never captured anything yields no token.
    SSOSessionPtr pEmpty = pHandler->CreateSession(nullptr);
    EXPECT_THROW(pEmpty->GetStaticToken(), SSOException);
}

TEST_F(MainRoad, NegotiationOperationsAreNotSupported) {
    CSmartRefCountPtr<SSOHandler> pHandler = SSOHandlerFactory::instance()->GetHandler(g_ssProviderThreadToken);
    auto status = [](auto&& f) {
        try {
            f();
        } catch (const SSOException& e) {
            return e.GetCode();
        }
        return 0u;
    };
    EXPECT_EQ(status([&] { pHandler->AllocateBuffer(10); }), 101u);
    EXPECT_EQ(status([&] { pHandler->FreeBuffer(nullptr); }), 101u);
    EXPECT_EQ(status([&] { pHandler->CreateServerCredentials(SSOCredentialsServer); }), 101u);
    Parameters required;
    pHandler->GetRequiredParameters(required);
    EXPECT_EQ(required.GetCount(), 0u);
}

TEST_F(MainRoad, FailedLoginsLeaveNoSessionBehind) {
    ostrel_test::TraceCapture capture;
    void* pBuffer = nullptr;
    size_t nLength = 0;
    ostrel_char* pKey = nullptr;
    EXPECT_EQ(m_pImpl->StartLogin(SWCharString(OSTREL_T("alice")), SWCharString(OSTREL_T("pw")),
                                  g_ssProviderThreadToken, nullptr, &pBuffer, &nLength, &pKey),
              101u);
    const unsigned char token[] = {1, 2, 3};
    EXPECT_EQ(m_pImpl->AcceptLogin(SWCharString(), g_ssProviderThreadToken, token, sizeof(token), &pBuffer, &nLength,
                                   nullptr, &pKey),
              101u);
    EXPECT_EQ(pKey, nullptr);
    // The session cache reports what it still holds when it goes.
    m_pImpl->Shutdown();
    EXPECT_TRUE(capture.has(
        "ssoplugin: SessionCache::~SessionCache() -- Shutting down with 0 partially formed sessions in cache."));
    ASSERT_TRUE(m_pImpl->Initialize());
}

TEST_F(MainRoad, HandlerThatCannotBeAllocated) {
    SSOHandlerFactory::instance()->ClearHandlers();
    SSOHandlerFactory::FailNextHandlerAllocationsForTesting(1);
    EXPECT_EQ(InitProvider(), 106u);
    const Plugin_Exception_Struct error = TakeError(106);
    EXPECT_EQ(error.errCode, 106u);
    EXPECT_EQ(error.messageId, 42256u);
    // The next attempt builds it.
    EXPECT_EQ(InitProvider(), 0u);
    // The same object for every caller.
    EXPECT_EQ(SSOHandlerFactory::instance()->GetHandler(g_ssProviderThreadToken).get(),
              SSOHandlerFactory::instance()->GetHandler(g_ssProviderThreadToken).get());
}

TEST_F(MainRoad, CleanerStartsAsConfigured) {
    CSmartRefCountPtr<SecContextCache> pCache = m_pImpl->GetContextCacheForTesting();
    ASSERT_NE(pCache, nullptr);
    EXPECT_FALSE(pCache->IsUpdateThreadRunning());
    // An explicit false delays it until the first insert.
    Param off(WP_SI_CACHE_SECCONTEXT_W, SSO_PARAM_BOOL, OSTREL_T("0"));
    EXPECT_EQ(InitProvider(&off.seq), 0u);
    EXPECT_FALSE(pCache->IsUpdateThreadRunning());
    SWCharString ssKey;
    ASSERT_EQ(Capture(ssKey), 0u);
    EXPECT_TRUE(pCache->IsUpdateThreadRunning());
}

TEST_F(MainRoad, CleanerStartsAtOnceWhenTheSwitchCannotBeRead) {
    CSmartRefCountPtr<SecContextCache> pCache = m_pImpl->GetContextCacheForTesting();
    Param wrong(WP_SI_CACHE_SECCONTEXT_W, SSO_PARAM_LONG, OSTREL_T("0"));
    ostrel_test::TraceCapture capture;
    EXPECT_EQ(InitProvider(&wrong.seq), 0u);
    EXPECT_TRUE(pCache->IsUpdateThreadRunning());
    EXPECT_TRUE(capture.has("Could not determine whether to start the update thread or not.  Delaying until needed."));
}

TEST_F(MainRoad, CleanerRemovesExpiredThreadTokensEvenWhileInUse) {
    Param expiry(OSTREL_T("SSPI_CTXT_CACHE_EXPIRY"), SSO_PARAM_LONG, OSTREL_T("1"));
    ASSERT_EQ(InitProvider(&expiry.seq), 0u);
    CSmartRefCountPtr<SecContextCache> pCache = m_pImpl->GetContextCacheForTesting();
    SWCharString ssIdle;
    SWCharString ssBusy;
    ASSERT_EQ(Capture(ssIdle), 0u);
    ASSERT_EQ(Capture(ssBusy), 0u);
    ASSERT_EQ(m_pImpl->Impersonate(ssBusy), 0u);
    EXPECT_EQ(pCache->GetCount(), 2u);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(m_pImpl->LookupSecurityContext(ssIdle), 103u);
    EXPECT_EQ(pCache->GetCount(), 2u) << "a look-up never removes anything";
    // Thread tokens count no impersonations, so the scan takes both.
    pCache->WakeUpdateThreadForTesting();
    EXPECT_TRUE(Eventually([&] { return pCache->GetCount() == 0; }));
    EXPECT_EQ(m_pImpl->Revert(ssBusy), 100u);
    EXPECT_EQ(TakeError(100).messageId, 61775u);
    ASSERT_TRUE(ostrel::platform::Tokens().RevertToSelf());
}

TEST_F(MainRoad, ZeroExpiryNeverEnds) {
    Param expiry(OSTREL_T("SSPI_CTXT_CACHE_EXPIRY"), SSO_PARAM_LONG, OSTREL_T("0"));
    ASSERT_EQ(InitProvider(&expiry.seq), 0u);
    SWCharString ssKey;
    ASSERT_EQ(Capture(ssKey), 0u);
    CSmartRefCountPtr<SSOHandler> pHandler = SSOHandlerFactory::instance()->GetHandler(g_ssProviderThreadToken);
    EXPECT_EQ(pHandler->GetCacheExpiry().GetMilliseconds(), 0);
    CSmartRefCountPtr<SecContextCache> pCache = m_pImpl->GetContextCacheForTesting();
    pCache->WakeUpdateThreadForTesting();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(m_pImpl->LookupSecurityContext(ssKey), 0u);
}

TEST_F(MainRoad, CachingOffRefusesCapture) {
    class NoCacheHandler : public ThreadTokenHandler {
    public:
        NoCacheHandler() { m_bCaching = false; }
    };
    const SWCharString ssName(OSTREL_T("NOCACHE"));
    SSOHandlerFactory::instance()->SetHandlerForTesting(ssName, new NoCacheHandler());
    ostrel_char* pKey = nullptr;
    EXPECT_EQ(m_pImpl->AcquireCurrentSecurityContext(ssName, nullptr, &pKey), 100u);
    EXPECT_EQ(pKey, nullptr);
    EXPECT_EQ(TakeError(100).messageId, 61748u);
}

TEST_F(MainRoad, HostThreadsAndTheCleanerTogether) {
    ASSERT_EQ(InitProvider(), 0u);
    CSmartRefCountPtr<SecContextCache> pCache = m_pImpl->GetContextCacheForTesting();
    std::atomic<bool> bStop{false};
    std::thread cleaner([&] {
        while (!bStop.load()) {
            pCache->WakeUpdateThreadForTesting();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::vector<std::thread> hosts;
    std::atomic<int> nFailures{0};
    for (int t = 0; t < 4; ++t) {
        hosts.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                SWCharString ssKey;
                if (Capture(ssKey) != 0 || m_pImpl->Impersonate(ssKey) != 0 || m_pImpl->Revert(ssKey) != 0 ||
                    m_pImpl->LookupSecurityContext(ssKey) != 0) {
                    ++nFailures;
                }
                if (i % 3 == 0) {
                    SWCharString ssNew(OSTREL_T("host-"));
                    ssNew << SWCharStringConv::ToString(t * 1000 + i, 10);
                    m_pImpl->AssociateSecurityContext(ssKey, ssNew);
                    ssKey = ssNew;
                }
                if (m_pImpl->ReleaseSecurityContext(ssKey) != 0) {
                    ++nFailures;
                }
            }
        });
    }
    for (auto& h : hosts) {
        h.join();
    }
    bStop = true;
    cleaner.join();
    EXPECT_EQ(nFailures.load(), 0);
    EXPECT_EQ(pCache->GetCount(), 0u);
}
