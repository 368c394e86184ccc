// The provider "SSPI" over a scripted security package, and the cached token's renewal.
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>

#include "authentication/ostrel/KerberosSSPIHandler.h"
#include "support/FailingTokenApi.h"
#include "support/FakeSecurityApi.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::Narrow;
using Step = ostrel_test::FakeSecurityApi::Step;
using Sids = std::vector<std::vector<BYTE>>;

namespace {

class CountingHandler : public KerberosSSPIHandler {  // counts its token buffers: a leak shows
public:
    void* AllocateBuffer(size_t n) override { return ++nLive, KerberosSSPIHandler::AllocateBuffer(n); }
    void FreeBuffer(void* p) override { nLive -= p != nullptr, KerberosSSPIHandler::FreeBuffer(p); }
    int nLive = 0;
};

// The thread token of a logged-on user with chosen SIDs; the SID accessors are the port's.
class LogonTokens : public ostrel_test::FailingTokenApi {
public:
    Sids sids;  // the user's, then the groups'
    int nOpen = 0, nReverts = 0;
    BOOL OpenThreadToken(HANDLE, DWORD, BOOL, PHANDLE t) override { return *t = this, ++nOpen, TRUE; }
    BOOL RevertToSelf() override { return ++nReverts, FailingTokenApi::RevertToSelf(); }
    BOOL CloseHandle(HANDLE h) override { return nOpen -= h == this, TRUE; }
    BOOL GetTokenInformation(HANDLE, TOKEN_INFORMATION_CLASS c, LPVOID p, DWORD n, PDWORD r) override {
        const bool bUser = c == TokenUser;
        const size_t nSids = bUser ? 1 : sids.size() - 1, nHead = bUser ? 0 : offsetof(TOKEN_GROUPS, Groups);
        if ((*r = static_cast<DWORD>(nHead + nSids * (sizeof(SID_AND_ATTRIBUTES) + 12))) > n)
            return ostrel::platform::System().SetLastError(ERROR_INSUFFICIENT_BUFFER), FALSE;
        *static_cast<DWORD*>(p) = static_cast<DWORD>(nSids);
        auto* pEntries = reinterpret_cast<SID_AND_ATTRIBUTES*>(static_cast<BYTE*>(p) + nHead);
        for (size_t i = 0; i < nSids; ++i) pEntries[i] = {sids[i + (bUser ? 0 : 1)].data(), 0};
        return TRUE;
    }
};

std::vector<BYTE> Sid(std::vector<BYTE> i_authority, std::vector<DWORD> i_subs) {
    i_authority.insert(i_authority.begin(), {1, static_cast<BYTE>(i_subs.size())});
    for (DWORD n : i_subs)
        i_authority.insert(i_authority.end(), reinterpret_cast<BYTE*>(&n), reinterpret_cast<BYTE*>(&n + 1));
    return i_authority;
}

// A call's result, or what it threw: "status/message/first substitution".
template <class F>
std::string Try(F&& f) {
    try {
        return std::to_string(f());
    } catch (const SSOException& e) {
        return std::to_string(e.GetCode()) + "/" + std::to_string(e.GetMessageId()) +
               (e.GetSubstStrings().GetSize() > 0 ? "/" + Narrow(e.GetSubstStrings()[0]) : "");
    }
}

class Sspi : public ::testing::Test {
protected:
    void SetUp() override { TestAccess::SetHandler(g_ssProviderSSPI, handler); }
    void TearDown() override {
        TestAccess::SetHandler(g_ssProviderSSPI, nullptr);
        EXPECT_TRUE(handler->nLive + fake.nBadCloses == 0 && fake.credentials.empty() && fake.contexts.empty());
    }
    SSOSessionPtr Session(bool i_bSpn = true) { return handler->CreateSession(i_bSpn ? &spn : nullptr); }
    int Pass(SSOSessionPtr s, bool i_bClient, const void* i_pIn = "t", size_t n = 1, bool i_bLogon = false) {
        void* pOut = nullptr;
        size_t nOut = 0;
        const std::shared_ptr<void> release(nullptr, [&](void*) { handler->FreeBuffer(pOut); });
        SSOCredentialsPtr c = handler->CreateServerCredentials(i_bClient ? SSOCredentialsClient : SSOCredentialsServer);
        return i_bClient ? handler->InitializeContext(c, s, i_pIn, n, &pOut, &nOut)
                         : handler->AcceptContext(c, s, i_pIn, n, &pOut, &nOut, i_bLogon, logon);
    }
    CSmartRefCountPtr<StaticToken> Token(LONGLONG i_nExpiry = 0) {
        fake.nExpiry = i_nExpiry;
        SSOSessionPtr s = Session();
        Pass(s, true);
        return s->GetStaticToken();
    }
    void InitHandler(ParasSeq* i_pParas) { handler->InitHandler(Parameters(i_pParas)); }

