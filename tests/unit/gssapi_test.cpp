// The provider "GSSAPI" against a scripted stand-in library: the binding and the gate of every call in both
// locking modes, status texts, the acceptor's credentials and the handler's passes. Whole logins run against
// a real realm in tests/sspi.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "authentication/ostrel/GSSAPICredentials.h"
#include "authentication/ostrel/GSSAPIDllWrapper.h"
#include "authentication/ostrel/GSSAPIHandler.h"
#include "foundation/SharedLibrary.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::Narrow;
using W = GSSAPIDllWrapper;
using WrapperPtr = CSmartRefCountPtr<GSSAPIDllWrapper>;
using CredsPtr = CSmartRefCountPtr<GSSAPIServerCredentials>;

namespace {

const char* const kFake = OSTREL_FAKE_GSSAPI_PATH;
const char* const kNine = OSTREL_FAKE_GSSAPI_NINE_PATH;
constexpr OM_uint32 kDuplicateToken = 1u << 1;  // a supplementary bit
constexpr int kThrown = -1;                     // the pass threw status 100
const char* const kAbsent = "<absent>";

// The stand-in's controls, through a handle of our own on the same file: the loader gives back the one the code holds.
struct FakeGss {
    FakeGss() {
        m_lib.LoadLibraryW(ToWCharString(kFake), Tarvik500::CSharedLibrary::LM_NOW_LOCAL, true);
        Bind(reset, "fake_gss_reset"), Bind(scriptAccept, "fake_gss_script_accept"), Bind(fail, "fake_gss_fail");
        Bind(rendezvous, "fake_gss_set_rendezvous"), Bind(maxConcurrent, "fake_gss_max_concurrent");
        Bind(setHook, "fake_gss_set_hook"), Bind(calls, "fake_gss_calls"), Bind(outstanding, "fake_gss_outstanding");
        Bind(last, "fake_gss_last");
        reset();
    }
    template <class Fn>
    void Bind(Fn& o_fn, const char* i_pName) {
        o_fn = reinterpret_cast<Fn>(m_lib.GetFunction(i_pName, true));
    }
    // The last name imported; asUser and usage tell how it and the last credential were asked for.
    std::string lastImport() {
        char text[128];
        last(text, sizeof text, &asUser, &usage);
        return text;
    }
    Tarvik500::CSharedLibrary m_lib;
    int asUser = 0, usage = 0;
    void (*reset)(), (*fail)(const char*, OM_uint32, int), (*rendezvous)(int, int), (*setHook)(void (*)(const char*));
    int (*scriptAccept)(OM_uint32, const void*, size_t, const char*), (*maxConcurrent)();
    long (*calls)(const char*), (*outstanding)();
    void (*last)(char*, size_t, int*, int*);
};

// Whether the process holds the file loaded, without loading it.
bool IsLoaded(const char* i_pPath) {
#if defined(_WIN32)
    return GetModuleHandleA(i_pPath) != nullptr;
#else
    void* p = dlopen(i_pPath, RTLD_NOW | RTLD_NOLOAD);
    return p != nullptr && dlclose(p) == 0;
#endif
}

uint32_t StatusOf(const std::function<void()>& i_fn) { return ostrel_test::Thrown(i_fn).first; }

class Gss : public ::testing::Test {
protected:
    void TearDown() override { m_fake.reset(); }
    static WrapperPtr Wrapper(const std::string& i_path, bool i_bThreadSafe = false) {
        return WrapperPtr(new GSSAPIDllWrapper(ToWCharString(i_path.c_str()), i_bThreadSafe));
    }
    WrapperPtr Bound(bool i_bThreadSafe = false) {
        WrapperPtr p = Wrapper(kFake, i_bThreadSafe);
        EXPECT_TRUE(p->Initialize());
        return p;
    }
    FakeGss m_fake;
    ostrel_test::TraceCapture m_capture;
};

}  // namespace

