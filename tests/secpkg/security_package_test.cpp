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

#include "integration/Identity.h"
#include "ostrel_platform/ITokenApi.h"
#include "platform/linux/LinuxSecurityApi.h"
#endif

using namespace ostrel::platform;
using ostrel_test::ScopedEnv;

namespace {

using Bytes = std::vector<unsigned char>;
using WString = std::basic_string<WCHAR>;

std::string Env(const char* i_pName) { return std::getenv(i_pName) != nullptr ? std::getenv(i_pName) : ""; }
WString W(const std::string& i_text) { return WString(i_text.begin(), i_text.end()); }
WString g_kerberos = W("Kerberos");

// A user, a domain and a password as SSPI takes them.
struct Identity {
    Identity(const std::string& i_user, const std::string& i_domain, const std::string& i_password)
        : text{W(i_user), W(i_domain), W(i_password)} {
        auto p = [](WString& s) { return reinterpret_cast<unsigned short*>(s.data()); };
        id = {p(text[0]), ULONG(text[0].size()), p(text[1]), ULONG(text[1].size()),
              p(text[2]), ULONG(text[2].size()), SEC_WINNT_AUTH_IDENTITY_UNICODE};
    }
    WString text[3];
    SEC_WINNT_AUTH_IDENTITY_W id{};
};
Identity Alice(const std::string& i_domain = Env("OSTREL_REALM"), const std::string& i_password = Env("OSTREL_PASS1")) {
    return Identity(Env("OSTREL_USER1"), i_domain, i_password);
}

// One end of a login: its credentials and its context, freed at the end.
struct End {
    ~End() {
        if (hasContext) Security().DeleteSecurityContext(&ctx);
        if (hasCred) Security().FreeCredentialsHandle(&cred);
    }
    SECURITY_STATUS Acquire(ULONG i_fUse, void* i_pAuth = nullptr) {
        const SECURITY_STATUS st = Security().AcquireCredentialsHandleW(nullptr, g_kerberos.data(), i_fUse, nullptr,
                                                                        i_pAuth, nullptr, nullptr, &cred, nullptr);
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
        const SECURITY_STATUS st =
            i_bClient ? Security().InitializeSecurityContextW(&cred, pCtx, target.data(), i_fReq, 0,
                                                              SECURITY_NATIVE_DREP, pCtx != nullptr ? &inDesc : nullptr,
                                                              0, &ctx, &outDesc, &attributes, nullptr)
                      : Security().AcceptSecurityContext(&cred, pCtx, &inDesc, ASC_REQ_MUTUAL_AUTH,
                                                         SECURITY_NATIVE_DREP, &ctx, &outDesc, &attributes, nullptr);
        hasContext = hasContext || st == SEC_E_OK || st == SEC_I_CONTINUE_NEEDED;
        io_token.assign(out.begin(), out.begin() + outBuffer.cbBuffer);
        return st;
    }
    CredHandle cred{};
    CtxtHandle ctx{};
    bool hasCred = false, hasContext = false;
    ULONG attributes = 0;
};

std::unique_ptr<End> Server() {
    auto p = std::make_unique<End>();
    EXPECT_EQ(p->Acquire(SECPKG_CRED_INBOUND), SEC_E_OK);
    return p;
}
std::unique_ptr<End> Client(Identity&& i_identity = Alice()) {
    auto p = std::make_unique<End>();
    EXPECT_EQ(p->Acquire(SECPKG_CRED_OUTBOUND, &i_identity.id), SEC_E_OK);
    return p;
}

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
        if (Env("OSTREL_REALM_DIR").empty()) GTEST_SKIP() << "needs the test realm (run through ctest)";
    }
};

