// The provider "SSPI" through the plug-in's exports against the throwaway realm, also under Wine.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>
#include <tuple>
#include <vector>

#include "integration/Plugin.h"
#if !defined(_WIN32)
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>

#include "authentication/ostrel/SSOImpl.h"
#include "support/TestAccess.h"
#endif

using namespace std::chrono_literals;
using ostrel_test::Text;

namespace {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;

std::string Env(const char* i_pName) { return std::getenv(i_pName) != nullptr ? std::getenv(i_pName) : ""; }
std::u16string U(const std::string& s) { return std::u16string(s.begin(), s.end()); }
std::string Narrow(const std::u16string& s) { return std::string(s.begin(), s.end()); }
ostrel_char* W(const std::u16string& s) { return reinterpret_cast<ostrel_char*>(const_cast<char16_t*>(s.c_str())); }
ostrel_char* W(const ostrel_char* s) { return const_cast<ostrel_char*>(s); }
const std::u16string g_spn = U(Env("OSTREL_SPN"));

// What one call handed out, copied; the parameters as "key=value;", the error record as "100/50047/x".
struct Out {
    unsigned status = 999;
    Bytes token;
    std::u16string key, params;
    std::string error;
};

class Sspi : public ::testing::Test {
protected:
    explicit Sspi(const char* i_pPlugin = OSTREL_PLUGIN_PATH) : p(i_pPlugin) {}
    void SetUp() override {
        if (Env("OSTREL_REALM_DIR").empty()) GTEST_SKIP() << "needs the test realm (run through ctest)";
        ASSERT_EQ(p.SSOInitPackage(), 0u);
    }
    void TearDown() override { p.SSOTermPackage(); }
    unsigned Init(const ostrel_char* i_pCaching = OSTREL_T("1"), const ostrel_char* i_pExpiry = OSTREL_T("0"),
                  const ostrel_char* i_pRenewals = OSTREL_T("1")) {
        ParasSeq seq[] = {{W(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0, W(g_spn), &seq[1]},
                          {W(WP_SI_CACHE_SECCONTEXT_W), SSO_PARAM_BOOL, 0, W(i_pCaching), &seq[2]},
                          {W(SSO_KEY_CTXT_CACHE_EXPIRY), SSO_PARAM_LONG, 0, W(i_pExpiry), &seq[3]},
                          {W(SSO_KEY_CONTEXT_RENEWALS_ALLOWED), SSO_PARAM_BOOL, 0, W(i_pRenewals), nullptr}};
        return p.SSOInitProvider(SSO_PROVIDER_SSPI, seq);
    }
    Out Start(const std::string& i_user, const std::string& i_password, const std::u16string& i_spn = g_spn) {
        ParasSeq spn{W(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0, W(i_spn), nullptr};
        return Take([&](auto b, auto n, auto k, auto) {
            return p.SSOStartLogin(W(U(i_user)), W(U(i_password)), SSO_PROVIDER_SSPI, &spn, k, b, n);
        });
    }
    Out Continue(const std::u16string& i_key, const Bytes& i_token) {
        return Take([&](auto b, auto n, auto, auto) {
            return p.SSOContinueLogin(W(i_key), i_token.data(), i_token.size(), b, n);
        });
    }
    Out Accept(const std::u16string& i_key, const Bytes& i_token, bool i_bLogonInfo = false,  // {}: closing call
               const ostrel_char* i_pProvider = SSO_PROVIDER_SSPI) {
        return Take([&](auto b, auto n, auto k, auto ps) {
            return p.SSOAcceptLogin(W(i_key), i_pProvider, i_token.empty() ? nullptr : i_token.data(),
                                    i_token.size(), b, n, i_bLogonInfo ? ps : nullptr, k);
        });
    }
    template <class Call>
    Out Take(Call i_call) {
        auto [pBuffer, n, pKey, pParams] = std::tuple<void*, size_t, ostrel_char*, ParasSeq*>{};
        Out o;
        o.status = i_call(&pBuffer, &n, &pKey, &pParams);
        o.token.assign(static_cast<unsigned char*>(pBuffer), static_cast<unsigned char*>(pBuffer) + (pBuffer ? n : 0));
        o.key = Text(pKey);
        for (ParasSeq* q = pParams; q != nullptr; q = q->next) o.params += Text(q->key) + u"=" + Text(q->value) + u";";
        p.SSOFreeBuffer(pBuffer), p.SSOFreeString(pKey), p.SSOFreeParameters(pParams);
        Plugin_Exception_Struct* e = nullptr;
        if (o.status >= SSO_STATUS_LOGON_DENIED && p.SSOGetError(o.status, &e) == 0 && e != nullptr) {
            o.error = std::to_string(e->errCode) + "/" + std::to_string(e->messageId);
            if (e->pSubstStrings != nullptr) o.error.append("/").append(Narrow(Text(e->pSubstStrings->data)));
        }
        p.SSOFreeError(e);
        return o;
    }
    // A whole login, both ends in this process: statuses 1, 1 and 0, then the server's closing answer.
    Out Login(const std::string& i_user, const std::string& i_password, bool i_bLogonInfo = false) {
        const Out c = Start(i_user, i_password), r = Accept(u"", c.token, i_bLogonInfo);
        EXPECT_EQ(c.status * 100 + r.status * 10 + Continue(c.key, r.token).status, 110u) << c.error << r.error;
        return Accept(r.key, {}, i_bLogonInfo);
    }

    ostrel_test::Plugin p;
    const std::string alice = Env("OSTREL_USER1") + "@" + Env("OSTREL_REALM"), pw = Env("OSTREL_PASS1");
};

TEST_F(Sspi, LoginsAtBothEnds) {
    ParasSeq* pRequired = nullptr;
    EXPECT_EQ(p.SSOGetRequiredParameters(SSO_PROVIDER_SSPI, &pRequired) + (pRequired != nullptr), 0u);
    ASSERT_EQ(Init(OSTREL_T("0")), 0u);
    const Out o = Login(alice, pw);
    EXPECT_EQ(std::to_string(o.status) + " " + Narrow(o.key), "2 DUMMY_KEY__CACHING_IS_OFF") << o.error;
#if !defined(_WIN32)
    setenv("KRB5CCNAME", (Env("OSTREL_REALM_DIR") + "/sspi.ccache").c_str(), 1);  // for good: a process per test
    ASSERT_EQ(std::system("bash " OSTREL_REALM_SCRIPT " kinit $OSTREL_REALM_DIR $OSTREL_USER2 --ccache $KRB5CCNAME"),
              0);
    ASSERT_EQ(Init(), 0u);
    for (const std::string& name : {alice, Env("OSTREL_REALM") + "\\" + Env("OSTREL_USER1"), std::string()}) {
        const std::u16string key = Login(name, name.empty() ? "" : pw).key;  // the last from the cache
        EXPECT_EQ(Narrow(key).find_first_not_of("0123456789"), std::string::npos) << name;
        EXPECT_EQ(p.SSOLookupSecurityContext(W(key)) + p.SSOReleaseSecurityContext(W(key)), 0u) << name;
    }
#endif
}

#if !defined(_WIN32)

int Realm(const std::string& i_args) {
    return std::system(("bash " OSTREL_REALM_SCRIPT " " + i_args + " >/dev/null 2>&1").c_str());
}
// A local account (not root, its group numbered unlike itself), and a principal of its name.
std::string AddLocalPrincipal(const std::string& i_realmDir) {
    setpwent();
    const passwd* a = getpwent();
    while (a != nullptr && (a->pw_uid == 0 || a->pw_uid == a->pw_gid)) a = getpwent();
    const std::string name = a != nullptr ? a->pw_name : "";
    Realm("exec " + i_realmDir + " kadmin.local -q \"addprinc -pw Ostrel-local-pw " + name + "\"");  // or there already
    return name;
}

// The two ends in two processes, as two hosts would run them, passing the tokens between them.
TEST_F(Sspi, ClientAndServerInTwoProcesses) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
    auto receive = [](int fd) {
        Bytes b(65536);
        b.resize(size_t(std::max<ssize_t>(0, recv(fd, b.data(), b.size(), 0))));
        return b;
    };
    if (fork() == 0) {  // the client's host; its exit code tells how its passes went
        const Out first = Init() == 0 ? Start(alice, pw) : Out{};
        send(fds[1], first.token.data(), first.token.size(), 0);
        _exit(first.status == 1 && !first.token.empty() && Continue(first.key, receive(fds[1])).status == 0 ? 0 : 1);
    }
    close(fds[1]);
    ASSERT_EQ(Init(), 0u);
    const Out reply = Accept(u"", receive(fds[0]));
    send(fds[0], reply.token.data(), reply.token.size(), 0);
    int status = -1;
    wait(&status);
    const Out last = Accept(reply.key, {});
    EXPECT_EQ(reply.status * 100 + (reply.token.empty() ? 50 : 0) + status * 10 + last.status, 102u) << reply.error;
    const std::string key = Narrow(last.key);
    EXPECT_TRUE(!key.empty() && key.find_first_not_of("0123456789") == std::string::npos) << key;
    EXPECT_EQ(p.SSOLookupSecurityContext(W(last.key)), 0u);
}

auto Kernel() {  // the calling thread's effective ids
    gid_t groups[64];
    return std::tuple(geteuid(), getegid(), std::set<gid_t>(groups, groups + std::max(0, getgroups(64, groups))));
}

TEST_F(Sspi, LogonInformationAndImpersonation) {
    const std::string name = AddLocalPrincipal(Env("OSTREL_REALM_DIR"));
    const passwd account = *getpwnam(name.c_str());
    gid_t groups[64];
    int nGroups = 64;
    ASSERT_GE(getgrouplist(name.c_str(), account.pw_gid, groups, &nGroups), 0);
    std::string sids = "SSPI_USER_GROUP_SIDS=";  // the primary group first, as getgrouplist gives it
    for (int i = 0; i < nGroups; ++i) sids += (i > 0 ? ";S-1-22-2-" : "S-1-22-2-") + std::to_string(groups[i]);
    ASSERT_EQ(Init(), 0u);
    const Out o = Login(name + "@" + Env("OSTREL_REALM"), "Ostrel-local-pw", true);
    EXPECT_EQ(Narrow(o.params), sids + ";SSPI_USER_SID=S-1-22-1-" + std::to_string(account.pw_uid) + ";") << o.error;
    // As root the kernel runs the calling thread as the user, until the revert.
    const auto before = Kernel(), user = std::tuple(account.pw_uid, account.pw_gid, std::set(groups, groups + nGroups));
    ASSERT_EQ(p.SSOImpersonate(W(o.key)), 0u);
    EXPECT_EQ(Kernel(), std::get<0>(before) == 0 ? user : before);
    EXPECT_EQ(p.SSORevert(W(o.key)), 0u);
    EXPECT_EQ(Kernel(), before);
    // A principal without a local account: refused only when logon information is asked for.
    EXPECT_EQ(Accept(u"", Start(alice, pw).token, true).error, "100/61776");
    EXPECT_EQ(Login(alice, pw).status, 2u);
}

// The provider "GSSAPI" accepts what the realm's own library sends, here through the provider "SSPI"'s client.
TEST_F(Sspi, WhatARealRealmRefuses) {
    ASSERT_EQ(Init(), 0u);
    const Bytes once = Start(alice, pw).token;
    const std::tuple<const char*, Out, std::string> rows[] = {
        {"wrong password", Start(alice, "wrong"), "3/50054"},
        {"unknown service", Start(alice, pw, u"HTTP/nowhere"), "100/50047/HTTP/nowhere"},
        {"no domain in the name", Start(Env("OSTREL_USER1"), pw), "100/47702"},
        {"garbage", Accept(u"", {0x60, 0x01, 0x00, 0x42}), "100/42254"},
        {"replay", (Accept(u"", once), Accept(u"", once)), "100/42254"},
        {"a login half done, closed", Accept(Start(alice, pw).key, {}), "100/42254"},
    };
    for (const auto& [what, out, error] : rows) {
        EXPECT_EQ(out.error, error) << what;
    }
}

TEST_F(Sspi, GssapiAcceptsRealClientsAndKeepsLoginsApart) {
    ParasSeq spn{W(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0, W(g_spn), nullptr};
    ASSERT_EQ(Init() + p.SSOInitProvider(SSO_PROVIDER_GSSAPI, &spn), 0u);
    const ostrel_char* const kGss = SSO_PROVIDER_GSSAPI;
    const std::string bob = Env("OSTREL_USER2") + "@" + Env("OSTREL_REALM");
    const Out a = Start(alice, pw), b = Start(bob, Env("OSTREL_PASS2"));
    const Out ra = Accept(u"", a.token, false, kGss), rb = Accept(u"", b.token, true, kGss);
    ASSERT_TRUE(ra.status == 1u && rb.status == 1u && ra.key != rb.key) << ra.error << rb.error;
    EXPECT_EQ(Continue(b.key, rb.token).status + Continue(a.key, ra.token).status, 0u);
    // Closed in the other order: each key finds its own login; no parameters unless asked.
    const Out cb = Accept(rb.key, {}, true, kGss), ca = Accept(ra.key, {}, false, kGss);
    EXPECT_NE(Narrow(cb.params).find("GSSAPI_USER_NAME=" + bob + ";"), std::string::npos) << Narrow(cb.params);
    EXPECT_EQ(std::to_string(cb.status) + Narrow(cb.key) + std::to_string(ca.status) + Narrow(ca.params),
              "2DUMMY_KEY__CACHING_IS_OFF2");
}

// The copy of the plug-in linked into this program, whose cleaner the test wakes through the cache's
// seam, on the realm whose service tickets last 6 s (tests/sspi/CMakeLists.txt).
class SspiRenewal : public Sspi {
protected:
    SspiRenewal() : Sspi(nullptr) {}
    void SetUp() override {
        std::ifstream env(m_dir + "/env");
        for (std::string l; std::getline(env, l);) setenv(l.substr(0, l.find('=')).c_str(), &l[l.find('=') + 1], 1);
        setenv("OSTREL_TRACE", (m_dir + "/trace").c_str(), 1);
        m_user = AddLocalPrincipal(m_dir) + "@" + Env("OSTREL_REALM");
        Sspi::SetUp();
    }
    void Wait(Clock::time_point i_until) {  // the cleaner scanning every 20 ms meanwhile
        for (; Clock::now() < i_until; std::this_thread::sleep_for(20ms))
            ostrel::TestAccess::WakeUpdateThread(*ostrel::TestAccess::ContextCache(*ostrel::SSOImpl::instance()));
    }
    bool Traced(const char* i_pText) {  // read whole, fast also under the sanitizers
        std::string trace;
        std::getline(std::ifstream(m_dir + "/trace"), trace, '\0');
        return trace.find(i_pText) != std::string::npos;
    }
    Out Login() { return Sspi::Login(m_user, "Ostrel-local-pw"); }
    unsigned Use(const Out& i_o) { return p.SSOImpersonate(W(i_o.key)) + p.SSORevert(W(i_o.key)); }

    std::string m_dir = Env("OSTREL_SSPI_REALM_DIR"), m_user;
};

TEST_F(SspiRenewal, RenewedWhileHostsWorkKeptWhenItCannotBeUntilItsTicketEnds) {
    ASSERT_EQ(Init(OSTREL_T("1"), OSTREL_T("8")), 0u);
    const Out first = Login();
    const Clock::time_point tFirst = Clock::now();  // its ticket ends within 6 s from here
    std::atomic<int> nFailures{0};
    auto host = [&] {  // paced, so that the renewals' round trips find the KDC and the cores free
        for (Out o; Clock::now() < tFirst + 6500ms; p.SSOReleaseSecurityContext(W(o.key))) {
            nFailures += Use(first) + Use(o = Login()) != 0;
            std::this_thread::sleep_for(20ms);
        }
    };
    std::thread hosts[] = {std::thread(host), std::thread(host), std::thread(host)};
    Wait(tFirst + 3s);
    const Out second = Login();  // its renewal is due after the KDC has gone
    const Clock::time_point tSecond = Clock::now();
    ASSERT_EQ(p.SSOImpersonate(W(second.key)) + p.SSOImpersonate(W(second.key)), 0u);
    Wait(tFirst + 6500ms);
    for (std::thread& host : hosts) host.join();
    EXPECT_EQ(nFailures, 0);
    EXPECT_EQ(p.SSOLookupSecurityContext(W(first.key)), 0u) << "renewed past its first ticket";
    ASSERT_EQ(Realm("stop-kdc " + m_dir), 0);
    while (!Traced("Failed to renegotiate security context.") && Clock::now() < tSecond + 6s) Wait(Clock::now() + 20ms);
    EXPECT_TRUE(Use(second) == 0 && Traced("Failed to renegotiate security context.")) << "the old context serves";
    EXPECT_EQ(Start(m_user, "Ostrel-local-pw").error, "100/50046");
    Wait(tSecond + 6200ms);
    EXPECT_EQ(p.SSOLookupSecurityContext(W(second.key)), 103u);
    std::string reverts;  // expired, but kept by the scans while impersonated; gone at the first scan after
    for (int i = 0; i < 2; ++i) reverts += std::to_string((Wait(Clock::now() + 200ms), p.SSORevert(W(second.key))));
    const Clock::time_point tReverted = Clock::now();
    while (p.SSORevert(W(second.key)) == 0 && Clock::now() < tReverted + 3s) Wait(Clock::now() + 20ms);
    EXPECT_EQ(reverts + std::to_string(p.SSORevert(W(second.key))), "00100");
    EXPECT_EQ(p.SSOLookupSecurityContext(W(first.key)), 103u)
        << "past the configured 8 s from the login, renewal or not";
    // Without renewals a login ends with its ticket.
    ASSERT_EQ(Realm("start-kdc " + m_dir) + Init(OSTREL_T("1"), OSTREL_T("8"), OSTREL_T("0")), 0u);
    const Out third = Login();
    Wait(Clock::now() + 6200ms);
    EXPECT_EQ(p.SSOLookupSecurityContext(W(third.key)), 103u);
}

#endif  // !_WIN32

}  // namespace
