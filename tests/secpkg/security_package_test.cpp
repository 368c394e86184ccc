// The security package family against the throwaway realm, client and server
// in one process: logins, lifetimes, delegation, impersonation and the result
// table of docs/security-package.md. Under Wine the login runs on Windows' own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

// Before Plugin.h: its <windows.h> must not come ahead of the Windows security headers.
#include "ostrel_platform/ISecurityApi.h"

#include "integration/Plugin.h"
#if !defined(_WIN32)
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "ostrel_platform/ITokenApi.h"
#include "platform/linux/LinuxSecurityApi.h"
#endif

using namespace ostrel::platform;
using ostrel_test::ScopedEnv;

namespace {

using Bytes = std::vector<unsigned char>;
using WString = std::basic_string<WCHAR>;

std::string Env(const char* i_pName) {
    const char* p = std::getenv(i_pName);
    return p != nullptr ? p : "";
}
WString W(const std::string& i_text) { return WString(i_text.begin(), i_text.end()); }
WString g_kerberos = W("Kerberos");

// A user, a domain and a password as SSPI takes them.
struct Identity {
    Identity(const std::string& i_user, const std::string& i_domain, const std::string& i_password)
        : user(W(i_user)), domain(W(i_domain)), password(W(i_password)) {
        auto set = [](WString& i_text, unsigned short*& o_p, ULONG& o_n) {
            o_p = reinterpret_cast<unsigned short*>(i_text.data());
            o_n = ULONG(i_text.size());
        };
        set(user, id.User, id.UserLength);
        set(domain, id.Domain, id.DomainLength);
        set(password, id.Password, id.PasswordLength);
        id.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;
    }
    WString user, domain, password;
    SEC_WINNT_AUTH_IDENTITY_W id{};
};

// One end of a login: its credentials and its context, freed at the end.
struct End {
    ~End() {
        if (hasContext) Security().DeleteSecurityContext(&ctx);
        if (hasCred) Security().FreeCredentialsHandle(&cred);
    }
    SECURITY_STATUS Acquire(ULONG i_fUse, void* i_pAuth = nullptr) {
        TimeStamp expiry{};
        const SECURITY_STATUS st = Security().AcquireCredentialsHandleW(nullptr, g_kerberos.data(), i_fUse, nullptr,
                                                                        i_pAuth, nullptr, nullptr, &cred, &expiry);
        hasCred = st == SEC_E_OK;
        return st;
    }
    // One pass: the peer's token in, this end's out.
    SECURITY_STATUS Pass(bool i_bClient, Bytes& io_token, const std::string& i_target = Env("OSTREL_SPN"),
                         ULONG i_fReq = ISC_REQ_MUTUAL_AUTH | ISC_REQ_DELEGATE) {
        Bytes out(48000);
        SecBuffer in{ULONG(io_token.size()), SECBUFFER_TOKEN, io_token.data()};
        SecBuffer outBuffer{ULONG(out.size()), SECBUFFER_TOKEN, out.data()};
        SecBufferDesc inDesc{SECBUFFER_VERSION, 1, &in}, outDesc{SECBUFFER_VERSION, 1, &outBuffer};
        CtxtHandle* pCtx = hasContext ? &ctx : nullptr;
        WString target = W(i_target);
        TimeStamp expiry{};
        const SECURITY_STATUS st =
            i_bClient ? Security().InitializeSecurityContextW(&cred, pCtx, target.data(), i_fReq, 0,
                                                              SECURITY_NATIVE_DREP, pCtx != nullptr ? &inDesc : nullptr,
                                                              0, &ctx, &outDesc, &attributes, &expiry)
                      : Security().AcceptSecurityContext(&cred, pCtx, &inDesc, ASC_REQ_MUTUAL_AUTH,
                                                         SECURITY_NATIVE_DREP, &ctx, &outDesc, &attributes, &expiry);
        hasContext = hasContext || st == SEC_E_OK || st == SEC_I_CONTINUE_NEEDED;
        io_token.assign(out.begin(), out.begin() + outBuffer.cbBuffer);
        return st;
    }
    CredHandle cred{};
    CtxtHandle ctx{};
    bool hasCred = false;
    bool hasContext = false;
    ULONG attributes = 0;
};

// A whole login with mutual authentication: the client needs two passes, the server one.
void Login(End& io_client, End& io_server, const std::string& i_target = Env("OSTREL_SPN")) {
    Bytes token;
    ASSERT_EQ(io_client.Pass(true, token, i_target), SEC_I_CONTINUE_NEEDED);
    ASSERT_EQ(io_server.Pass(false, token), SEC_E_OK);
    ASSERT_FALSE(token.empty()) << "the reply of mutual authentication";
    ASSERT_EQ(io_client.Pass(true, token, i_target), SEC_E_OK);
    EXPECT_TRUE(token.empty());
}

class SecurityPackage : public ::testing::Test {
protected:
    void SetUp() override {
        if (Env("OSTREL_REALM_DIR").empty()) {
            GTEST_SKIP() << "needs the test realm (run through ctest)";
        }
    }
    // The domain as users type it: the realm is its upper case (not so under Wine).
    Identity Alice() {
        std::string domain = Env("OSTREL_REALM");
#if !defined(_WIN32)
        std::transform(domain.begin(), domain.end(), domain.begin(), [](char c) { return char(std::tolower(c)); });
#endif
        return Identity(Env("OSTREL_USER1"), domain, Env("OSTREL_PASS1"));
    }
};

TEST_F(SecurityPackage, PasswordLoginWithMutualAuthenticationAndDelegation) {
    PSecPkgInfoW pInfo = nullptr;
    ASSERT_EQ(Security().QuerySecurityPackageInfoW(g_kerberos.data(), &pInfo), SEC_E_OK);
    const ULONG nMaxToken = pInfo->cbMaxToken;
    EXPECT_EQ(Security().FreeContextBuffer(pInfo), SEC_E_OK);

    Identity alice = Alice();
    End client, server;
    ASSERT_EQ(client.Acquire(SECPKG_CRED_OUTBOUND, &alice.id), SEC_E_OK);
    ASSERT_EQ(server.Acquire(SECPKG_CRED_INBOUND), SEC_E_OK);
    Login(client, server);
    EXPECT_GE(nMaxToken, 12000u);  // Wine's
#if !defined(_WIN32)
    EXPECT_EQ(nMaxToken, 48000u);
    EXPECT_EQ(client.attributes & (ISC_RET_MUTUAL_AUTH | ISC_RET_DELEGATE), ISC_RET_MUTUAL_AUTH | ISC_RET_DELEGATE);
    EXPECT_EQ(server.attributes & (ASC_RET_MUTUAL_AUTH | ASC_RET_DELEGATE), ASC_RET_MUTUAL_AUTH | ASC_RET_DELEGATE);
    // A client without a local account is not impersonated.
    ASSERT_EQ(getpwnam(Env("OSTREL_USER1").c_str()), nullptr);
    EXPECT_EQ(Security().ImpersonateSecurityContext(&server.ctx), SEC_E_NO_IMPERSONATION);
    EXPECT_EQ(Security().ImpersonateSecurityContext(&client.ctx), SEC_E_NO_IMPERSONATION);
    HANDLE h = nullptr;
    EXPECT_FALSE(Tokens().OpenThreadToken(Tokens().GetCurrentThread(), TOKEN_QUERY, TRUE, &h));
#endif
}

#if !defined(_WIN32)

int Realm(const std::string& i_args) {
    return std::system(("bash " OSTREL_REALM_SCRIPT " " + i_args + " >/dev/null 2>&1").c_str());
}

// Seconds since 1970 of a local FILETIME, read back through the C library.
int64_t FromLocalStamp(const TimeStamp& i_stamp) {
    const time_t localAsUtc = time_t(i_stamp.QuadPart / 10000000 - 11644473600LL);
    std::tm fields{};
    gmtime_r(&localAsUtc, &fields);
    fields.tm_isdst = -1;
    return mktime(&fields);
}

TEST_F(SecurityPackage, LoginFromAKinitCacheWithTheTicketsOwnLifespan) {
    const std::string cache = Env("OSTREL_REALM_DIR") + "/secpkg-" + std::to_string(getpid()) + ".ccache";
    const time_t before = time(nullptr);
    ASSERT_EQ(Realm("kinit $OSTREL_REALM_DIR $OSTREL_USER1 --lifetime 40s --ccache " + cache), 0);
    const time_t after = time(nullptr);
    ScopedEnv useCache("KRB5CCNAME", ("FILE:" + cache).c_str());
    End client, server;
    ASSERT_EQ(client.Acquire(SECPKG_CRED_OUTBOUND), SEC_E_OK);
    ASSERT_EQ(server.Acquire(SECPKG_CRED_INBOUND), SEC_E_OK);
    Login(client, server);
    // Both ends see the ticket's own end, without the acceptor's clock-skew allowance (300 s here),
    // in local time (three hours ahead here, whatever the machine's zone).
    {
        ScopedEnv zone("TZ", "XST-3");
        tzset();
        for (End* pEnd : {&client, &server}) {
            SecPkgContext_Lifespan lifespan{};
            ASSERT_EQ(Security().QueryContextAttributesW(&pEnd->ctx, SECPKG_ATTR_LIFESPAN, &lifespan), SEC_E_OK);
            EXPECT_GE(FromLocalStamp(lifespan.tsStart), before - 1);
            EXPECT_LE(FromLocalStamp(lifespan.tsStart), after + 1);
            EXPECT_GE(FromLocalStamp(lifespan.tsExpiry), before + 40 - 1);
            EXPECT_LE(FromLocalStamp(lifespan.tsExpiry), after + 40 + 1);
        }
    }
    tzset();
    std::remove(cache.c_str());
}

// The calling thread's effective uid, gid and groups, as the kernel has them.
using KernelIds = std::tuple<uid_t, gid_t, std::set<gid_t>>;
KernelIds ReadKernel() {
    uid_t ruid = 0, euid = 0, suid = 0;
    gid_t rgid = 0, egid = 0, sgid = 0, groups[64];
    syscall(SYS_getresuid, &ruid, &euid, &suid);
    syscall(SYS_getresgid, &rgid, &egid, &sgid);
    return {euid, egid, std::set<gid_t>(groups, groups + std::max(0L, syscall(SYS_getgroups, 64L, groups)))};
}

std::string SidText(PSID i_pSid) {
    ITokenApi& t = Tokens();
    std::string text = "S-1-" + std::to_string(t.GetSidIdentifierAuthority(i_pSid)->Value[5]);
    for (DWORD i = 0; i < *t.GetSidSubAuthorityCount(i_pSid); ++i) {
        text += "-" + std::to_string(*t.GetSidSubAuthority(i_pSid, i));
    }
    return text;
}

// The calling thread's token: the user's SID, then the groups' in order.
std::vector<std::string> ThreadTokenSids() {
    ITokenApi& t = Tokens();
    HANDLE h = nullptr;
    if (!t.OpenThreadToken(t.GetCurrentThread(), TOKEN_QUERY, TRUE, &h)) return {};
    alignas(8) BYTE user[256], groups[4096];
    DWORD n = 0;
    EXPECT_TRUE(t.GetTokenInformation(h, TokenUser, user, sizeof user, &n));
    EXPECT_TRUE(t.GetTokenInformation(h, TokenGroups, groups, sizeof groups, &n));
    std::vector<std::string> sids{SidText(reinterpret_cast<TOKEN_USER*>(user)->User.Sid)};
    const auto* pGroups = reinterpret_cast<TOKEN_GROUPS*>(groups);
    for (DWORD i = 0; i < pGroups->GroupCount; ++i) sids.push_back(SidText(pGroups->Groups[i].Sid));
    t.CloseHandle(h);
    return sids;
}

// A local account to log on as: not root, a primary group of another number than its uid,
// and of those the one in the most groups.
std::string LocalAccount() {
    std::string best;
    int nBest = 0;
    setpwent();
    for (const passwd* p = getpwent(); p != nullptr; p = getpwent()) {
        gid_t groups[64];
        int n = 64;
        if (p->pw_uid != 0 && p->pw_uid != p->pw_gid && getgrouplist(p->pw_name, p->pw_gid, groups, &n) >= 0 &&
            n > nBest) {
            best = p->pw_name;
            nBest = n;
        }
    }
    endpwent();
    return best;
}

// Whether a client could get going with the thread's outbound credentials.
SECURITY_STATUS Onward() {
    End onward;
    Bytes token;
    EXPECT_EQ(onward.Acquire(SECPKG_CRED_OUTBOUND), SEC_E_OK);
    return onward.Pass(true, token, Env("OSTREL_SPN_HOST"));
}

TEST_F(SecurityPackage, ImpersonationTakesTheLocalAccountAndItsDelegatedCredentials) {
    const std::string name = LocalAccount(), password = "Ostrel-local-pw";
    const passwd* pAccount = getpwnam(name.c_str());
    ASSERT_NE(pAccount, nullptr);
    const uid_t uid = pAccount->pw_uid;
    const gid_t gid = pAccount->pw_gid;
    Realm("exec $OSTREL_REALM_DIR kadmin.local -q \"addprinc -pw " + password + " " + name + "\"");
    std::vector<gid_t> groups(256);
    int nGroups = 256;
    ASSERT_GE(getgrouplist(name.c_str(), gid, groups.data(), &nGroups), 0);
    std::vector<std::string> expected{"S-1-22-1-" + std::to_string(uid)};
    for (int i = -1; i < nGroups; ++i) {
        const std::string sid = "S-1-22-2-" + std::to_string(i < 0 ? gid : groups[size_t(i)]);
        if (std::find(expected.begin(), expected.end(), sid) == expected.end()) expected.push_back(sid);
    }
    // The process's own cache is gone: outbound credentials can only be the delegated ones.
    ScopedEnv noCache("KRB5CCNAME", "FILE:/nonexistent/ostrel-ccache");
    const bool bRoot = geteuid() == 0;
    // As root the kernel switches; in a thread that gave up root, identification only.
    for (const bool bPrivileged : {true, false}) {
        SCOPED_TRACE(bPrivileged ? "privileged" : "unprivileged");
        Identity user(name, Env("OSTREL_REALM"), password);
        auto pClient = std::make_unique<End>();
        auto pServer = std::make_unique<End>();
        ASSERT_EQ(pClient->Acquire(SECPKG_CRED_OUTBOUND, &user.id), SEC_E_OK);
        ASSERT_EQ(pServer->Acquire(SECPKG_CRED_INBOUND), SEC_E_OK);
        Login(*pClient, *pServer);
        std::thread([&] {
            if (!bPrivileged && bRoot) {
                const gid_t nogroup = 65534;
                ASSERT_EQ(syscall(SYS_setgroups, 1L, &nogroup), 0);
                ASSERT_EQ(syscall(SYS_setresgid, 65534L, 65534L, 65534L), 0);
                ASSERT_EQ(syscall(SYS_setresuid, 65534L, 65534L, 65534L), 0);
            }
            const KernelIds before = ReadKernel();
            ASSERT_EQ(Security().ImpersonateSecurityContext(&pServer->ctx), SEC_E_OK);
            const KernelIds during = ReadKernel();
            const std::set<gid_t> accountGroups(groups.begin(), groups.begin() + nGroups);
            EXPECT_EQ(during, (bPrivileged && bRoot ? KernelIds{uid, gid, accountGroups} : before));
            EXPECT_EQ(ThreadTokenSids(), expected);
            EXPECT_EQ(Onward(), SEC_I_CONTINUE_NEEDED);
            if (bPrivileged) {
                EXPECT_EQ(Security().RevertSecurityContext(&pServer->ctx), SEC_E_OK);
            } else {
                // The context may go first; a plain revert ends its credentials too.
                pServer.reset();
                EXPECT_EQ(Onward(), SEC_I_CONTINUE_NEEDED);
                EXPECT_TRUE(Tokens().RevertToSelf());
            }
            EXPECT_EQ(ReadKernel(), before);
            EXPECT_NE(ThreadTokenSids(), expected);
            EXPECT_EQ(Onward(), SEC_E_NO_CREDENTIALS);
        }).join();
    }
    // Without delegation the impersonating thread has no credentials to go on with.
    Identity user(name, Env("OSTREL_REALM"), password);
    End client, server;
    Bytes token;
    ASSERT_EQ(client.Acquire(SECPKG_CRED_OUTBOUND, &user.id), SEC_E_OK);
    ASSERT_EQ(server.Acquire(SECPKG_CRED_INBOUND), SEC_E_OK);
    ASSERT_EQ(client.Pass(true, token, Env("OSTREL_SPN"), 0), SEC_E_OK);
    ASSERT_EQ(server.Pass(false, token), SEC_E_OK);
    ASSERT_EQ(Security().ImpersonateSecurityContext(&server.ctx), SEC_E_OK);
    EXPECT_EQ(Onward(), SEC_E_NO_CREDENTIALS);
    EXPECT_EQ(Security().RevertSecurityContext(&server.ctx), SEC_E_OK);
}

// A first token of alice's for a service, without mutual authentication.
Bytes Token(const std::string& i_service) {
    Identity alice(Env("OSTREL_USER1"), Env("OSTREL_REALM"), Env("OSTREL_PASS1"));
    End client;
    Bytes token;
    EXPECT_EQ(client.Acquire(SECPKG_CRED_OUTBOUND, &alice.id), SEC_E_OK);
    EXPECT_EQ(client.Pass(true, token, i_service, 0), SEC_E_OK);
    return token;
}
SECURITY_STATUS ClientStart(Identity i_identity, const std::string& i_target = Env("OSTREL_SPN")) {
    End client;
    Bytes token;
    EXPECT_EQ(client.Acquire(SECPKG_CRED_OUTBOUND, &i_identity.id), SEC_E_OK);
    return client.Pass(true, token, i_target);
}
SECURITY_STATUS ServerStart(Bytes i_token) {
    End server;
    EXPECT_EQ(server.Acquire(SECPKG_CRED_INBOUND), SEC_E_OK);
    return server.Pass(false, i_token);
}
// An accepting pass over hand-made buffer descriptions.
SECURITY_STATUS AcceptRaw(SecBufferDesc* i_pInput, SecBufferDesc* i_pOutput) {
    End server;
    EXPECT_EQ(server.Acquire(SECPKG_CRED_INBOUND), SEC_E_OK);
    return Security().AcceptSecurityContext(&server.cred, nullptr, i_pInput, 0, 0, &server.ctx, i_pOutput, nullptr,
                                            nullptr);
}

TEST_F(SecurityPackage, EachRowOfTheResultTable) {
    const std::string realm = Env("OSTREL_REALM"), user = Env("OSTREL_USER1"), pw = Env("OSTREL_PASS1");
    const std::string down = Env("OSTREL_REALM_DIR") + "/secpkg-down.conf";
    std::ofstream(down) << "[realms]\nDOWN.TEST = {\n kdc = 127.0.0.1:9\n}\n";
    unsigned char garbage[] = {0x60, 0x01, 0x00, 0x42}, token[16] = {}, out[16] = {};
    SecBuffer data{4, SECBUFFER_DATA, garbage}, small{sizeof out, SECBUFFER_TOKEN, out};
    SecBuffer good{4, SECBUFFER_TOKEN, garbage}, outBuffer{sizeof token, SECBUFFER_TOKEN, token};
    SecBufferDesc dataOnly{SECBUFFER_VERSION, 1, &data}, none{SECBUFFER_VERSION, 0, nullptr};
    SecBufferDesc badVersion{1, 1, &good}, output{SECBUFFER_VERSION, 1, &outBuffer};
    // clang-format off
    const struct {
        const char* what;
        std::function<SECURITY_STATUS()> run;
        SECURITY_STATUS expected;
    } rows[] = {
        {"another package", [] { PSecPkgInfoW p = nullptr; WString ntlm = W("NTLM");
             return Security().QuerySecurityPackageInfoW(ntlm.data(), &p); }, SEC_E_SECPKG_NOT_FOUND},
        {"more passes due, the token in memory handed out", [&] { End c; Identity a(user, realm, pw);
             c.Acquire(SECPKG_CRED_OUTBOUND, &a.id); SecBuffer b{0, SECBUFFER_TOKEN, nullptr};
             SecBufferDesc o{SECBUFFER_VERSION, 1, &b}; WString spn = W(Env("OSTREL_SPN"));
             const SECURITY_STATUS st = Security().InitializeSecurityContextW(&c.cred, nullptr, spn.data(),
                 ISC_REQ_MUTUAL_AUTH | ISC_REQ_ALLOCATE_MEMORY, 0, 0, nullptr, 0, &c.ctx, &o, nullptr, nullptr);
             c.hasContext = st == SEC_I_CONTINUE_NEEDED; EXPECT_GT(b.cbBuffer, 0u);
             EXPECT_EQ(Security().FreeContextBuffer(b.pvBuffer), SEC_E_OK); return st; }, SEC_I_CONTINUE_NEEDED},
        {"wrong password", [&] { return ClientStart(Identity(user, realm, "wrong")); }, SEC_E_LOGON_DENIED},
        {"unknown client", [&] { return ClientStart(Identity("nosuchuser", realm, pw)); }, SEC_E_LOGON_DENIED},
        {"10,000-character password", [&] { return ClientStart(Identity(user, realm, std::string(10000, 'x'))); },
         SEC_E_LOGON_DENIED},
        {"unknown realm", [&] { return ClientStart(Identity(user, "nowhere.test", pw)); },
         SEC_E_NO_AUTHENTICATING_AUTHORITY},
        {"no KDC reachable", [&] { ScopedEnv conf("KRB5_CONFIG", (down + ":" + Env("KRB5_CONFIG")).c_str());
             return ClientStart(Identity(user, "DOWN.TEST", pw)); }, SEC_E_NO_AUTHENTICATING_AUTHORITY},
        {"unknown service", [&] { return ClientStart(Identity(user, realm, pw), "HTTP/nowhere"); },
         SEC_E_TARGET_UNKNOWN},
        {"no keytab", [] { ScopedEnv kt("KRB5_KTNAME", "FILE:/nonexistent/keytab"); End s;
             return s.Acquire(SECPKG_CRED_INBOUND); }, SEC_E_NO_CREDENTIALS},
        {"no credential cache: acquiring succeeds, the first context fails", [] {
             ScopedEnv cc("KRB5CCNAME", "FILE:/nonexistent/ccache"); End c; Bytes t;
             EXPECT_EQ(c.Acquire(SECPKG_CRED_OUTBOUND), SEC_E_OK); return c.Pass(true, t); }, SEC_E_NO_CREDENTIALS},
        {"inbound credentials for a client", [] { End c; Bytes t; c.Acquire(SECPKG_CRED_INBOUND);
             return c.Pass(true, t); }, SEC_E_NO_CREDENTIALS},
        {"malformed token", [&] { return ServerStart(Bytes(garbage, garbage + 4)); }, SEC_E_INVALID_TOKEN},
        {"SPNEGO token", [] { return ServerStart({0x60, 0x0a, 0x06, 0x06, 0x2b, 0x06, 0x01, 0x05, 0x05, 0x02,
                                                   0xa0, 0x00}); }, SEC_E_INVALID_TOKEN},
        {"replayed token", [] { Bytes t = Token(Env("OSTREL_SPN")); EXPECT_EQ(ServerStart(t), SEC_E_OK);
             return ServerStart(t); }, SEC_E_INVALID_TOKEN},
        {"altered token", [] { Bytes t = Token(Env("OSTREL_SPN")); t[t.size() - 8] ^= 0x55;
             return ServerStart(t); }, SEC_E_INVALID_TOKEN},
        {"empty token", [] { return ServerStart({}); }, SEC_E_INVALID_TOKEN},
        {"100 MB token", [] { return ServerStart(Bytes(100u << 20, 0x60)); }, SEC_E_INVALID_TOKEN},
        {"no token buffer", [&] { return AcceptRaw(&dataOnly, &output); }, SEC_E_INVALID_TOKEN},
        {"no buffers", [&] { return AcceptRaw(&none, &output); }, SEC_E_INVALID_TOKEN},
        {"wrong version", [&] { return AcceptRaw(&badVersion, &output); }, SEC_E_INVALID_TOKEN},
        {"ticket for a service whose key is not here", [] { return ServerStart(Token(Env("OSTREL_SPN_NO_KEY"))); },
         SEC_E_LOGON_DENIED},
        {"output buffer too small", [&] { End c; Identity a(user, realm, pw); c.Acquire(SECPKG_CRED_OUTBOUND, &a.id);
             SecBufferDesc o{SECBUFFER_VERSION, 1, &small}; WString spn = W(Env("OSTREL_SPN"));
             return Security().InitializeSecurityContextW(&c.cred, nullptr, spn.data(), 0, 0, 0, nullptr, 0, &c.ctx,
                                                          &o, nullptr, nullptr); }, SEC_E_BUFFER_TOO_SMALL},
        {"identity of no character set", [] { Identity a("u", "R", "p"); a.id.Flags = 0; End c;
             return c.Acquire(SECPKG_CRED_OUTBOUND, &a.id); }, SEC_E_UNKNOWN_CREDENTIALS},
        {"no handle to fill", [] { return Security().AcquireCredentialsHandleW(nullptr, g_kerberos.data(),
             SECPKG_CRED_INBOUND, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }, SEC_E_INVALID_PARAMETER},
        {"freed credentials", [] { End c; c.Acquire(SECPKG_CRED_INBOUND); Security().FreeCredentialsHandle(&c.cred);
             c.hasCred = false; return Security().FreeCredentialsHandle(&c.cred); }, SEC_E_INVALID_HANDLE},
        {"made-up or null context", [] { CtxtHandle h{7, 7}; EXPECT_EQ(Security().DeleteSecurityContext(nullptr),
             SEC_E_INVALID_HANDLE); return Security().DeleteSecurityContext(&h); }, SEC_E_INVALID_HANDLE},
        {"lifespan of an unfinished context", [&] { End c; Bytes t; Identity a(user, realm, pw);
             c.Acquire(SECPKG_CRED_OUTBOUND, &a.id); c.Pass(true, t); SecPkgContext_Lifespan l{};
             return Security().QueryContextAttributesW(&c.ctx, SECPKG_ATTR_LIFESPAN, &l); }, SEC_E_INVALID_HANDLE},
        {"an attribute other than the lifespan", [&] { End c; Bytes t; Identity a(user, realm, pw);
             c.Acquire(SECPKG_CRED_OUTBOUND, &a.id); c.Pass(true, t); BYTE b[64];
             return Security().QueryContextAttributesW(&c.ctx, SECPKG_ATTR_SIZES, b); }, SEC_E_UNSUPPORTED_FUNCTION},
        {"memory not handed out", [&] { return Security().FreeContextBuffer(garbage); }, SEC_E_INVALID_HANDLE},
    };
    // clang-format on
    for (const auto& row : rows) EXPECT_EQ(row.run(), row.expected) << row.what;
    std::remove(down.c_str());
}

// Libraries that lack what is needed: an unbound package, and operations whose extension is missing.
TEST(SecurityPackageLibrary, WhatTheLibraryLacksFailsCleanly) {
    using ostrel::platform::linuxport::LinuxSecurityApi;
    for (const char* pLibrary : {OSTREL_FAKE_GSSAPI_NINE_PATH, "/nonexistent/libgssapi.so"}) {
        LinuxSecurityApi api(Tarvik500::ToWCharString(pLibrary));
        PSecPkgInfoW pInfo = nullptr;
        CredHandle cred{};
        EXPECT_EQ(api.QuerySecurityPackageInfoW(g_kerberos.data(), &pInfo), SEC_E_SECPKG_NOT_FOUND) << pLibrary;
        EXPECT_EQ(api.AcquireCredentialsHandleW(nullptr, g_kerberos.data(), SECPKG_CRED_INBOUND, nullptr, nullptr,
                                                nullptr, nullptr, &cred, nullptr),
                  SEC_E_SECPKG_NOT_FOUND);
    }
    LinuxSecurityApi api(Tarvik500::ToWCharString(OSTREL_FAKE_GSSAPI_PATH));
    ScopedSecurityApiOverride use(api);
    Identity someone("someone", "EXAMPLE.COM", "pw");
    EXPECT_EQ(ClientStart(someone), SEC_E_UNSUPPORTED_FUNCTION) << "no password logon in this library";
    // A failure the library gives no reason for: the stand-in refuses acceptor credentials without a name.
    End server;
    EXPECT_EQ(server.Acquire(SECPKG_CRED_INBOUND), SEC_E_INTERNAL_ERROR);
}

#endif  // !_WIN32

}  // namespace