TEST_F(SecurityPackage, PasswordLoginWithMutualAuthenticationAndDelegation) {
    PSecPkgInfoW pInfo = nullptr;
    ASSERT_EQ(Security().QuerySecurityPackageInfoW(g_kerberos.data(), &pInfo), SEC_E_OK);
    const ULONG nMaxToken = pInfo->cbMaxToken;
    EXPECT_EQ(Security().FreeContextBuffer(pInfo), SEC_E_OK);
    std::string domain = Env("OSTREL_REALM");  // as users type it: the realm is its upper case (not so under Wine)
#if !defined(_WIN32)
    std::transform(domain.begin(), domain.end(), domain.begin(), [](char c) { return char(std::tolower(c)); });
#endif
    const auto pClient = Client(Alice(domain)), pServer = Server();
    Login(*pClient, *pServer);
    EXPECT_GE(nMaxToken, 12000u);  // Wine's
#if !defined(_WIN32)
    EXPECT_EQ(nMaxToken, 48000u);
    EXPECT_EQ(pClient->attributes & (ISC_RET_MUTUAL_AUTH | ISC_RET_DELEGATE), ISC_RET_MUTUAL_AUTH | ISC_RET_DELEGATE);
    EXPECT_EQ(pServer->attributes & (ASC_RET_MUTUAL_AUTH | ASC_RET_DELEGATE), ASC_RET_MUTUAL_AUTH | ASC_RET_DELEGATE);
    // A client without a local account is not impersonated.
    ASSERT_EQ(getpwnam(Env("OSTREL_USER1").c_str()), nullptr);
    EXPECT_EQ(Security().ImpersonateSecurityContext(&pServer->ctx), SEC_E_NO_IMPERSONATION);
    EXPECT_EQ(Security().ImpersonateSecurityContext(&pClient->ctx), SEC_E_NO_IMPERSONATION);
    HANDLE h = nullptr;
    EXPECT_FALSE(Tokens().OpenThreadToken(Tokens().GetCurrentThread(), TOKEN_QUERY, TRUE, &h));
#endif
}

#if !defined(_WIN32)

int Realm(const std::string& i_args) {
    return std::system(("bash " OSTREL_REALM_SCRIPT " " + i_args + " >/dev/null 2>&1").c_str());
}

TEST_F(SecurityPackage, LoginFromAKinitCacheWithTheTicketsOwnLifespan) {
    const std::string cache = Env("OSTREL_REALM_DIR") + "/secpkg-" + std::to_string(getpid()) + ".ccache";
    const time_t before = time(nullptr);
    ASSERT_EQ(Realm("kinit $OSTREL_REALM_DIR $OSTREL_USER1 --lifetime 40s --ccache " + cache), 0);
    const time_t after = time(nullptr);
    ScopedEnv useCache("KRB5CCNAME", ("FILE:" + cache).c_str());
    End client;
    ASSERT_EQ(client.Acquire(SECPKG_CRED_OUTBOUND), SEC_E_OK);
    const auto pServer = Server();
    Login(client, *pServer);
    // Both ends see the ticket's own end, without the acceptor's clock-skew allowance (300 s here),
    // in local time (three hours ahead here, a zone without summer time, whatever the machine's).
    {
        ScopedEnv zone("TZ", "XST-3");
        tzset();
        for (End* pEnd : {&client, pServer.get()}) {
            SecPkgContext_Lifespan lifespan{};
            ASSERT_EQ(Security().QueryContextAttributesW(&pEnd->ctx, SECPKG_ATTR_LIFESPAN, &lifespan), SEC_E_OK);
            auto unix = [](const TimeStamp& t) { return t.QuadPart / 10000000 - 11644473600LL - 3 * 3600; };
            const int64_t start = unix(lifespan.tsStart), end = unix(lifespan.tsExpiry);
            EXPECT_TRUE(before - 1 <= start && start <= after + 1 && before + 39 <= end && end <= after + 41)
                << start - before << " " << end - before;
        }
    }
    tzset();
    std::remove(cache.c_str());
}

// The calling thread's effective uid, gid and groups, as the kernel has them.
auto Kernel() {
    const ostrel_test::ThreadIdentity i = ostrel_test::CurrentThreadIdentity();
    return std::tuple(i.euid, i.egid, std::set<gid_t>(i.groups.begin(), i.groups.end()));
}

// The uid the calling thread's token names; -1 without one.
int64_t TokenUid() {
    ITokenApi& t = Tokens();
    HANDLE h = nullptr;
    alignas(8) BYTE user[256];
    DWORD n = 0;
    if (!t.OpenThreadToken(t.GetCurrentThread(), TOKEN_QUERY, TRUE, &h)) return -1;
    EXPECT_TRUE(t.GetTokenInformation(h, TokenUser, user, sizeof user, &n));
    t.CloseHandle(h);
    return *t.GetSidSubAuthority(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, 1);
}