TEST_F(Gss, EachCallReachesItsOwnEntryPointOnlyWhileBoundAndStatusesReadAsText) {
    WrapperPtr pDll = Wrapper(kFake);
    OM_uint32 minor = 0;
    gss_name_t name = nullptr;
    gss_buffer_desc buffer = {0, nullptr}, user = {4, const_cast<char*>("user")}, empty = {0, nullptr};
    gss_cred_id_t cred = nullptr;
    gss_ctx_id_t ctx = nullptr;
    OM_uint32 context = 0;
    const std::vector<std::pair<std::string, std::function<OM_uint32()>>> ten = {
        {"gss_import_name", [&] { return pDll->gss_import_name(&minor, &user, W::GSS_C_NT_USER_NAME, &name); }},
        {"gss_display_name", [&] { return pDll->gss_display_name(&minor, name, &buffer, nullptr); }},
        {"gss_release_buffer", [&] { return pDll->gss_release_buffer(&minor, &buffer); }},
        {"gss_acquire_cred", [&] { return pDll->gss_acquire_cred(&minor, name, 0, nullptr, 0, &cred, nullptr, nullptr); }},
        {"gss_release_name", [&] { return pDll->gss_release_name(&minor, &name); }},
        {"gss_init_sec_context", [&] { return pDll->gss_init_sec_context(&minor, cred, &ctx, nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr, &buffer, nullptr, nullptr); }},
        {"gss_accept_sec_context", [&] { return pDll->gss_accept_sec_context(&minor, &ctx, cred, &empty, nullptr, nullptr, nullptr, &buffer, nullptr, nullptr, nullptr); }},
        {"gss_delete_sec_context", [&] { return pDll->gss_delete_sec_context(&minor, &ctx, nullptr); }},
        {"gss_release_cred", [&] { return pDll->gss_release_cred(&minor, &cred); }},
        {"gss_display_status", [&] { return pDll->gss_display_status(&minor, 0, W::GSS_C_GSS_CODE, nullptr, &context, &buffer); }},
    };
    for (int round = 0; round < 3; ++round) {  // never bound, bound, let go
        const bool bBound = round == 1;
        if (round == 1) {
            ASSERT_TRUE(pDll->Initialize() && pDll->Initialize());
            EXPECT_EQ(m_capture.count("About to try to load DLL"), 1u);
        } else if (round == 2) {
            pDll->Uninitialize();
            m_fake.reset();
        }
        for (auto& [entry, call] : ten) {
            const long before = m_fake.calls(entry.c_str()), total = m_fake.calls(nullptr);
            EXPECT_EQ(StatusOf([&call = call] { call(); }), bBound ? 0u : 100u) << entry;
            EXPECT_EQ(m_fake.calls(entry.c_str()), before + (bBound ? 1 : 0)) << entry;
            EXPECT_EQ(m_fake.calls(nullptr), total + (bBound ? 1 : 0)) << entry;
        }
        if (!bBound) {
            EXPECT_EQ(StatusOf([&] { pDll->GetGSSAPIError(W::GSS_S_FAILURE, 0); }), 100u);
            continue;
        }
        pDll->gss_release_buffer(&minor, &buffer);
        EXPECT_EQ(Narrow(pDll->GetGSSAPIError(W::GSS_S_NO_CRED, 5)),
                  "GSSAPI ERROR: [GSS major 0x00070000 part 1/2] [GSS major 0x00070000 part 2/2] [MECH minor 5] ");
        EXPECT_EQ(m_fake.outstanding(), 0);
        m_fake.fail("gss_display_status", W::GSS_S_FAILURE, 0);  // a bracket pair for each piece, read or not
        EXPECT_EQ(Narrow(pDll->GetGSSAPIError(W::GSS_S_FAILURE, 7)), "GSSAPI ERROR: [GSS ] [MECH ] ");
    }
}

