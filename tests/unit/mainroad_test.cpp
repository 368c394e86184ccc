// The object behind the exports in-process: logins driven by a scripted handler to each of their ends,
// the thread token provider with the platform failing on purpose, and the life of the object itself.
#include <gtest/gtest.h>

#include <new>
#include <utility>
#include <vector>

#include "authentication/ostrel/SSOImpl.h"
#include "support/FailingTokenApi.h"
#include "support/FakeSecurityApi.h"
#include "support/ScriptedHandler.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::ScriptStep;

namespace {

class MainRoad : public ::testing::Test {
public:
    void SetUp() override {
        ASSERT_TRUE(m_pImpl->Initialize());
        m_provider->m_ssName = m_provider.name();
    }
    void TearDown() override { m_pImpl->Shutdown(); }

    // The thread's record: its status and message id, or {0, 0}.
    std::pair<uint32_t, uint32_t> TakeError() {
        Plugin_Exception_Struct* pError = nullptr;
        std::pair<uint32_t, uint32_t> result{0, 0};
        if (m_pImpl->GetError(0, &pError) == 0) result = {pError->errCode, pError->messageId};
        FreeErrorStruct(pError);
        return result;
    }
    uint32_t InitThreadTokens(const ostrel_char* i_pKey = nullptr, uint32_t i_nType = 0, const ostrel_char* i_pValue = nullptr) {
        ParasSeq seq{const_cast<ostrel_char*>(i_pKey), i_nType, 0, const_cast<ostrel_char*>(i_pValue), nullptr};
        return m_pImpl->InitSSOProvider(g_ssProviderThreadToken, i_pKey != nullptr ? &seq : nullptr);
    }
    uint32_t Capture(SWCharString& o_ssKey) {
        ostrel_char* pKey = nullptr;
        const uint32_t rc = m_pImpl->AcquireCurrentSecurityContext(g_ssProviderThreadToken, nullptr, &pKey);
        o_ssKey = SWCharString(pKey);
        std::free(pKey);
        return rc;
    }

    CSmartRefCountPtr<SSOImpl> m_pImpl = SSOImpl::instance();
    ostrel_test::ScopedProvider<ostrel_test::ScriptedHandler> m_provider;
    ostrel_test::TraceCapture m_capture;
};

const char* const kFresh = "<session key>";  // the decimal key of a login that starts
const char* const kCached = "<cache key>";   // a key the context cache knows

struct Pass {
    char call;  // 'S' SSOStartLogin, 'C' SSOContinueLogin, 'A' SSOAcceptLogin (both with the last key), 'Q' a capture
    ScriptStep step;  // op "" when the handler must not be called
    const char* input;
    uint32_t status;
    const char* key;  // kFresh, kCached, a literal, or nullptr for none
    const char* output;
    uint32_t message = MSG_DEFAULT;  // of the record, for a status of 100 or more
};
struct Login {
    const char* what;
    bool caching;
    std::vector<Pass> passes;
    int pending;  // sessions still under way at the end
};

}  // namespace

