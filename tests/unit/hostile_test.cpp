// What a hostile host or client tries: tokens that are not there, logins left
// half done, stale keys, starved writers, far dates, memory running out,
// libraries gone, and threads started while impersonating.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "authentication/ostrel/GSSAPICredentials.h"
#include "authentication/ostrel/SSOImpl.h"
#include "authentication/ostrel/ThreadTokenHandler.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

#if defined(__linux__)
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/linux/LinuxTokenApi.h"
#endif

// Makes the n-th allocation of the calling thread fail, in builds without a sanitizer's own allocator.
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define OSTREL_FAILING_MALLOC 1
extern "C" void* __libc_malloc(size_t);
namespace {
thread_local long t_nMallocsBeforeFailure = -1;
}
extern "C" void* malloc(size_t i_nBytes) {
    if (t_nMallocsBeforeFailure >= 0 && t_nMallocsBeforeFailure-- == 0) {
        return nullptr;
    }
    return __libc_malloc(i_nBytes);
}
#endif

namespace ostrel {
// Shortens the limits of a session cache for a test.
class SessionCacheTestAccess {
public:
    static void Limit(SessionCache& io_cache, int64_t i_nMaxIdleMs, size_t i_nMaxSessions) {
        io_cache.m_nMaxIdleMs = i_nMaxIdleMs;
        io_cache.m_nMaxSessions = i_nMaxSessions;
    }
};
}  // namespace ostrel

using namespace ostrel;
using ostrel_test::FakeToken;
using ostrel_test::WaitUntil;

namespace {

class Hostile : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_pImpl->Initialize()); }
    void TearDown() override { m_pImpl->Shutdown(); }
    uint32_t ThreadErrorMessage() {
        Plugin_Exception_Struct* pError = nullptr;
        const uint32_t nId = m_pImpl->GetError(100, &pError) == 0 ? pError->messageId : 0;
        FreeErrorStruct(pError);
        return nId;
    }
    CSmartRefCountPtr<SSOImpl> m_pImpl = SSOImpl::instance();
};

TEST_F(Hostile, ATokenThatIsNotThereIsRefusedBeforeAnyProviderSeesIt) {
    for (const SWCharString& ssProvider : {g_ssProviderThreadToken, g_ssProviderGSSAPI}) {
        void* pOut = nullptr;
        size_t nOut = 0;
        ostrel_char* pKey = nullptr;
        EXPECT_EQ(m_pImpl->AcceptLogin(SWCharString(), ssProvider, nullptr, 16, &pOut, &nOut, nullptr, &pKey), 100u);
        EXPECT_EQ(ThreadErrorMessage(), static_cast<uint32_t>(MSG_DEFAULT));
        EXPECT_EQ(pKey, nullptr);
    }
}

TEST(HostileSessions, IdleOnesGoAndTheirNumberIsBounded) {
    CSmartRefCountPtr<SSOHandler> pHandler = new ThreadTokenHandler();
    ostrel_test::TraceCapture capture;
    {
        SessionCache cache;
        SessionCacheTestAccess::Limit(cache, -1, SessionCache::s_nMaxSessions);  // idle at once
        const SSOSession::SessionIdentifier first(cache.CreateSession(pHandler, nullptr).get());
        const SSOSession::SessionIdentifier second(cache.CreateSession(pHandler, nullptr).get());
        EXPECT_EQ(cache.GetSession(first), nullptr);
        EXPECT_NE(cache.GetSession(second), nullptr);
    }
    EXPECT_TRUE(capture.has("Shutting down with 1 partially formed sessions in cache."));
    SessionCache cache;
    SessionCacheTestAccess::Limit(cache, SessionCache::s_nMaxIdleMs, 1);
    const SSOSession::SessionIdentifier kept(cache.CreateSession(pHandler, nullptr).get());
    EXPECT_THROW(cache.CreateSession(pHandler, nullptr), SSOException);
    EXPECT_TRUE(capture.has("1 partially formed sessions in cache; refusing a new login."));
    EXPECT_NE(cache.GetSession(kept), nullptr);
}

// A stale key must never name a newer login or context, nor let one guess another.
TEST(HostileKeys, NeverComeBackNorFollowEachOther) {
    ostrel_test::ScopedFakeProvider provider;
    CSmartRefCountPtr<SSOHandler> pHandler = new ThreadTokenHandler();
    SessionCache sessions;
    CSmartRefCountPtr<SecContextCache> pCache = new SecContextCache(false);
    std::vector<std::string> keys;
    for (int i = 0; i < 3; ++i) {
        SSOSessionPtr pSession = sessions.CreateSession(pHandler, nullptr);
        const SSOSession::SessionIdentifier id(pSession.get());
        keys.push_back(ostrel_test::Narrow(id.ToString()));
        sessions.ReleaseSession(id);
    }
    for (int i = 0; i < 3; ++i) {
        CSmartRefCountPtr<StaticToken> pToken = new FakeToken(provider.name());
        const SWCharString ssKey = pCache->Insert(pToken);
        keys.push_back(ostrel_test::Narrow(ssKey));
        pCache->Release(ssKey);
    }
    pCache->StopUpdateThread();
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), keys.size());
    for (size_t i = 0; i + 2 < keys.size(); i += 3) {
        const auto n = [&](size_t j) { return std::stoull(keys[i + j]); };
        EXPECT_NE(n(1) - n(0), n(2) - n(1)) << "keys in step";
    }
}

