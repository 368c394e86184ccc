// Captured identities in the context cache, through the exports of the built library.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "integration/Identity.h"
#include "integration/Plugin.h"

using ostrel_test::Plugin;
using ostrel_test::Text;

namespace {

// One parameter for a provider, the way a host lays it out.
struct OneParameter {
    OneParameter(const ostrel_char* i_pKey, uint32_t i_nType, const ostrel_char* i_pValue) {
        seq.key = const_cast<ostrel_char*>(i_pKey);
        seq.type = i_nType;
        seq.value = const_cast<ostrel_char*>(i_pValue);
        seq.next = nullptr;
    }
    ParasSeq seq{};
};

class Contexts : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        ASSERT_EQ(plugin.SSOInitProvider(SSO_PROVIDER_THREADTOKEN, nullptr), 0u);
    }
    void TearDown() override { EXPECT_EQ(plugin.SSOTermPackage(), 0u); }

    // Captures the calling thread's identity; empty on failure.
    std::u16string Capture() {
        ostrel_char* pKey = nullptr;
        const unsigned int rc = plugin.SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey);
        EXPECT_EQ(rc, 0u);
        std::u16string key = Text(pKey);
        plugin.SSOFreeString(pKey);
        return key;
    }
    const ostrel_char* K(const std::u16string& s) { return reinterpret_cast<const ostrel_char*>(s.c_str()); }

    // The thread's record for a status that just came back: its message id.
    unsigned int MessageOfLastError(unsigned int i_nStatus) {
        Plugin_Exception_Struct* pError = nullptr;
        if (plugin.SSOGetError(i_nStatus, &pError) != 0 || pError == nullptr) {
            return 0;
        }
        const unsigned int id = pError->messageId;
        EXPECT_EQ(pError->errCode, i_nStatus);
        plugin.SSOFreeError(pError);
        return id;
    }

    Plugin plugin;
};

}  // namespace

#if defined(__linux__)
namespace {
constexpr uid_t kUser = 4242;
constexpr gid_t kGroup = 4343;
const std::vector<gid_t> kGroups = {4343, 5001, 5002};
bool IsRoot() { return ::geteuid() == 0; }
}  // namespace

TEST_F(Contexts, CapturedUserIsImpersonatedOnAnotherThread) {
    if (!IsRoot()) {
        GTEST_SKIP() << "switching users needs root";
    }
    // A thread that runs as an ordinary user captures who it is.
    std::u16string key;
    std::thread([&] {
        const ostrel_test::ThreadIdentity before = ostrel_test::CurrentThreadIdentity();
        ASSERT_TRUE(ostrel_test::BecomeOnThisThread(kUser, kGroup, kGroups));
        key = Capture();
        ASSERT_TRUE(ostrel_test::RestoreOnThisThread(before));
    }).join();
    ASSERT_FALSE(key.empty());
    EXPECT_EQ(ostrel_test::CurrentThreadIdentity().euid, 0u) << "the capture must not change this thread";

    // Another thread runs as that user, as the kernel sees it, until it reverts.
    std::thread([&] {
        ASSERT_EQ(plugin.SSOImpersonate(K(key)), 0u);
        const ostrel_test::ThreadIdentity as = ostrel_test::CurrentThreadIdentity();
        EXPECT_EQ(as.euid, kUser);
        EXPECT_EQ(as.egid, kGroup);
        EXPECT_EQ(as.groups, kGroups);
        EXPECT_EQ(plugin.SSORevert(K(key)), 0u);
        EXPECT_EQ(ostrel_test::CurrentThreadIdentity().euid, 0u);
    }).join();

    // Under a key of the host's own it still works, and the old key is gone.
    ASSERT_EQ(plugin.SSOAssociateSecurityContext(K(key), OSTREL_T("host-key-1")), 0u);
    EXPECT_EQ(plugin.SSOLookupSecurityContext(K(key)), 103u);
    EXPECT_EQ(plugin.SSOImpersonate(K(key)), 100u);
    EXPECT_EQ(MessageOfLastError(100), 61869u);
    std::thread([&] {
        ASSERT_EQ(plugin.SSOImpersonate(OSTREL_T("host-key-1")), 0u);
        EXPECT_EQ(ostrel_test::CurrentThreadIdentity().euid, kUser);
        EXPECT_EQ(plugin.SSORevert(OSTREL_T("host-key-1")), 0u);
    }).join();

    EXPECT_EQ(plugin.SSOLookupSecurityContext(OSTREL_T("host-key-1")), 0u);
    EXPECT_EQ(plugin.SSOReleaseSecurityContext(OSTREL_T("host-key-1")), 0u);
    EXPECT_EQ(plugin.SSOLookupSecurityContext(OSTREL_T("host-key-1")), 103u);
    EXPECT_EQ(plugin.SSOReleaseSecurityContext(OSTREL_T("host-key-1")), 103u);
    // Not found is an answer, not a failure: no record.
    Plugin_Exception_Struct* pError = nullptr;
    EXPECT_EQ(plugin.SSOGetError(103, &pError), 100u);
}
#endif