TEST_F(MainRoad, LoginsEndAsTheirHandlerSays) {
    // clang-format off
    const Login logins[] = {
        {"client to its end", true, {{'S', {"Initialize", 1, "c1"}, nullptr, 1, kFresh, "c1"},
                                     {'C', {"Initialize", 0, "c2"}, "s1", 0, nullptr, "c2"},
                                     {'C', {}, "s2", 100, nullptr, ""}}, 0},
        {"client done at once", true, {{'S', {"Initialize", 0, ""}, nullptr, 0, "DUMMY_KEY", ""}}, 0},
        {"client status below 100 goes on", true, {{'S', {"Initialize", 3, "c1"}, nullptr, 3, kFresh, "c1"}}, 1},
        {"client status 100 or more", true, {{'S', {"Initialize", 100, "junk"}, nullptr, 100, nullptr, ""}}, 0},
        {"client handler throws", true, {{'S', {"Initialize", 1, "junk", 101}, nullptr, 101, nullptr, ""}}, 0},
        {"server to a cached context", true, {{'A', {"Accept", 1, "s1"}, "c1", 1, kFresh, "s1"},
                                              {'A', {"Accept", 2, ""}, nullptr, 2, kCached, ""}}, 0},
        {"server's 0 is 2", true, {{'A', {"Accept", 0, "last", 0, "alice"}, "c1", 2, kCached, "last"}}, 0},
        {"server caching off", false, {{'A', {"Accept", 2, "", 0, "alice"}, "c1", 2, "DUMMY_KEY__CACHING_IS_OFF", ""}}, 0},
        {"server status 100 or more", true, {{'A', {"Accept", 103, "junk"}, "c1", 103, nullptr, ""}}, 0},
        {"server status unknown", true, {{'A', {"Accept", 5, ""}, "c1", 100, nullptr, ""}}, 0},
        {"server stale key starts anew", true, {{'A', {"Accept", 1, "s1"}, "c1", 1, kFresh, "s1"},
                                                {'A', {"Accept", 110, ""}, "c2", 110, nullptr, ""},
                                                {'A', {"Accept", 1, "s2"}, "c3", 1, kFresh, "s2"}}, 1},
        {"capture", true, {{'Q', {"Acquire", 0}, nullptr, 0, kCached, ""}}, 0},
        {"capture needs caching", false, {{'Q', {}, nullptr, 100, nullptr, "", MSG_CACHING_OFF}}, 0},
    };
    // clang-format on
    for (const Login& login : logins) {
        SCOPED_TRACE(login.what);
        m_provider->SetCaching(login.caching);
        const uint64_t nCachedBefore = TestAccess::ContextCache(*m_pImpl)->GetCount();
        SWCharString ssKey;
        for (const Pass& pass : login.passes) {
            SCOPED_TRACE(pass.call);
            if (!pass.step.op.empty()) m_provider->m_script.push_back(pass.step);
            const size_t nIn = pass.input != nullptr ? std::strlen(pass.input) : 0;
            void* pOut = nullptr;
            size_t nOut = pass.call == 'Q' ? 0 : 99;  // a capture has no output
            ostrel_char* pKey = nullptr;
            ParasSeq* pParams = nullptr;
            uint32_t rc = 0;
            if (pass.call == 'S') {
                rc = m_pImpl->StartLogin(SWCharString(), SWCharString(), m_provider.name(), nullptr, &pOut, &nOut, &pKey);
            } else if (pass.call == 'C') {
                rc = m_pImpl->ContinueLogin(pass.input, nIn, ssKey.c_str(), &pOut, &nOut);
            } else if (pass.call == 'Q') {
                rc = m_pImpl->AcquireCurrentSecurityContext(m_provider.name(), nullptr, &pKey);
            } else {
                rc = m_pImpl->AcceptLogin(ssKey, m_provider.name(), pass.input, nIn, &pOut, &nOut,
                                          pass.step.user != nullptr ? &pParams : nullptr, &pKey);
                EXPECT_EQ(m_provider->m_bLastLogonInfo, pass.step.user != nullptr);
            }
            EXPECT_EQ(rc, pass.status);
            EXPECT_EQ(std::string(static_cast<char*>(pOut), pOut != nullptr ? nOut : 0), pass.output);
            EXPECT_EQ(nOut, std::strlen(pass.output));
            m_pImpl->FreeBuffer(pOut);
            EXPECT_TRUE(m_provider->m_script.empty());
            if (!pass.step.op.empty()) {
                EXPECT_EQ(m_provider->m_lastInput, pass.input != nullptr ? pass.input : "");
            }
            const SWCharString ssOut(pKey);
            std::free(pKey);
            if (pass.key == kFresh) {
                uint64_t nId = 0;
                EXPECT_TRUE(ToUInt64(ssOut, nId) && nId != 0) << ostrel_test::Narrow(ssOut);
            } else if (pass.key == kCached) {
                EXPECT_EQ(m_pImpl->LookupSecurityContext(ssOut), 0u) << ostrel_test::Narrow(ssOut);
                EXPECT_EQ(TestAccess::ContextCache(*m_pImpl)->GetCount(), nCachedBefore + 1);
            } else if (pass.call != 'C') {
                EXPECT_EQ(ostrel_test::Narrow(ssOut), pass.key != nullptr ? pass.key : "");
            }
            if (!ssOut.isEmpty()) {
                ssKey = ssOut;  // a failed pass leaves the host its old key
            }
            if (pass.step.user != nullptr) {
                ASSERT_NE(pParams, nullptr);
                EXPECT_EQ(SWCharString(pParams->value), SWCharString(OSTREL_T("alice")));
                FreeParasSeq(pParams);
            }
            // Status and message always go together.
            const auto error = TakeError();
            EXPECT_EQ(error.first, rc >= 100 ? rc : 0u);
            EXPECT_EQ(error.second, rc >= 100 ? pass.message : 0u);
        }
        if (login.caching && login.passes.back().key != kCached) {
            EXPECT_EQ(TestAccess::ContextCache(*m_pImpl)->GetCount(), nCachedBefore);
        }
        EXPECT_EQ(m_provider->m_nLiveSessions, login.pending);
        EXPECT_EQ(m_provider->m_nBuffersOut, 0);
        m_pImpl->Shutdown();  // drops what is pending
        ASSERT_TRUE(m_pImpl->Initialize());
        m_provider.Register();
    }
}