TEST(HostileDates, ArithmeticSaturatesInsteadOfWrapping) {
    struct Case {
        int64_t nAt, nSpan, nSum, nDifference;  // at + span, at - (the instant span)
    } cases[] = {{INT64_MAX - 10, 100, INT64_MAX, INT64_MAX - 110},
                 {INT64_MIN + 10, -100, INT64_MIN, INT64_MIN + 110},
                 {INT64_MAX, -1, INT64_MAX - 1, INT64_MAX},
                 {INT64_MIN, 1, INT64_MIN + 1, INT64_MIN}};
    for (const Case& c : cases) {
        const SDateTime at = SDateTime::FromMilliseconds(c.nAt);
        EXPECT_EQ((at + STimeSpan(c.nSpan)).GetMilliseconds(), c.nSum) << c.nAt << " + " << c.nSpan;
        EXPECT_EQ((at - SDateTime::FromMilliseconds(c.nSpan)).GetMilliseconds(), c.nDifference) << c.nAt;
    }
    // The largest expiry whose milliseconds still fit: never expired, not expired at once.
    ostrel_test::ScopedFakeProvider provider(9223372036854775LL * 1000);
    CSmartRefCountPtr<FakeToken> pToken = new FakeToken(provider.name());
    EXPECT_FALSE(pToken->ExpiredByConfiguration(SDateTime::GetCurrentDateTime()));
}

TEST_F(Hostile, MemoryRunningOutAnywhereInACaptureLeavesNoContextBehind) {
#if !defined(OSTREL_FAILING_MALLOC)
    GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail here";
#else
    // Until a capture needs fewer allocations than the one made to fail.
    for (long nFailAt = 0, bFailed = 1; bFailed; ++nFailAt) {
        ostrel_char* pKey = nullptr;
        t_nMallocsBeforeFailure = nFailAt;
        const unsigned int rc = SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey);
        bFailed = t_nMallocsBeforeFailure < 0;
        t_nMallocsBeforeFailure = -1;
        EXPECT_EQ(rc == 0, pKey != nullptr) << "failing allocation " << nFailAt;
        if (rc == 0) {
            EXPECT_EQ(m_pImpl->ReleaseSecurityContext(SWCharString(pKey)), 0u);
            std::free(pKey);
        }
    }
    ostrel_test::TraceCapture capture;
    ostrel_char* pKey = nullptr;
    ASSERT_EQ(SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey), 0u);
    std::free(pKey);
    EXPECT_TRUE(capture.has("-- 1 contexts now in cache.")) << "a failed capture left its context behind";
#endif
}

TEST(HostileLibrary, CredentialsGoQuietlyWhenTheLibraryHasGone) {
    CSmartRefCountPtr<GSSAPIDllWrapper> pGssDll = new GSSAPIDllWrapper(ToWCharString(OSTREL_FAKE_GSSAPI_PATH), false);
    ASSERT_TRUE(pGssDll->Initialize());
    CSmartRefCountPtr<SSOCredentials> pCredentials =
        new GSSAPIServerCredentials(SWCharString(OSTREL_T("HTTP/localhost")), SSOCredentialsServer, pGssDll);
    pGssDll->Uninitialize();
    // The release goes through the library's gate, which now throws: the destructor must not.
    pCredentials = nullptr;
}

#if defined(__linux__)
long ThreadId() { return syscall(SYS_gettid); }

// From the kernel's own view of the thread.
char TaskState(long i_nTid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(i_nTid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t nEnd = text.rfind(')');
    return nEnd != std::string::npos && nEnd + 2 < text.size() ? text[nEnd + 2] : '?';
}

TEST(HostileLocks, AWaitingWriterKeepsNewReadersOut) {
    CRWLock lock;
    std::mutex mutex;
    std::string order;
    auto note = [&](char c) {
        std::lock_guard<std::mutex> guard(mutex);
        order += c;
    };
    std::atomic<long> nWriter{0};
    std::atomic<long> nReader{0};
    lock.lockRead();
    std::thread writer([&] {
        nWriter = ThreadId();
        CSmartWriteLocker hold(lock);
        note('W');
    });
    ASSERT_TRUE(WaitUntil([&] { return nWriter != 0 && TaskState(nWriter) == 'S'; }));
    std::thread reader([&] {
        nReader = ThreadId();
        CSmartReadLocker hold(lock);
        note('R');
    });
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> guard(mutex);
        return (nReader != 0 && TaskState(nReader) == 'S') || !order.empty();
    }));
    lock.unlockRead();
    writer.join();
    reader.join();
    EXPECT_EQ(order, "WR");
}

std::set<std::string> Tasks() {
    std::set<std::string> tasks;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        tasks.insert(entry.path().filename().string());
    }
    return tasks;
}

TEST(HostileThreads, TheCleanerRunsAsTheProcessWhateverItsStarterImpersonates) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to impersonate";
    }
    platform::linuxport::LinuxTokenApi api;
    ostrel_test::TraceCapture capture;
    CSmartRefCountPtr<SecContextCache> pCache = new SecContextCache(false);
    std::set<std::string> cleaner;
    std::thread([&] {
        HANDLE hNobody = nullptr;
        ASSERT_TRUE(api.CreateToken({65534, 65534, {65534}}, &hNobody));
        ASSERT_TRUE(api.ImpersonateLoggedOnUser(hNobody));
        const std::set<std::string> before = Tasks();
        pCache->StartUpdateThread();
        for (const std::string& task : Tasks()) {
            if (before.count(task) == 0) {
                cleaner.insert(task);
            }
        }
        EXPECT_TRUE(api.RevertToSelf());
        api.CloseHandle(hNobody);
    }).join();
    ASSERT_EQ(cleaner.size(), 1u);
    ASSERT_TRUE(WaitUntil([&] { return capture.has("Thread sleeping for 60s."); }));
    std::ifstream status("/proc/self/task/" + *cleaner.begin() + "/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("Uid:", 0) != 0) {
    }
    EXPECT_EQ(line, "Uid:\t0\t0\t0\t0");
    pCache->StopUpdateThread();
}
#endif

}  // namespace
