// What hostile hosts and clients try, and what the plug-in must withstand.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "authentication/ostrel/GSSAPICredentials.h"
#include "authentication/ostrel/Keys.h"
#include "authentication/ostrel/SSOImpl.h"
#include "authentication/ostrel/ThreadTokenHandler.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"
#if defined(__linux__)
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/linux/LinuxTokenApi.h"
#endif

// Fails the n-th allocation of the calling thread, where no sanitizer brings its own allocator.
#if defined(__GLIBC__) && !defined(OSTREL_SANITIZE_ADDRESS) && !defined(__SANITIZE_ADDRESS__) && \
    !defined(__SANITIZE_THREAD__)
#define OSTREL_FAILING_MALLOC 1
extern "C" void* __libc_malloc(size_t);
thread_local long t_nMallocsBeforeFailure = -1;
extern "C" void* malloc(size_t i_nBytes) {
    return t_nMallocsBeforeFailure >= 0 && t_nMallocsBeforeFailure-- == 0 ? nullptr : __libc_malloc(i_nBytes);
}
#endif

using namespace ostrel;
using ostrel_test::TraceCapture;
using ostrel_test::WaitUntil;

namespace {

TEST(HostileSessions, IdleOnesGoAndTheirNumberIsBounded) {
    CSmartRefCountPtr<SSOHandler> pHandler{new ThreadTokenHandler()};
    auto create = [&](SessionCache& io_cache) {
        return SSOSession::SessionIdentifier(io_cache.CreateSession(pHandler, nullptr).get());
    };
    SessionCache idle, full;
    TestAccess::Limit(idle, -1, SessionCache::s_nMaxSessions);  // idle at once
    TestAccess::Limit(full, SessionCache::s_nMaxIdleMs, 1);
    const SSOSession::SessionIdentifier first = create(idle);
    EXPECT_NE(idle.GetSession(create(idle)), nullptr);
    EXPECT_EQ(idle.GetSession(first), nullptr) << "an idle login outlived its age";
    const SSOSession::SessionIdentifier kept = create(full);
    TraceCapture capture;
    EXPECT_THROW(create(full), SSOException);
    EXPECT_TRUE(capture.has("1 partially formed sessions in cache; refusing a new login."));
    EXPECT_NE(full.GetSession(kept), nullptr);
}

// A stale key must never name a newer login or context, nor tell the next one.
TEST(HostileKeys, NeverComeBackNorFollowEachOther) {
    ostrel_test::ScopedFakeProvider provider;
    CSmartRefCountPtr<SSOHandler> pHandler{new ThreadTokenHandler()};
    SessionCache sessions;
    CSmartRefCountPtr<SecContextCache> pCache{new SecContextCache(false)};
    std::vector<uint64_t> keys;  // a session's and a context's, each gone before the next is made
    for (int i = 0; i < 3; ++i) {
        const SSOSession::SessionIdentifier id(sessions.CreateSession(pHandler, nullptr).get());
        sessions.ReleaseSession(id);
        CSmartRefCountPtr<StaticToken> pToken{new ostrel_test::FakeToken(provider.name())};
        const SWCharString ssKey = pCache->Insert(pToken);
        pCache->Release(ssKey);
        keys.insert(keys.end(), {id.GetId(), std::stoull(ostrel_test::Narrow(ssKey))});
    }
    EXPECT_EQ(std::set<uint64_t>(keys.begin(), keys.end()).size(), keys.size());
    for (size_t i = 0; i < 2; ++i) EXPECT_NE(keys[i + 2] - keys[i], keys[i + 4] - keys[i + 2]) << "keys in step";
    uint64_t n = 0;  // one spelling each: no leading zero, nothing past 2^64 - 1 that wraps onto a key
    for (const char* alias : {"0", "01", "18446744073709551616", "99999999999999999999", "1a", "-1", ""})
        EXPECT_FALSE(ParseCanonicalKey(ToWCharString(alias), n)) << alias;
    EXPECT_TRUE(ParseCanonicalKey(ToWCharString("18446744073709551615"), n) && n == UINT64_MAX);
}

TEST(HostileDates, ArithmeticSaturatesInsteadOfWrapping) {
    struct Case {
        int64_t nAt, nSpan, nSum, nDifference;  // at + span, at - (the instant span)
    } cases[] = {{INT64_MAX - 10, 100, INT64_MAX, INT64_MAX - 110}, {INT64_MIN, 1, INT64_MIN + 1, INT64_MIN}};
    for (const Case& c : cases) {
        const SDateTime at = SDateTime::FromMilliseconds(c.nAt);
        EXPECT_EQ((at + STimeSpan(c.nSpan)).GetMilliseconds(), c.nSum) << c.nAt << " + " << c.nSpan;
        EXPECT_EQ((at - SDateTime::FromMilliseconds(c.nSpan)).GetMilliseconds(), c.nDifference) << c.nAt;
    }
    // The largest expiry whose milliseconds still fit: never expired, not expired at once.
    ostrel_test::ScopedFakeProvider provider(9223372036854775LL * 1000);
    CSmartRefCountPtr<ostrel_test::FakeToken> pToken{new ostrel_test::FakeToken(provider.name())};
    EXPECT_FALSE(pToken->ExpiredByConfiguration(SDateTime::GetCurrentDateTime()));
}

TEST(Hostile, MemoryRunningOutAnywhereInACaptureLeavesNoContextBehind) {
#if !defined(OSTREL_FAILING_MALLOC)
    GTEST_SKIP() << "a sanitizer's allocator cannot be made to fail here";
#else
    ASSERT_EQ(SSOInitPackage(), 0u);
    ostrel_char* pKey = nullptr;
    // Each allocation in turn, until a capture needs fewer than the one made to fail.
    for (long nFailAt = 0, bFailed = 1; bFailed; ++nFailAt) {
        t_nMallocsBeforeFailure = nFailAt;
        const unsigned int rc = SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey);
        bFailed = t_nMallocsBeforeFailure < 0;
        t_nMallocsBeforeFailure = -1;
        EXPECT_EQ(rc == 0, pKey != nullptr) << "failing allocation " << nFailAt;
        EXPECT_EQ(rc == 0 ? SSOReleaseSecurityContext(pKey) : 0u, 0u);
        std::free(pKey);
        pKey = nullptr;
    }
    TraceCapture capture;
    ASSERT_EQ(SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey), 0u);
    std::free(pKey);
    EXPECT_TRUE(capture.has("-- 1 contexts now in cache.")) << "a failed capture left its context behind";
    SSOTermPackage();