TEST_F(Contexts, ThreadWithoutItsOwnIdentityCapturesTheProcess) {
    const std::u16string key = Capture();
    ASSERT_FALSE(key.empty());
    EXPECT_EQ(key.find_first_not_of(u"0123456789"), std::u16string::npos) << "a decimal key";
    EXPECT_EQ(plugin.SSOImpersonate(K(key)), 0u);
    EXPECT_EQ(plugin.SSORevert(K(key)), 0u);
    // Reverting twice is harmless.
    EXPECT_EQ(plugin.SSORevert(K(key)), 0u);
}

TEST_F(Contexts, ReleaseAllEmptiesTheCache) {
    const std::u16string a = Capture();
    const std::u16string b = Capture();
    ASSERT_NE(a, b);
    ASSERT_EQ(plugin.SSOAssociateSecurityContext(K(b), OSTREL_T("named")), 0u);
    EXPECT_EQ(plugin.SSOReleaseAllSecurityContexts(), 0u);
    EXPECT_EQ(plugin.SSOLookupSecurityContext(K(a)), 103u);
    EXPECT_EQ(plugin.SSOLookupSecurityContext(OSTREL_T("named")), 103u);
    EXPECT_EQ(plugin.SSORevert(OSTREL_T("named")), 100u);
    EXPECT_EQ(MessageOfLastError(100), 61775u);
    EXPECT_EQ(plugin.SSOAssociateSecurityContext(K(a), OSTREL_T("x")), 103u);
    EXPECT_EQ(MessageOfLastError(103), 61775u);
}

TEST_F(Contexts, LoginsWithTheThreadTokenProviderAreNotSupported) {
    ostrel_char* pKey = nullptr;
    void* pBuffer = nullptr;
    size_t nLength = 77;
    EXPECT_EQ(plugin.SSOStartLogin(OSTREL_T("alice"), OSTREL_T("pw"), SSO_PROVIDER_THREADTOKEN, nullptr, &pKey,
                                   &pBuffer, &nLength),
              101u);
    EXPECT_EQ(pKey, nullptr);
    EXPECT_EQ(pBuffer, nullptr);
    EXPECT_EQ(nLength, 0u);
    Plugin_Exception_Struct* pError = nullptr;
    ASSERT_EQ(plugin.SSOGetError(101, &pError), 0u);
    ASSERT_NE(pError, nullptr);
    EXPECT_EQ(pError->errCode, 101u);
    EXPECT_EQ(pError->messageId, 42254u);
    EXPECT_EQ(plugin.SSOFreeError(pError), 0u);

    const unsigned char token[] = {1, 2, 3};
    nLength = 5;
    ParasSeq* pParams = nullptr;
    EXPECT_EQ(plugin.SSOAcceptLogin(OSTREL_T(""), SSO_PROVIDER_THREADTOKEN, token, sizeof(token), &pBuffer, &nLength,
                                    &pParams, &pKey),
              101u);
    EXPECT_EQ(pKey, nullptr);
    EXPECT_EQ(pBuffer, nullptr);
    EXPECT_EQ(nLength, 0u);
    EXPECT_EQ(pParams, nullptr);
    EXPECT_EQ(MessageOfLastError(101), 42254u);

    // The failed logins left no session behind: their keys never reached the host,
    // and a pass with a made-up key finds nothing.
    EXPECT_EQ(plugin.SSOContinueLogin(OSTREL_T("12345"), token, sizeof(token), &pBuffer, &nLength), 100u);
    EXPECT_EQ(MessageOfLastError(100), 42254u);
}

