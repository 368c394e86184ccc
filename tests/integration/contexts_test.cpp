// Captured contexts, what the exports answer to bad calls, and calls racing termination, through the built library.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "integration/Plugin.h"

using ostrel_test::Text;

namespace {

const ostrel_char* K(const std::u16string& s) { return reinterpret_cast<const ostrel_char*>(s.c_str()); }

class Contexts : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        ASSERT_EQ(InitProvider(nullptr, 0, nullptr), 0u);
    }
    void TearDown() override { EXPECT_EQ(plugin.SSOTermPackage(), 0u); }

    unsigned int InitProvider(const ostrel_char* i_pKey, unsigned int i_nType, const ostrel_char* i_pValue) {
        ParasSeq seq{const_cast<ostrel_char*>(i_pKey), i_nType, 0, const_cast<ostrel_char*>(i_pValue), nullptr};
        return plugin.SSOInitProvider(SSO_PROVIDER_THREADTOKEN, i_pKey != nullptr ? &seq : nullptr);
    }
    // The calling thread's identity; empty on failure.
    std::u16string Capture() {
        ostrel_char* pKey = nullptr;
        EXPECT_EQ(plugin.SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey), 0u);
        const std::u16string key = Text(pKey);
        plugin.SSOFreeString(pKey);
        return key;
    }
    // The thread's record for a status that just came back: its message id, or 0 when there is none.
    unsigned int Message(unsigned int i_nStatus) {
        Plugin_Exception_Struct* pError = nullptr;
        if (plugin.SSOGetError(i_nStatus, &pError) != 0) return 0;
        const unsigned int id = pError->errCode == i_nStatus ? pError->messageId : 1;
        plugin.SSOFreeError(pError);
        return id;
    }
    ostrel_test::Plugin plugin;
};

}  // namespace

TEST_F(Contexts, ContextsAreFoundImpersonatedAndReleased) {
    const std::u16string a = Capture(), b = Capture();
    EXPECT_EQ(a.find_first_not_of(u"0123456789"), std::u16string::npos) << "a decimal key";
    ASSERT_NE(a, b);
    EXPECT_EQ(plugin.SSOImpersonate(K(a)), 0u);
    EXPECT_EQ(plugin.SSORevert(K(a)), 0u);
    EXPECT_EQ(plugin.SSORevert(K(a)), 0u) << "reverting twice is harmless";
    ASSERT_EQ(plugin.SSOAssociateSecurityContext(K(b), OSTREL_T("named")), 0u);
    EXPECT_EQ(plugin.SSOReleaseSecurityContext(OSTREL_T("named")), 0u);
    EXPECT_EQ(plugin.SSOReleaseSecurityContext(OSTREL_T("named")), 103u);
    EXPECT_EQ(Message(103), 0u) << "not found is an answer, not a failure: no record";
    EXPECT_EQ(plugin.SSOReleaseAllSecurityContexts(), 0u);
    EXPECT_EQ(plugin.SSOLookupSecurityContext(K(a)), 103u);
    EXPECT_EQ(plugin.SSORevert(K(a)), 100u);
    EXPECT_EQ(Message(100), 61775u);
    EXPECT_EQ(plugin.SSOAssociateSecurityContext(K(a), OSTREL_T("x")), 103u);
    EXPECT_EQ(Message(103), 61775u);
}