TEST_F(MainRoad, ThreadTokenFailuresOfThePlatform) {
    SWCharString ssKey;
    ASSERT_EQ(Capture(ssKey), 0u);
    ostrel_test::FailingTokenApi fake;
    ostrel::platform::ScopedTokenApiOverride scope(fake);
    const struct {
        bool* pFail;
        uint32_t (*call)(MainRoad&, SWCharString&);
        uint32_t status;
        uint32_t message;
        std::string trace;
    } rows[] = {
        {&fake.bFailThreadToken, [](MainRoad& t, SWCharString& k) { return t.Capture(k); }, 0, 0,
         "OpenThreadToken() failed.  Trying process token."},
        {&fake.bFailProcessToken, [](MainRoad& t, SWCharString& k) { return t.Capture(k); }, 100, MSG_NO_TOKEN,
         "Could not get token for thread nor process: " + ostrel_test::SystemText(ERROR_ACCESS_DENIED)},
        {&fake.bFailImpersonate, [](MainRoad& t, SWCharString& k) { return t.m_pImpl->Impersonate(k); }, 100,
         MSG_IMPERSONATION, "ThreadStaticToken::Impersonate() -- Could not impersonate: "},
        {&fake.bFailRevert, [](MainRoad& t, SWCharString& k) { return t.m_pImpl->Revert(k); }, 100, MSG_IMPERSONATION,
         "ThreadStaticToken::Revert() -- Could not revert: " + ostrel_test::SystemText(ERROR_ACCESS_DENIED)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.trace);
        *row.pFail = true;  // and stays so: each row adds a failure
        SWCharString ssUsed = ssKey;
        EXPECT_EQ(row.call(*this, ssUsed), row.status);
        EXPECT_EQ(TakeError(), std::make_pair(row.status, row.message));
        EXPECT_TRUE(m_capture.has(row.trace));
        if (row.status == 0) {
            EXPECT_EQ(m_pImpl->LookupSecurityContext(ssUsed), 0u);
        }
    }
    // A number the system has no text for still gives a readable line.
    fake.nError = 0x7FFFFFF0;
    EXPECT_EQ(m_pImpl->Revert(ssKey), 100u);
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: ThreadStaticToken::Revert() -- Could not revert: Unknown error."));
}

TEST_F(MainRoad, ExpiredThreadTokensLeaveTheCacheEvenWhileImpersonated) {
    ASSERT_EQ(InitThreadTokens(SSO_KEY_CTXT_CACHE_EXPIRY, SSO_PARAM_LONG, OSTREL_T("1")), 0u);
    CSmartRefCountPtr<SecContextCache> pCache = TestAccess::ContextCache(*m_pImpl);
    SWCharString ssIdle;
    SWCharString ssBusy;
    ASSERT_EQ(Capture(ssIdle), 0u);
    ASSERT_EQ(Capture(ssBusy), 0u);
    ASSERT_EQ(m_pImpl->Impersonate(ssBusy), 0u);
    ASSERT_TRUE(ostrel_test::WaitUntil([&] {
        return m_pImpl->LookupSecurityContext(ssIdle) == 103u && m_pImpl->LookupSecurityContext(ssBusy) == 103u;
    }))
        << "a one-second limit not applied within 20 s";
    EXPECT_EQ(pCache->GetCount(), 2u) << "a look-up never removes anything";
    // Thread tokens count no impersonations, so the scan takes both.
    TestAccess::WakeUpdateThread(*pCache);
    EXPECT_TRUE(ostrel_test::WaitUntil([&] { return pCache->GetCount() == 0; })) << "the woken cleaner left them";
    EXPECT_EQ(m_pImpl->Revert(ssBusy), 100u);
    EXPECT_EQ(TakeError(), std::make_pair(100u, uint32_t{MSG_TOKEN_NOT_FOUND}));
    ASSERT_TRUE(ostrel::platform::Tokens().RevertToSelf());
}