// A local account to log on as: not root, a primary group of another number than its uid,
// and of those the one in the most groups.
std::string LocalAccount() {
    std::pair<int, std::string> best;
    setpwent();
    for (const passwd* p = getpwent(); p != nullptr; p = getpwent()) {
        gid_t groups[64];
        int n = 64;
        if (p->pw_uid != 0 && p->pw_uid != p->pw_gid && getgrouplist(p->pw_name, p->pw_gid, groups, &n) >= 0)
            best = std::max(best, std::pair(n, std::string(p->pw_name)));
    }
    endpwent();
    return best.second;
}

// Whether a client could get going with the thread's outbound credentials.
SECURITY_STATUS Onward() {
    End onward;
    Bytes token;
    EXPECT_EQ(onward.Acquire(SECPKG_CRED_OUTBOUND), SEC_E_OK);
    return onward.Pass(true, token, Env("OSTREL_SPN_HOST"));
}

// A first token for a service, without mutual authentication.
Bytes Token(const std::string& i_service, Identity&& i_identity = Alice()) {
    Bytes token;
    EXPECT_EQ(Client(std::move(i_identity))->Pass(true, token, i_service, 0), SEC_E_OK);
    return token;
}
SECURITY_STATUS ClientStart(Identity&& i_identity, const std::string& i_target = Env("OSTREL_SPN")) {
    Bytes token;
    return Client(std::move(i_identity))->Pass(true, token, i_target);
}
SECURITY_STATUS ServerStart(Bytes i_token) { return Server()->Pass(false, i_token); }