TEST_F(Contexts, BadCallsGiveAStatusARecordAndNoOutput) {
    const unsigned char token[] = {1, 2, 3};
    void* pBuffer = nullptr;
    size_t nLength = 77;
    ostrel_char* pKey = nullptr;
    ParasSeq* pParams = nullptr;
    const ostrel_char* const kThread = SSO_PROVIDER_THREADTOKEN;
    const struct {
        const char* what;
        std::function<unsigned int()> call;
        unsigned int status, message;
    } rows[] = {
        {"start a login", [&] { return plugin.SSOStartLogin(OSTREL_T("a"), OSTREL_T("p"), kThread, nullptr, &pKey, &pBuffer, &nLength); }, 101, 42254},
        {"accept a login", [&] { return plugin.SSOAcceptLogin(OSTREL_T(""), kThread, token, 3, &pBuffer, &nLength, &pParams, &pKey); }, 101, 42254},
        {"a token that is not there", [&] { return plugin.SSOAcceptLogin(nullptr, kThread, nullptr, 16, &pBuffer, &nLength, &pParams, &pKey); }, 100, 42254},
        {"a made-up key", [&] { return plugin.SSOContinueLogin(OSTREL_T("12345"), token, 3, &pBuffer, &nLength); }, 100, 42254},
        {"the client's literal", [&] { return plugin.SSOContinueLogin(SSO_DUMMY_KEY, token, 3, &pBuffer, &nLength); }, 100, 42254},
        {"no key", [&] { return plugin.SSOContinueLogin(nullptr, token, 3, &pBuffer, &nLength); }, 100, 42254},
        {"no output", [&] { return plugin.SSOContinueLogin(OSTREL_T("1"), token, 3, nullptr, &nLength); }, 100, 42254},
        {"no key output", [&] { return plugin.SSOStartLogin(nullptr, nullptr, kThread, nullptr, nullptr, &pBuffer, &nLength); }, 100, 42254},
        {"no provider", [&] { return plugin.SSOStartLogin(nullptr, nullptr, OSTREL_T(""), nullptr, &pKey, &pBuffer, &nLength); }, 100, 42254},
        {"unknown provider", [&] { return plugin.SSOInitProvider(OSTREL_T("NTLM"), nullptr); }, 100, 61778},
        {"expiry of the wrong type", [&] { return InitProvider(SSO_KEY_CTXT_CACHE_EXPIRY, SSO_PARAM_STRING, OSTREL_T("10")); }, 113, 42038},
        {"a literal key", [&] { return plugin.SSOImpersonate(SSO_DUMMY_KEY_CACHING_IS_OFF); }, 100, 61869},
        {"no session ID output", [&] { return plugin.SSOAcquireCurrentSecurityContext(kThread, nullptr, nullptr); }, 100, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(row.call(), row.status);
        EXPECT_EQ(Message(row.status), row.message);
        EXPECT_TRUE(pKey == nullptr && pBuffer == nullptr && pParams == nullptr);
        EXPECT_TRUE(nLength == 0 || nLength == 77);
    }
}

// Calls under way when the plug-in is terminated either finish whole or are refused with 100 and no output.
TEST_F(Contexts, CallsRacingTerminationFinishOrAreRefused) {
    ASSERT_EQ(InitProvider(SSO_KEY_CTXT_CACHE_EXPIRY, SSO_PARAM_LONG, OSTREL_T("1")), 0u);
    ASSERT_EQ(plugin.SSOInitPackage(), 0u);  // a second user, ended below while calls run
    std::atomic<bool> bStop{false};
    std::atomic<int> nSucceeded{0}, nRefused{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < 3; ++t) {
        workers.emplace_back([&] {
            while (!bStop) {
                ostrel_char* pKey = nullptr;
                const unsigned int rc = plugin.SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey);
                if (rc == 0) {
                    plugin.SSOImpersonate(pKey);
                    plugin.SSORevert(pKey);
                    plugin.SSOLookupSecurityContext(pKey);
                    plugin.SSOReleaseSecurityContext(pKey);
                    plugin.SSOFreeString(pKey);
                    ++nSucceeded;
                } else {
                    EXPECT_TRUE(rc == 100u && pKey == nullptr);
                    ++nRefused;
                }
            }
        });
    }
    while (nSucceeded < 50) std::this_thread::yield();
    EXPECT_EQ(plugin.SSOTermPackage(), 0u);
    EXPECT_EQ(plugin.SSOTermPackage(), 0u);  // now fully down, with calls in flight
    while (nRefused < 10) std::this_thread::yield();
    bStop = true;
    for (auto& w : workers) w.join();
    ASSERT_EQ(plugin.SSOInitPackage(), 0u);  // and a fresh start serves again
    EXPECT_FALSE(Capture().empty());
}