TEST_F(MainRoad, TheCleanerStartsAsConfigured) {
    const struct {
        uint32_t type;
        const ostrel_char* value;
        bool running;  // right after SSOInitProvider
    } rows[] = {{0, nullptr, true}, {SSO_PARAM_BOOL, OSTREL_T("0"), false}, {SSO_PARAM_LONG, OSTREL_T("0"), true}};
    for (const auto& row : rows) {
        CSmartRefCountPtr<SecContextCache> pCache = TestAccess::ContextCache(*m_pImpl);
        EXPECT_FALSE(pCache->IsUpdateThreadRunning());
        EXPECT_EQ(InitThreadTokens(row.value != nullptr ? WP_SI_CACHE_SECCONTEXT_W : nullptr, row.type, row.value), 0u);
        EXPECT_EQ(pCache->IsUpdateThreadRunning(), row.running) << row.type;
        SWCharString ssKey;
        ASSERT_EQ(Capture(ssKey), 0u);
        EXPECT_TRUE(pCache->IsUpdateThreadRunning());  // the first insert starts it in any case
        m_pImpl->Shutdown();
        ASSERT_TRUE(m_pImpl->Initialize());
    }
    EXPECT_TRUE(m_capture.has("Could not determine whether to start the update thread or not."));
}

TEST_F(MainRoad, ShutdownCountsAndRestartsFromDefaults) {
    auto expiry = [] { return SSOHandlerFactory::instance()->GetHandler(g_ssProviderThreadToken)->GetCacheExpiry().GetMilliseconds(); };
    ASSERT_EQ(InitThreadTokens(SSO_KEY_CTXT_CACHE_EXPIRY, SSO_PARAM_LONG, OSTREL_T("1")), 0u);
    EXPECT_EQ(expiry(), 1000) << "the limit is given in seconds";
    ASSERT_TRUE(m_pImpl->Initialize());
    m_pImpl->Shutdown();
    EXPECT_NE(TestAccess::ContextCache(*m_pImpl), nullptr) << "one user is still in";
    m_pImpl->Shutdown();
    m_pImpl->Shutdown();  // one more than Initialize: reported, harmless
    EXPECT_EQ(m_capture.count("ssoplugin: SSOImpl::Shutdown() -- Called more times than Initialize()!"), 1u);
    Plugin_Exception_Struct stale{};
    Plugin_Exception_Struct* pError = &stale;
    EXPECT_EQ(m_pImpl->GetError(100, &pError), 100u);  // not running: the output is still cleared
    EXPECT_EQ(pError, nullptr);

    ASSERT_TRUE(m_pImpl->Initialize());
    ASSERT_EQ(InitThreadTokens(), 0u);
    EXPECT_EQ(expiry(), 86400000) << "a new start, and no limit given: the default again";
    // A handler that cannot be allocated is the shared out-of-memory record; the next try builds it.
    SSOHandlerFactory::instance()->ClearHandlers();
    struct : ostrel_test::FakeSecurityApi {  // memory runs out once, while the package is looked up
        bool bFailed = false;
        SECURITY_STATUS QuerySecurityPackageInfoW(LPWSTR p, PSecPkgInfoW* pp) override {
            if (!std::exchange(bFailed, true)) throw std::bad_alloc();
            return FakeSecurityApi::QuerySecurityPackageInfoW(p, pp);
        }
    } noMemory;
    const platform::ScopedOverride<platform::ISecurityApi> fake(noMemory);
    EXPECT_EQ(m_pImpl->InitSSOProvider(g_ssProviderSSPI, nullptr), 106u);
    EXPECT_EQ(TakeError(), std::make_pair(106u, uint32_t{MSG_OUT_OF_MEMORY_RECORD}));
    EXPECT_EQ(m_pImpl->InitSSOProvider(g_ssProviderSSPI, nullptr), 0u);
    EXPECT_EQ(SSOHandlerFactory::instance()->GetHandler(g_ssProviderThreadToken).get(),
              SSOHandlerFactory::instance()->GetHandler(g_ssProviderThreadToken).get());
    SSOHandlerFactory::instance()->ClearHandlers();  // the one built on the fake goes with it
}