TEST_F(Gss, OnlyAThreadSafeLibraryIsEnteredSideBySide) {
    for (bool bThreadSafe : {false, true}) {
        m_fake.reset();
        WrapperPtr pDll = Bound(bThreadSafe);
        m_fake.rendezvous(2, bThreadSafe ? 5000 : 300);  // the first call waits inside for a second one
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                OM_uint32 minor = 0;
                gss_name_t name = nullptr;
                gss_buffer_desc in = {4, const_cast<char*>("user")};
                pDll->gss_import_name(&minor, &in, nullptr, &name);
                pDll->gss_release_name(&minor, &name);
            });
        }
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(m_fake.maxConcurrent() > 1, bThreadSafe) << m_fake.maxConcurrent();
        EXPECT_EQ(m_fake.outstanding(), 0);
    }
}

TEST_F(Gss, CredentialsAreForTheSpnAsAUserNameWithTheUsageOfTheirType) {
    WrapperPtr pDll = Bound();
    const std::pair<int, int> usages[] = {{0, W::GSS_C_ACCEPT}, {1, W::GSS_C_INITIATE}, {2, W::GSS_C_BOTH}};
    for (auto [type, usage] : usages) {
        {
            CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/web.example.com@EXAMPLE.COM"), type, pDll));
            EXPECT_EQ(m_fake.lastImport(), "HTTP/web.example.com@EXAMPLE.COM");
            EXPECT_EQ(std::make_pair(m_fake.asUser, m_fake.usage), std::make_pair(1, usage));
            EXPECT_EQ(m_fake.outstanding(), 1) << "the name goes back at once";
        }
        EXPECT_EQ(m_fake.outstanding(), 0);
    }
    m_fake.reset();  // what they cannot use is refused before any call
    const std::pair<int, WrapperPtr> unusable[] = {{3, pDll}, {0, Wrapper(kFake)}, {0, WrapperPtr()}};
    for (auto [type, pWrapper] : unusable) {
        EXPECT_EQ(StatusOf([type = type, pWrapper = pWrapper] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), type, pWrapper)); }), 100u);
    }
    EXPECT_EQ(m_fake.calls(nullptr), 0);

    for (const std::string entry : {"gss_acquire_cred", "gss_import_name"}) {  // a failing call that hands out its object all the same
        m_fake.reset();
        m_fake.fail(entry.c_str(), W::GSS_S_NO_CRED, 1);
        EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("x"), 0, pDll)); }), 100u) << entry;
        EXPECT_EQ(m_fake.calls("gss_acquire_cred"), entry == "gss_acquire_cred" ? 1 : 0) << entry;
        EXPECT_EQ(m_fake.outstanding(), 0) << entry;
    }
    EXPECT_TRUE(m_capture.hasLineEndingWith("-- gss_acquire_cred GSS_S_NO_CRED"));
}

namespace {

class GssHandler : public Gss {
protected:
    void SetUp() override { TestAccess::SetDll(*m_pHandler, m_pDll); }
    void Init() {
        Parameters params;
        params.AddParameter(g_ssKeyServerSpn, SWCharString(OSTREL_T("HTTP/web.example.com")));
        params.AddParameter(g_ssKeyCacheSecContext, true);
        params.AddParameter(g_ssKeyRenewalsAllowed, true);
        m_pHandler->InitHandler(params);
    }
    struct Result {
        int status = kThrown;
        std::string token = "<untouched>";
        std::string user = kAbsent;
    };
    // One server pass with fresh credentials, as the session manager runs it; no input is a null buffer.
    Result Accept(const SSOSessionPtr& i_pSession, const std::string& i_in, bool i_bLogon = true,
                  SSOCredentialsPtr i_pCredentials = nullptr) {
        char untouched = 0;
        void* pv = &untouched;
        size_t n = 99;
        Parameters out;
        Result r;
        try {
            if (i_pCredentials == nullptr) i_pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
            r.status = m_pHandler->AcceptContext(i_pCredentials, i_pSession, i_in.empty() ? nullptr : i_in.data(),
                                                 i_in.size(), &pv, &n, i_bLogon, out);
        } catch (const SSOException& e) {
            EXPECT_EQ(e.GetCode(), 100u);
        }
        if (pv != &untouched) {
            r.token.assign(static_cast<const char*>(pv), pv != nullptr ? n : 0);
            m_pHandler->FreeBuffer(pv);
        } else if (r.status != kThrown) {
            r.token.clear();  // a closing call need not write them; the host starts them empty
        }
        r.user = UserName(out);
        return r;
    }
    static std::string UserName(const Parameters& i_params) {
        SWCharString ss;
        return i_params.GetParameter(g_ssKeyGssapiUserName, ss) ? Narrow(ss) : kAbsent;
    }
    WrapperPtr m_pDll = Wrapper(kFake);
    CSmartRefCountPtr<GSSAPIHandler> m_pHandler{new GSSAPIHandler()};
};

}  // namespace