TEST_F(Contexts, BadArgumentsGiveStatusesAndRecords) {
    const unsigned char token[] = {1};
    void* pBuffer = nullptr;
    size_t nLength = 0;
    // Keys that are not numbers, a number past 64 bits, the client's literal sent back.
    for (const ostrel_char* pKey : {OSTREL_T("abc"), OSTREL_T("18446744073709551616"), OSTREL_T("DUMMY_KEY"),
                                    OSTREL_T("18446744073709551615")}) {
        EXPECT_EQ(plugin.SSOContinueLogin(pKey, token, sizeof(token), &pBuffer, &nLength), 100u);
        EXPECT_EQ(MessageOfLastError(100), 42254u);
        EXPECT_EQ(pBuffer, nullptr);
    }
    EXPECT_EQ(plugin.SSOContinueLogin(nullptr, token, sizeof(token), &pBuffer, &nLength), 100u);
    EXPECT_EQ(plugin.SSOContinueLogin(OSTREL_T("1"), token, 0, &pBuffer, &nLength), 100u);
    EXPECT_EQ(plugin.SSOContinueLogin(OSTREL_T("1"), token, sizeof(token), nullptr, &nLength), 100u);

    // Unknown and empty providers.
    for (const ostrel_char* pProvider : {OSTREL_T(""), OSTREL_T("NTLM"), OSTREL_T("threadtoken")}) {
        EXPECT_EQ(plugin.SSOInitProvider(pProvider, nullptr), 100u);
        Plugin_Exception_Struct* pError = nullptr;
        ASSERT_EQ(plugin.SSOGetError(100, &pError), 0u);
        EXPECT_EQ(pError->messageId, 61778u);
        ASSERT_NE(pError->pSubstStrings, nullptr);
        EXPECT_EQ(Text(pError->pSubstStrings->data), Text(pProvider));
        plugin.SSOFreeError(pError);
    }
    ostrel_char* pKey = nullptr;
    EXPECT_EQ(plugin.SSOStartLogin(nullptr, nullptr, OSTREL_T(""), nullptr, &pKey, &pBuffer, &nLength), 100u);
    EXPECT_EQ(pKey, nullptr);

    // NULL output pointers.
    EXPECT_EQ(plugin.SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, nullptr), 100u);
    EXPECT_EQ(plugin.SSOStartLogin(nullptr, nullptr, SSO_PROVIDER_THREADTOKEN, nullptr, nullptr, &pBuffer, &nLength),
              100u);
    EXPECT_EQ(plugin.SSOAcceptLogin(nullptr, SSO_PROVIDER_THREADTOKEN, token, 1, &pBuffer, &nLength, nullptr, nullptr),
              100u);
    EXPECT_EQ(MessageOfLastError(100), 42254u);

    // A stale output value is reported and overwritten, not a failure.
    ostrel_char stale[] = OSTREL_T("stale");
    ostrel_char* pSessionID = stale;
    ASSERT_EQ(plugin.SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pSessionID), 0u);
    EXPECT_NE(pSessionID, stale);
    plugin.SSOFreeString(pSessionID);

    // Literal keys are never in the cache.
    EXPECT_EQ(plugin.SSOImpersonate(SSO_DUMMY_KEY_CACHING_IS_OFF), 100u);
    EXPECT_EQ(MessageOfLastError(100), 61869u);
    EXPECT_EQ(plugin.SSOLookupSecurityContext(nullptr), 103u);
}

TEST_F(Contexts, ConfiguredExpiryEndsAKeyAtOnce) {
    OneParameter expiry(SSO_KEY_CTXT_CACHE_EXPIRY, SSO_PARAM_LONG, OSTREL_T("1"));
    ASSERT_EQ(plugin.SSOInitProvider(SSO_PROVIDER_THREADTOKEN, &expiry.seq), 0u);
    const std::u16string key = Capture();
    EXPECT_EQ(plugin.SSOLookupSecurityContext(K(key)), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(plugin.SSOLookupSecurityContext(K(key)), 103u);
    EXPECT_EQ(plugin.SSOImpersonate(K(key)), 100u);
    EXPECT_EQ(MessageOfLastError(100), 61869u);
    // Reverting needs no valid token, only one still in the cache.
    EXPECT_EQ(plugin.SSORevert(K(key)), 0u);

    // A wrong type fails the call and leaves the expiry as it was.
    OneParameter wrong(SSO_KEY_CTXT_CACHE_EXPIRY, SSO_PARAM_STRING, OSTREL_T("10"));
    EXPECT_EQ(plugin.SSOInitProvider(SSO_PROVIDER_THREADTOKEN, &wrong.seq), 113u);
    EXPECT_EQ(MessageOfLastError(113), 42038u);
}

TEST_F(Contexts, TerminationWaitsForRunningCallsAndRestartsFromDefaults) {
    OneParameter expiry(SSO_KEY_CTXT_CACHE_EXPIRY, SSO_PARAM_LONG, OSTREL_T("1"));
    ASSERT_EQ(plugin.SSOInitProvider(SSO_PROVIDER_THREADTOKEN, &expiry.seq), 0u);
    ASSERT_EQ(plugin.SSOInitPackage(), 0u);  // a second user, ended below while calls run

    std::atomic<bool> bStop{false};
    std::atomic<int> nSucceeded{0};
    std::atomic<int> nRefused{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < 3; ++t) {
        workers.emplace_back([&] {
            while (!bStop.load()) {
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
                    EXPECT_EQ(rc, 100u);
                    EXPECT_EQ(pKey, nullptr);
                    ++nRefused;
                }
            }
        });
    }
    while (nSucceeded.load() < 50) {
        std::this_thread::yield();
    }
    EXPECT_EQ(plugin.SSOTermPackage(), 0u);
    EXPECT_EQ(plugin.SSOTermPackage(), 0u);  // now fully down, with calls in flight
    while (nRefused.load() < 10) {
        std::this_thread::yield();
    }
    bStop = true;
    for (auto& w : workers) {
        w.join();
    }
    // A new start has the handler's defaults again: 24 hours, not 1 second.
    ASSERT_EQ(plugin.SSOInitPackage(), 0u);
    const std::u16string key = Capture();
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(plugin.SSOLookupSecurityContext(K(key)), 0u);
}

TEST_F(Contexts, RequiredParametersOfTheThreadTokenProviderAreNone) {
    ParasSeq* pParams = nullptr;
    EXPECT_EQ(plugin.SSOGetRequiredParameters(SSO_PROVIDER_THREADTOKEN, &pParams), 0u);
    EXPECT_EQ(pParams, nullptr);
    EXPECT_EQ(plugin.SSOFreeParameters(pParams), 0u);
}