#endif
}

TEST(HostileLibrary, CredentialsGoQuietlyWhenTheLibraryHasGone) {
    CSmartRefCountPtr<GSSAPIDllWrapper> pGssDll{new GSSAPIDllWrapper(ToWCharString(OSTREL_FAKE_GSSAPI_PATH), false)};
    pGssDll->Initialize();
    CSmartRefCountPtr<GSSAPIServerCredentials> pCredentials{
        new GSSAPIServerCredentials(SWCharString(OSTREL_T("HTTP/localhost")), SSOCredentialsServer, pGssDll)};
    OM_uint32 nMinor = 0;
    gss_cred_id_t hGiven = pCredentials->GetCredHandle();
    pGssDll->gss_release_cred(&nMinor, &hGiven);  // given back here, so that nothing leaks
    pGssDll->Uninitialize();
    pCredentials = nullptr;  // their own release goes through the library's gate, which throws now
}

#if defined(__linux__)
// The kernel's view of a thread of this process.
std::string TaskFile(const std::string& i_task, const char* i_pFile) {
    std::ifstream in("/proc/self/task/" + i_task + "/" + i_pFile);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
bool Sleeping(const std::atomic<long>& i_nTid) {
    return i_nTid != 0 && TaskFile(std::to_string(i_nTid), "stat").find(") S ") != std::string::npos;
}

TEST(HostileLocks, AWaitingWriterKeepsNewReadersOut) {
    CRWLock lock;
    std::atomic<long> nWriter{0}, nReader{0};
    std::atomic<char> first{0};
    auto enter = [&](std::atomic<long>& o_nTid, bool i_bWrite) {
        o_nTid = syscall(SYS_gettid);
        i_bWrite ? lock.lockWrite() : lock.lockRead();
        char none = 0;
        first.compare_exchange_strong(none, i_bWrite ? 'W' : 'R');
        i_bWrite ? lock.unlockWrite() : lock.unlockRead();
    };
    lock.lockRead();
    std::thread writer(enter, std::ref(nWriter), true);
    ASSERT_TRUE(WaitUntil([&] { return Sleeping(nWriter); }));
    std::thread reader(enter, std::ref(nReader), false);
    ASSERT_TRUE(WaitUntil([&] { return Sleeping(nReader) || first != 0; }));
    lock.unlockRead();
    writer.join();
    reader.join();
    EXPECT_EQ(first, 'W') << "a new reader went in ahead of a waiting writer";
}

TEST(HostileThreads, TheCleanerRunsAsTheProcessWhateverItsStarterImpersonates) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to impersonate";
    }
    platform::linuxport::LinuxTokenApi api;
    TraceCapture capture;
    CSmartRefCountPtr<SecContextCache> pCache{new SecContextCache(false)};
    std::thread([&] {
        HANDLE hNobody = nullptr;
        ASSERT_TRUE(api.CreateToken({65534, 65534, {65534}}, &hNobody));
        ASSERT_TRUE(api.ImpersonateLoggedOnUser(hNobody));
        pCache->StartUpdateThread();
        EXPECT_TRUE(api.RevertToSelf());
        api.CloseHandle(hNobody);
    }).join();
    ASSERT_TRUE(WaitUntil([&] { return capture.has("Thread sleeping for 60s."); }));
    // The starter has ended; every thread left, the cleaner among them, runs as root.
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string name = task.path().filename().string();
        EXPECT_NE(TaskFile(name, "status").find("\nUid:\t0\t0\t0\t0\n"), std::string::npos) << "task " << name;
    }
}
#endif

}  // namespace