TEST_F(GssHandler, SettingsBindingAndWhatIsRefused) {
    Parameters required;
    bool bRequired = false;
    m_pHandler->GetRequiredParameters(required);
    EXPECT_TRUE(required.GetCount() == 1u && required.GetParameter(g_ssKeyServerSpn, bRequired) && bRequired);
    // Without a SPN: refused, though only after binding.
    try {
        m_pHandler->InitHandler(Parameters());
        ADD_FAILURE() << "no SPN accepted";
    } catch (const SSOException& e) {
        EXPECT_EQ(std::make_pair(e.GetCode(), e.GetMessageId()), std::make_pair(100u, uint32_t{MSG_MECHANISM_UNAVAILABLE}));
        ASSERT_EQ(e.GetSubstStrings().GetSize(), 1);
        EXPECT_EQ(Narrow(e.GetSubstStrings()[0]), "Kerberos/GSSAPI");
    }
    EXPECT_TRUE(m_pDll->IsInitialized());
    Init();  // whatever the host asks for: nothing cached, nothing renewed
    Init();
    EXPECT_FALSE(m_pHandler->IsCachingOn());
    EXPECT_FALSE(m_pHandler->GetRenewalsAllowed());
    EXPECT_EQ(m_capture.count("About to try to load DLL"), 1u);
    SSOCredentialsPtr pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
    EXPECT_EQ(m_fake.lastImport(), "HTTP/web.example.com");

    class OtherCredentials : public SSOCredentials {};
    class OtherSession : public SSOSession {
    public:
        OtherSession() : SSOSession(nullptr) {}
        CSmartRefCountPtr<StaticToken> GetStaticToken() override { return nullptr; }
    };
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    EXPECT_EQ(Accept(pSession, "t", true, SSOCredentialsPtr(new OtherCredentials())).status, kThrown);
    EXPECT_EQ(Accept(SSOSessionPtr(new OtherSession()), "t").status, kThrown);
    EXPECT_EQ(m_fake.calls("gss_accept_sec_context"), 0);
    EXPECT_EQ(StatusOf([&] { m_pHandler->CreateClientCredentials(OSTREL_T("alice"), OSTREL_T("pw"), 1); }), 100u);
    EXPECT_EQ(StatusOf([&] { pSession->GetStaticToken()->Impersonate(); }), 100u);

    // One symbol missing: nothing is made, and each try binds anew and lets the file go again.
    TestAccess::SetDll(*m_pHandler, Wrapper(kNine));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(StatusOf([&] { Init(); }), 100u);
    EXPECT_EQ(StatusOf([&] { m_pHandler->CreateSession(nullptr); }), 100u);
    EXPECT_EQ(StatusOf([&] { m_pHandler->CreateServerCredentials(SSOCredentialsServer); }), 100u);
    EXPECT_EQ(m_capture.count("Expected symbols not found in DLL"), 2u);
    EXPECT_FALSE(IsLoaded(kNine));
}