TEST_F(SecurityPackage, ImpersonationTakesTheLocalAccountAndItsDelegatedCredentials) {
    const std::string name = LocalAccount(), password = "Ostrel-local-pw", realm = Env("OSTREL_REALM");
    const passwd account = *getpwnam(name.c_str());
    Realm("exec $OSTREL_REALM_DIR kadmin.local -q \"addprinc -pw " + password + " " + name + "\"");
    gid_t groups[256];
    int nGroups = 256;
    ASSERT_GE(getgrouplist(name.c_str(), account.pw_gid, groups, &nGroups), 0);
    const auto user = std::tuple(account.pw_uid, account.pw_gid, std::set<gid_t>(groups, groups + nGroups));
    // The process's own cache is gone: outbound credentials can only be the delegated ones.
    ScopedEnv noCache("KRB5CCNAME", "FILE:/nonexistent/ostrel-ccache");
    const bool bRoot = geteuid() == 0;
    // As root the kernel switches; in a thread that gave up root, identification only.
    for (const bool bPrivileged : {true, false}) {
        SCOPED_TRACE(bPrivileged ? "privileged" : "unprivileged");
        auto pClient = Client(Identity(name, realm, password)), pServer = Server();
        Login(*pClient, *pServer);
        std::thread([&] {
            if (!bPrivileged && bRoot) {
                const gid_t nogroup = 65534;
                ASSERT_EQ(syscall(SYS_setgroups, 1L, &nogroup), 0);
                ASSERT_EQ(syscall(SYS_setresgid, 65534L, 65534L, 65534L), 0);
                ASSERT_EQ(syscall(SYS_setresuid, 65534L, 65534L, 65534L), 0);
            }
            const auto before = Kernel();
            ASSERT_EQ(Security().ImpersonateSecurityContext(&pServer->ctx), SEC_E_OK);
            EXPECT_EQ(Kernel(), bPrivileged && bRoot ? user : before);
            EXPECT_EQ(TokenUid(), account.pw_uid);
            EXPECT_EQ(Onward(), SEC_I_CONTINUE_NEEDED);
            if (bPrivileged) {
                EXPECT_EQ(Security().RevertSecurityContext(&pServer->ctx), SEC_E_OK);
            } else {  // the context may go first; a plain revert ends its credentials too
                pServer.reset();
                EXPECT_EQ(Onward(), SEC_I_CONTINUE_NEEDED);
                EXPECT_TRUE(Tokens().RevertToSelf());
            }
            EXPECT_EQ(Kernel(), before);
            EXPECT_EQ(TokenUid(), bPrivileged || !bRoot ? -1 : 65534) << "a thread that changed itself has a token";
            EXPECT_EQ(Onward(), SEC_E_NO_CREDENTIALS);
        }).join();
    }
    // Without delegation the impersonating thread has no credentials to go on with.
    const auto pServer = Server();
    Bytes token = Token(Env("OSTREL_SPN"), Identity(name, realm, password));
    ASSERT_EQ(pServer->Pass(false, token), SEC_E_OK);
    ASSERT_EQ(Security().ImpersonateSecurityContext(&pServer->ctx), SEC_E_OK);
    EXPECT_EQ(Onward(), SEC_E_NO_CREDENTIALS);
    EXPECT_EQ(Security().RevertSecurityContext(&pServer->ctx), SEC_E_OK);
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
    const auto pHalf = Client();  // a login with mutual authentication, one pass in
    Bytes first;
    ASSERT_EQ(pHalf->Pass(true, first), SEC_I_CONTINUE_NEEDED);
    WString spn = W(Env("OSTREL_SPN"));
    auto init = [&](End& c, ULONG i_fReq, SecBufferDesc* o) {
        return Security().InitializeSecurityContextW(&c.cred, nullptr, spn.data(), i_fReq, 0, 0, nullptr, 0, &c.ctx,
                                                     o, nullptr, nullptr);
    };
    auto accept = [&](SecBufferDesc* i_pInput) {
        const auto s = Server();
        return Security().AcceptSecurityContext(&s->cred, nullptr, i_pInput, 0, 0, &s->ctx, &output, nullptr, nullptr);
    };
    // clang-format off
    const struct {
        const char* what;
        std::function<SECURITY_STATUS()> run;
        SECURITY_STATUS expected;
    } rows[] = {
        {"another package", [] { PSecPkgInfoW p = nullptr; WString ntlm = W("NTLM");
             return Security().QuerySecurityPackageInfoW(ntlm.data(), &p); }, SEC_E_SECPKG_NOT_FOUND},
        {"more passes due, the token in memory handed out", [&] { const auto c = Client();
             SecBuffer b{0, SECBUFFER_TOKEN, nullptr}; SecBufferDesc o{SECBUFFER_VERSION, 1, &b};
             const SECURITY_STATUS st = init(*c, ISC_REQ_MUTUAL_AUTH | ISC_REQ_ALLOCATE_MEMORY, &o);
             c->hasContext = st == SEC_I_CONTINUE_NEEDED; EXPECT_GT(b.cbBuffer, 0u);
             EXPECT_EQ(Security().FreeContextBuffer(b.pvBuffer), SEC_E_OK); return st; }, SEC_I_CONTINUE_NEEDED},
        {"wrong password", [&] { return ClientStart(Alice(realm, "wrong")); }, SEC_E_LOGON_DENIED},
        {"unknown client", [&] { return ClientStart(Identity("nosuchuser", realm, pw)); }, SEC_E_LOGON_DENIED},
        {"10,000-character password", [&] { return ClientStart(Alice(realm, std::string(10000, 'x'))); },
         SEC_E_LOGON_DENIED},
        {"unknown realm", [&] { return ClientStart(Alice("nowhere.test")); }, SEC_E_NO_AUTHENTICATING_AUTHORITY},
        {"no KDC reachable", [&] { ScopedEnv conf("KRB5_CONFIG", (down + ":" + Env("KRB5_CONFIG")).c_str());
             return ClientStart(Alice("DOWN.TEST")); }, SEC_E_NO_AUTHENTICATING_AUTHORITY},
        {"unknown service", [&] { return ClientStart(Alice(), "HTTP/nowhere"); }, SEC_E_TARGET_UNKNOWN},
        {"no keytab", [] { ScopedEnv kt("KRB5_KTNAME", "FILE:/nonexistent/keytab"); End s;
             return s.Acquire(SECPKG_CRED_INBOUND); }, SEC_E_NO_CREDENTIALS},
        {"no credential cache: acquiring succeeds, the first context fails", [] {
             ScopedEnv cc("KRB5CCNAME", "FILE:/nonexistent/ccache"); End c; Bytes t;
             EXPECT_EQ(c.Acquire(SECPKG_CRED_OUTBOUND), SEC_E_OK); return c.Pass(true, t); }, SEC_E_NO_CREDENTIALS},
        {"inbound credentials for a client", [] { Bytes t; return Server()->Pass(true, t); }, SEC_E_NO_CREDENTIALS},
        {"malformed token", [&] { return ServerStart(Bytes(garbage, garbage + 4)); }, SEC_E_INVALID_TOKEN},
        {"SPNEGO token", [] { return ServerStart({0x60, 0x0a, 0x06, 0x06, 0x2b, 0x06, 0x01, 0x05, 0x05, 0x02,
                                                   0xa0, 0x00}); }, SEC_E_INVALID_TOKEN},
        {"replayed token", [] { Bytes t = Token(Env("OSTREL_SPN")); EXPECT_EQ(ServerStart(t), SEC_E_OK);
             return ServerStart(t); }, SEC_E_INVALID_TOKEN},
        {"altered token", [] { Bytes t = Token(Env("OSTREL_SPN")); t[t.size() - 8] ^= 0x55;
             return ServerStart(t); }, SEC_E_INVALID_TOKEN},
        {"empty token", [] { return ServerStart({}); }, SEC_E_INVALID_TOKEN},
        {"100 MB token", [] { return ServerStart(Bytes(100u << 20, 0x60)); }, SEC_E_INVALID_TOKEN},
        {"no token buffer", [&] { return accept(&dataOnly); }, SEC_E_INVALID_TOKEN},
        {"no buffers", [&] { return accept(&none); }, SEC_E_INVALID_TOKEN},
        {"wrong version", [&] { return accept(&badVersion); }, SEC_E_INVALID_TOKEN},
        {"ticket for a service whose key is not here", [] { return ServerStart(Token(Env("OSTREL_SPN_NO_KEY"))); },
         SEC_E_LOGON_DENIED},
        {"output buffer too small", [&] { SecBufferDesc o{SECBUFFER_VERSION, 1, &small};
             return init(*Client(), 0, &o); }, SEC_E_BUFFER_TOO_SMALL},
        {"identity of no character set", [] { Identity a("u", "R", "p"); a.id.Flags = 0; End c;
             return c.Acquire(SECPKG_CRED_OUTBOUND, &a.id); }, SEC_E_UNKNOWN_CREDENTIALS},
        {"no handle to fill", [] { return Security().AcquireCredentialsHandleW(nullptr, g_kerberos.data(),
             SECPKG_CRED_INBOUND, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }, SEC_E_INVALID_PARAMETER},
        {"freed credentials", [] { const auto s = Server(); Security().FreeCredentialsHandle(&s->cred);
             s->hasCred = false; return Security().FreeCredentialsHandle(&s->cred); }, SEC_E_INVALID_HANDLE},
        {"made-up or null context", [] { CtxtHandle h{7, 7}; EXPECT_EQ(Security().DeleteSecurityContext(nullptr),
             SEC_E_INVALID_HANDLE); return Security().DeleteSecurityContext(&h); }, SEC_E_INVALID_HANDLE},
        {"lifespan of an unfinished context", [&] { SecPkgContext_Lifespan l{};
             return Security().QueryContextAttributesW(&pHalf->ctx, SECPKG_ATTR_LIFESPAN, &l); }, SEC_E_INVALID_HANDLE},
        {"an attribute other than the lifespan", [&] { BYTE b[64];
             return Security().QueryContextAttributesW(&pHalf->ctx, SECPKG_ATTR_SIZES, b); }, SEC_E_UNSUPPORTED_FUNCTION},
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
    EXPECT_EQ(ClientStart(Identity("someone", "EXAMPLE.COM", "pw")), SEC_E_UNSUPPORTED_FUNCTION)
        << "no password logon in this library";
    // A failure the library gives no reason for: the stand-in refuses acceptor credentials without a name.
    End server;
    EXPECT_EQ(server.Acquire(SECPKG_CRED_INBOUND), SEC_E_INTERNAL_ERROR);
}

#endif  // !_WIN32

}  // namespace