    ostrel_test::FakeSecurityApi fake;
    ostrel::platform::ScopedSecurityApiOverride scope{fake};
    LogonTokens tokens;
    ostrel::platform::ScopedTokenApiOverride tokenScope{tokens};
    CSmartRefCountPtr<CountingHandler> handler{new CountingHandler()};
    ParasSeq spn{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                 const_cast<ostrel_char*>(OSTREL_T("HTTP/host@R")), nullptr};
    Parameters logon;
};

// The package's answers to the credentials and to the pass; what a client's and a server's pass make of them.
TEST_F(Sspi, EveryResultOfBothPasses) {
    const std::vector<std::tuple<SECURITY_STATUS, Step, std::string, std::string>> rows = {
        {SEC_E_OK, {SEC_E_OK, 5}, "0", "1"},  // on the client, a last token still to go
        {SEC_E_OK, {SEC_E_OK, 0}, "0", "2"},
        {SEC_E_OK, {SEC_I_CONTINUE_NEEDED, 5}, "1", "1"},
        {SEC_E_OK, {SEC_I_COMPLETE_NEEDED}, "100/42254", "0"},
        {SEC_E_OK, {SEC_I_COMPLETE_AND_CONTINUE}, "100/42254", "0"},
        {SEC_E_OK, {SEC_E_WRONG_PRINCIPAL}, "100/61749", "100/42254"},
        {SEC_E_OK, {SEC_E_TARGET_UNKNOWN}, "100/50047/HTTP/host@R", "100/42254"},
        {SEC_E_OK, {SEC_E_LOGON_DENIED}, "3/50054", "3/61774"},
        {SEC_E_OK, {SEC_E_NO_AUTHENTICATING_AUTHORITY}, "100/50046", "100/50046"},
        {SEC_E_OK, {SEC_E_INSUFFICIENT_MEMORY}, "100/42254", "106/42502"},
        {SEC_E_INSUFFICIENT_MEMORY, {}, "106/42502", "106/42502"},
        {SEC_E_SECPKG_NOT_FOUND, {}, "100/61777/Kerberos/SSPI", "100/61777/Kerberos/SSPI"},
        {SEC_E_NO_CREDENTIALS, {}, "100/61774", "100/61774"},
    };
    for (const auto& [acquire, step, client, server] : rows) {
        fake.acquire = {{acquire}, {acquire}};
        fake.init = fake.accept = {step};
        const std::string ssClient = Try([&] { return Pass(Session(), true); });
        EXPECT_EQ(ssClient + " " + Try([&] { return Pass(Session(), false); }), client + " " + server) << step.status;
    }
    EXPECT_TRUE(fake.calls.starts_with("query Kerberos;acquire 2 ;init HTTP/host@R 3 16;acquire 1 ;accept 2 2;"));
    EXPECT_EQ(Try([&] { return Pass(Session(false), true); }), "100/61773");
    // The closing call finishes, with no package call, only a context the package called complete.
    for (const SECURITY_STATUS status : {SEC_I_CONTINUE_NEEDED, SEC_E_OK}) {
        SSOSessionPtr s = Session();
        fake.accept = {{status, 5}, {SEC_E_INTERNAL_ERROR}};
        Pass(s, false);
        EXPECT_EQ(Try([&] { return Pass(s, false, nullptr, 0); }), status == SEC_E_OK ? "2" : "100/42254");
    }
}

TEST_F(Sspi, UserNamesAndCredentialUses) {
    const std::vector<std::tuple<const ostrel_char*, int, std::string, std::string>> rows = {
        {OSTREL_T("alice@R.EXAMPLE"), 1, "0", "acquire 2 alice|R.EXAMPLE|pw|2;"},
        {OSTREL_T("R\\alice"), 0, "0", "acquire 1 alice|R|pw|2;"},
        {OSTREL_T("R\\a@b"), 2, "0", "acquire 3 a@b|R|pw|2;"},
        {OSTREL_T("@R"), 1, "0", "acquire 2 |R|pw|2;"},
        {OSTREL_T("\\alice"), 1, "0", "acquire 2 alice||pw|2;"},
        {OSTREL_T("alice"), 1, "100/47702", ""},
        {OSTREL_T(""), 1, "0", "acquire 2 ;"},  // single sign-on: no identity, the password ignored
    };
    for (const auto& [name, type, expected, calls] : rows) {
        fake.calls.clear();
        EXPECT_EQ(Try([&, &name = name, type = type] { return handler->CreateClientCredentials(name, OSTREL_T("pw"), type), 0; }), expected);
        EXPECT_EQ(fake.calls, calls);
    }
}

TEST_F(Sspi, SettingsAndTheHandlerItself) {
    // One setting each; the handler's expiry in milliseconds, caching and renewals afterwards.
    const std::vector<std::tuple<const ostrel_char*, const ostrel_char*, uint32_t, std::string>> rows = {
        {SSO_KEY_CTXT_CACHE_EXPIRY, OSTREL_T("10"), SSO_PARAM_LONG, "0 10000 1 1"},
        {SSO_KEY_CTXT_CACHE_EXPIRY, OSTREL_T("9223372036854775"), SSO_PARAM_LONG, "0 -1000 1 1"},
        {WP_SI_CACHE_SECCONTEXT_W, OSTREL_T("0"), SSO_PARAM_BOOL, "0 -1000 0 1"},
        {SSO_KEY_CONTEXT_RENEWALS_ALLOWED, OSTREL_T("0"), SSO_PARAM_BOOL, "0 -1000 0 0"},
        {SSO_KEY_CONTEXT_RENEWALS_ALLOWED, OSTREL_T("1"), SSO_PARAM_LONG,
         "100/42038/CONTEXT_RENEWALS_ALLOWED -1000 0 0"},
    };
    for (const auto& [key, value, type, expected] : rows) {
        ParasSeq setting{const_cast<ostrel_char*>(key), type, 0, const_cast<ostrel_char*>(value), nullptr};
        const std::string ssResult = Try([&] { return InitHandler(&setting), 0; });
        EXPECT_EQ(ssResult + " " + std::to_string(handler->GetCacheExpiry().GetMilliseconds()) + " " +
                      std::to_string(handler->IsCachingOn()) + " " + std::to_string(handler->GetRenewalsAllowed()),
                  expected);
    }
    TestAccess::SetHandler(g_ssProviderSSPI, nullptr);
    fake.query = {{SEC_E_SECPKG_NOT_FOUND}};  // no handler then; each description is freed, the fixture's too
    auto make = [&] { return SSOHandlerFactory::instance()->GetHandler(g_ssProviderSSPI), fake.nInfoFrees; };
    const std::string ssFirst = Try(make);
    EXPECT_EQ(ssFirst + " " + Try(make), "100/61777/Kerberos/SSPI 3");
}

TEST_F(Sspi, LogonInformation) {
    const auto nt = Sid({0, 0, 0, 0, 0, 5}, {21, 1000, 2000});
    std::string many = "S-1-5-21-1000-2000";
    for (int i = 1; i < 300; ++i) many += ";S-1-5-21-1000-2000";
    const std::vector<std::pair<Sids, std::string>> rows = {
        {{Sid({0, 0, 255, 255, 255, 255}, {7})}, "S-1-4294967295-7 "},
        {{Sid({1, 2, 3, 4, 5, 6}, {}), nt, Sid({0, 0, 0, 0, 0, 1}, {0})},
         "S-1-0x010203040506 S-1-5-21-1000-2000;S-1-1-0"},
        {Sids(301, nt), "S-1-5-21-1000-2000 " + many},
    };
    ostrel_test::TraceCapture trace;
    for (const auto& [sids, expected] : rows) {
        tokens.sids = sids;
        EXPECT_EQ(Pass(Session(), false, "t", 1, true), 2);
        SWCharString ss[2];  // both there, even with no groups
        EXPECT_TRUE(logon.GetParameter(g_ssKeySspiUserSid, ss[0]) &&
                    logon.GetParameter(g_ssKeySspiUserGroupSids, ss[1]));
        EXPECT_EQ(Narrow(ss[0]) + " " + Narrow(ss[1]), expected);
        EXPECT_EQ(fake.nImpersonating + tokens.nOpen, 0) << "reverted and closed";
    }
    EXPECT_EQ(trace.count("Reallocating buffer.  Size is 8408."), 1u);
}

TEST_F(Sspi, ExpiryImpersonationAndRevert) {
    const SDateTime dtExpiry(2030, 1, 1, 0, 0, 0, 0, STimeZone::TZ_Local());
    CSmartRefCountPtr<StaticToken> pToken = Token(135379296000000000);  // that instant, as the package's local time
    EXPECT_FALSE(pToken->Expired(dtExpiry));
    EXPECT_TRUE(pToken->Expired(dtExpiry + STimeSpan(1)));
    EXPECT_TRUE(Token(-1)->Expired(dtExpiry)) << "a lifespan that can't be read";

    fake.revert = {{SEC_E_INTERNAL_ERROR}};  // mended by RevertToSelf
    for (int i = 0; i < 4; ++i) (i < 2 ? pToken->Impersonate() : pToken->Revert());
    pToken->Revert();  // at 0, stays 0
    EXPECT_EQ(tokens.nReverts, 2) << "the failed revert and the one at 0";
    tokens.bFailRevert = true;
    EXPECT_EQ(Try([&] { return pToken->Revert(), 0; }), "100/61776") << "count 0: RevertToSelf alone";
}

TEST_F(Sspi, Renegotiation) {
    InitHandler(&spn);
    const Step send{SEC_I_CONTINUE_NEEDED, 5}, done{SEC_E_OK, 0};
    const std::vector<std::tuple<std::deque<Step>, std::deque<Step>, std::deque<Step>, std::string>> rows = {
        {{send, done}, {{SEC_E_OK, 5}}, {}, "1"},
        {{send, send, send, send, done}, {send, send, send, send}, {}, "1"},
        {{send, send, send, send, send}, {send, send, send, send, send}, {}, "100/42254"},
        {{send}, {done}, {}, "100/42254"},                            // a complete server context with nothing to send
        {{done}, {}, {}, "1"},                                        // nothing to send: the swap takes a zero handle
        {{}, {}, {{SEC_E_OK}, {SEC_E_NO_CREDENTIALS}}, "100/61774"},  // the user's: left impersonating
    };
    for (const auto& [init, accept, acquire, expected] : rows) {
        CSmartRefCountPtr<StaticToken> pToken = Token();
        const ULONG_PTR nOld = *fake.contexts.begin();
        std::tie(fake.init, fake.accept, fake.acquire) = std::tie(init, accept, acquire);
        EXPECT_EQ(Try([&] { return static_cast<int>(pToken->RenegotiateImpl()); }), expected);
        EXPECT_EQ(fake.nImpersonating, acquire.size() == 2 ? 1 : 0);
        EXPECT_TRUE(fake.init.empty() && fake.accept.empty() && fake.credentials.empty() && handler->nLive == 0);
        EXPECT_EQ(fake.contexts.count(nOld), expected == "1" ? 0u : 1u) << "a failure keeps the old context";
    }
}

}  // namespace