TEST_F(GssHandler, EachWayThroughAPass) {
    struct Step { OM_uint32 major; const char* token; const char* name; };
    // user: the name given out; kept: the name in the session
    struct Pass { const char* input; bool logon; int status; const char* token; const char* user; };
    struct Way { const char* what; std::vector<Step> script; std::vector<Pass> passes; long accepts, displays; bool kept = false, thrown = false; };
    const OM_uint32 kDone = W::GSS_S_COMPLETE, kMore = W::GSS_S_CONTINUE_NEEDED;
    const char* const A = "alice@EXAMPLE.COM";
    const char* const N = kAbsent;
    // clang-format off
    const Way ways[] = {
        // Anything thrown in the library is status 100 and leaves the outputs alone; the next way's thread gets through the gate.
        {"thrown in the library", {}, {{"t", true, kThrown, "<untouched>", N}}, 1, 0, false, true},
        {"complete at once", {{kDone, "", A}}, {{"t", true, 2, "", A}}, 1, 1},
        // The reply still has to reach the client: the name waits in the session for the closing call.
        {"with a reply", {{kDone, "reply", A}}, {{"t", true, 1, "reply", N}, {"", true, 2, "", A}}, 1, 1, true},
        {"without logon info", {{kDone, "reply", A}}, {{"t", false, 1, "reply", N}, {"", false, 2, "", N}}, 1, 1},
        // The second call continues the first one's context: the stand-in refuses any other.
        {"continue needed", {{kMore, "challenge", nullptr}, {kDone, "", A}},
         {{"t1", true, 1, "challenge", N}, {"t2", true, 2, "", A}}, 2, 1},
        // The client never answered: a closing call cannot finish an unauthenticated login.
        {"closing too early", {{kMore, "challenge", nullptr}}, {{"t", true, 1, "challenge", N}, {"", true, kThrown, "<untouched>", N}}, 1, 0},
        {"first pass without input", {{kMore, "challenge", nullptr}}, {{"", true, 1, "challenge", N}}, 1, 0},
        {"empty client name", {{kDone, "", ""}}, {{"t", true, 2, "", ""}}, 1, 1},
        {"no client name", {{kDone, "", nullptr}}, {{"t", true, 2, "", ""}}, 1, 0},
        // A failed context's name goes back unread; its error token goes back, not on.
        {"failure", {{W::GSS_S_DEFECTIVE_TOKEN, "error", A}}, {{"t", true, kThrown, "", N}}, 1, 0},
        // Not an error, so the reply is out; yet only a status exactly complete finishes.
        {"supplementary bit", {{kDone | kDuplicateToken, "reply", A}}, {{"t", true, kThrown, "reply", N}}, 1, 1},
    };
    // clang-format on
    Init();
    for (const Way& way : ways) {
        SCOPED_TRACE(way.what);
        m_fake.reset();
        m_capture.clear();
        for (const Step& step : way.script) {
            ASSERT_EQ(m_fake.scriptAccept(step.major, step.token, std::strlen(step.token), step.name), 1);
        }
        if (way.thrown) m_fake.setHook([](const char* i_p) { if (std::strcmp(i_p, "gss_accept_sec_context") == 0) throw 7; });
        SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
        std::thread([&] {  // each way on a thread of its own: a gate left closed shows as the next way hanging
            for (const Pass& pass : way.passes) {
                const Result r = Accept(pSession, pass.input, pass.logon);
                EXPECT_EQ(r.status, pass.status) << pass.input;
                EXPECT_EQ(r.token, pass.token) << pass.input;
                EXPECT_EQ(r.user, pass.user) << pass.input;
            }
        }).join();
        EXPECT_EQ(m_fake.calls("gss_accept_sec_context"), way.accepts);
        EXPECT_EQ(m_fake.calls("gss_display_name"), way.displays);
        EXPECT_EQ(m_capture.has("-- GSSAPI ERROR: ["), std::string(way.what) == "failure");
        EXPECT_EQ(m_capture.has("Exception caught calling into GSSAPI DLL!"), way.thrown);
        EXPECT_EQ(UserName(pSession->GetParameters()), way.kept ? A : N);
        pSession = nullptr;  // and its context with it
        EXPECT_EQ(m_fake.outstanding(), 0);
        EXPECT_EQ(m_capture.has("ASSERT("), way.thrown);
    }
}
