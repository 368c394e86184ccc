// The provider "GSSAPI" against a scripted stand-in library: the binding and
// the gate of every call in both locking modes, status texts, the acceptor's
// credentials and the handler's passes. Whole logins run against a real realm.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
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
#include "support/TraceCapture.h"

using namespace ostrel;

namespace {

// The stand-in's controls, reached through a handle of our own on the same file:
// the loader gives back the one the code under test holds.
class FakeGss {
public:
    explicit FakeGss(const char* i_pPath) {
        m_lib.LoadLibraryW(ToWCharString(i_pPath), CSharedLibrary::LM_NOW_LOCAL, true);
        Bind(reset, "fake_gss_reset");
        Bind(scriptAccept, "fake_gss_script_accept");
        Bind(fail, "fake_gss_fail");
        Bind(setRendezvous, "fake_gss_set_rendezvous");
        Bind(maxConcurrent, "fake_gss_max_concurrent");
        Bind(setHook, "fake_gss_set_hook");
        Bind(calls, "fake_gss_calls");
        Bind(outstanding, "fake_gss_outstanding");
        Bind(m_last, "fake_gss_last");
        reset();
    }
    struct Last {
        std::string import;
        int importedAsUser = -1;
        int usage = -1;
    };
    Last last() const {
        char text[128] = {};
        Last result;
        m_last(text, sizeof text, &result.importedAsUser, &result.usage);
        result.import = text;
        return result;
    }

    void (*reset)() = nullptr;
    int (*scriptAccept)(OM_uint32, const void*, size_t, const char*) = nullptr;
    void (*fail)(const char*, OM_uint32, int) = nullptr;
    void (*setRendezvous)(int, int) = nullptr;
    int (*maxConcurrent)() = nullptr;
    void (*setHook)(void (*)(const char*)) = nullptr;
    long (*calls)(const char*) = nullptr;
    long (*outstanding)() = nullptr;

private:
    template <class Fn>
    void Bind(Fn& o_fn, const char* i_pName) {
        o_fn = reinterpret_cast<Fn>(m_lib.GetFunction(i_pName, true));
    }
    CSharedLibrary m_lib;
    void (*m_last)(char*, size_t, int*, int*) = nullptr;
};

// Whether the process holds the file loaded, without loading it.
bool IsLoaded(const std::string& i_path) {
#if defined(_WIN32)
    return GetModuleHandleA(i_path.c_str()) != nullptr;
#else
    void* pHandle = dlopen(i_path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (pHandle != nullptr) {
        dlclose(pHandle);
        return true;
    }
    return false;
#endif
}

std::string Narrow(const SWCharString& i_ss) { return ToAnsiString(i_ss.c_str()).c_str(); }

uint32_t StatusOf(const std::function<void()>& i_fn) {
    try {
        i_fn();
    } catch (const SSOException& e) {
        return e.GetCode();
    }
    return 0;
}

using WrapperPtr = CSmartRefCountPtr<GSSAPIDllWrapper>;
using CredsPtr = CSmartRefCountPtr<GSSAPIServerCredentials>;
using W = GSSAPIDllWrapper;

const char* const kFake = OSTREL_FAKE_GSSAPI_PATH;
const char* const kNine = OSTREL_FAKE_GSSAPI_NINE_PATH;
constexpr OM_uint32 kDuplicateToken = 1u << 1;     // a supplementary bit
constexpr OM_uint32 kCallBadStructure = 3u << 24;  // a calling error

class GssTest : public ::testing::Test {
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

    FakeGss m_fake{kFake};
    ostrel_test::TraceCapture m_capture;
};

// ---- the binding and its gate ----

TEST_F(GssTest, AFailedBindingIsUndoneAndTriedAgain) {
    // A symbol missing: unbound, and the file let go, on every try.
    WrapperPtr pNine = Wrapper(kNine);
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(pNine->Initialize());
        EXPECT_FALSE(pNine->IsInitialized());
        EXPECT_FALSE(IsLoaded(kNine));
    }
    EXPECT_EQ(m_capture.count("Expected symbols not found in DLL"), 2u);

    // A file that comes later is bound by the same object. Beside the stand-in, where loading code is allowed.
    const std::filesystem::path later = std::filesystem::path(kFake).parent_path() /
                                        ("ostrel_gss_later_" + std::to_string(std::random_device{}()) + ".so");
    std::filesystem::remove(later);
    {
        WrapperPtr pDll = Wrapper(later.string());
        EXPECT_FALSE(pDll->Initialize());
        std::filesystem::copy_file(kFake, later);
        EXPECT_TRUE(pDll->Initialize());
        EXPECT_TRUE(pDll->IsInitialized());
    }
    std::filesystem::remove(later);
}

// Each of the ten calls, with arguments the stand-in accepts, giving back all but the last buffer.
struct AllTen {
    explicit AllTen(GSSAPIDllWrapper& i_dll) : dll(i_dll) {}
    std::vector<std::pair<std::string, std::function<OM_uint32()>>> calls() {
        return {
            {"gss_import_name",
             [this] {
                 gss_buffer_desc in = {4, const_cast<char*>("user")};
                 return dll.gss_import_name(&minor, &in, W::GSS_C_NT_USER_NAME, &name);
             }},
            {"gss_display_name", [this] { return dll.gss_display_name(&minor, name, &buffer, nullptr); }},
            {"gss_release_buffer", [this] { return dll.gss_release_buffer(&minor, &buffer); }},
            {"gss_acquire_cred",
             [this] {
                 return dll.gss_acquire_cred(&minor, name, W::GSS_C_INDEFINITE, nullptr, W::GSS_C_ACCEPT, &cred,
                                             nullptr, nullptr);
             }},
            {"gss_release_name", [this] { return dll.gss_release_name(&minor, &name); }},
            {"gss_init_sec_context",
             [this] {
                 return dll.gss_init_sec_context(&minor, cred, &ctx, nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr,
                                                 &buffer, nullptr, nullptr);
             }},
            {"gss_accept_sec_context",
             [this] {
                 gss_buffer_desc in = {0, nullptr};
                 return dll.gss_accept_sec_context(&minor, &ctx, cred, &in, nullptr, nullptr, nullptr, &buffer, nullptr,
                                                   nullptr, nullptr);
             }},
            {"gss_delete_sec_context", [this] { return dll.gss_delete_sec_context(&minor, &ctx, nullptr); }},
            {"gss_release_cred", [this] { return dll.gss_release_cred(&minor, &cred); }},
            {"gss_display_status",
             [this] {
                 OM_uint32 context = 0;
                 return dll.gss_display_status(&minor, 0, W::GSS_C_GSS_CODE, nullptr, &context, &buffer);
             }},
        };
    }
    GSSAPIDllWrapper& dll;
    OM_uint32 minor = 0;
    gss_name_t name = nullptr;
    gss_buffer_desc buffer = {0, nullptr};
    gss_cred_id_t cred = nullptr;
    gss_ctx_id_t ctx = nullptr;
};

TEST_F(GssTest, EachCallReachesItsOwnEntryPointOnlyWhileBound) {
    WrapperPtr pDll = Wrapper(kFake);
    auto expectAllRefused = [&] {
        AllTen ten(*pDll);
        for (auto& [entry, call] : ten.calls()) {
            SCOPED_TRACE(entry);
            EXPECT_EQ(StatusOf(call), 100u);
        }
        EXPECT_EQ(StatusOf([&] { pDll->GetGSSAPIError(W::GSS_S_FAILURE, 0); }), 100u);
        EXPECT_EQ(m_fake.calls(nullptr), 0);
    };
    expectAllRefused();  // never bound

    ASSERT_TRUE(pDll->Initialize());
    ASSERT_TRUE(pDll->Initialize());
    EXPECT_EQ(m_capture.count("About to try to load DLL"), 1u);
    AllTen ten(*pDll);
    for (auto& [entry, call] : ten.calls()) {
        SCOPED_TRACE(entry);
        const long before = m_fake.calls(entry.c_str());
        const long total = m_fake.calls(nullptr);
        call();
        EXPECT_EQ(m_fake.calls(entry.c_str()), before + 1);
        EXPECT_EQ(m_fake.calls(nullptr), total + 1);
    }
    pDll->gss_release_buffer(&ten.minor, &ten.buffer);
    EXPECT_EQ(m_fake.outstanding(), 0);

    pDll->Uninitialize();
    ASSERT_FALSE(pDll->IsInitialized());
    m_fake.reset();
    expectAllRefused();  // bound, then let go
}

TEST(GssStatus, OnlyCallingAndRoutineErrorsAreErrors) {
    for (OM_uint32 nStatus : {W::GSS_S_COMPLETE, W::GSS_S_CONTINUE_NEEDED, kDuplicateToken | (1u << 4)}) {
        EXPECT_EQ(W::GSS_ERROR(nStatus), 0u) << nStatus;
    }
    for (OM_uint32 nStatus : {W::GSS_S_BAD_MECH, W::GSS_S_NO_CRED | kDuplicateToken, kCallBadStructure, 0xFF000000u}) {
        EXPECT_NE(W::GSS_ERROR(nStatus), 0u) << nStatus;
    }
}

TEST_F(GssTest, ErrorTextHasABracketPairForEachPieceReadOrNot) {
    WrapperPtr pDll = Bound();
    EXPECT_EQ(Narrow(pDll->GetGSSAPIError(W::GSS_S_NO_CRED, 5)),
              "GSSAPI ERROR: [GSS major 0x00070000 part 1/2] [GSS major 0x00070000 part 2/2] [MECH minor 5] ");
    EXPECT_EQ(m_fake.outstanding(), 0);
    m_fake.fail("gss_display_status", W::GSS_S_FAILURE, 0);
    EXPECT_EQ(Narrow(pDll->GetGSSAPIError(W::GSS_S_FAILURE, 7)), "GSSAPI ERROR: [GSS ] [MECH ] ");
}

TEST_F(GssTest, OnlyAThreadSafeLibraryIsEnteredSideBySide) {
    for (bool bThreadSafe : {false, true}) {
        SCOPED_TRACE(bThreadSafe ? "thread-safe" : "not thread-safe");
        m_fake.reset();
        WrapperPtr pDll = Bound(bThreadSafe);
        // The first call waits inside for a second one to come in: for long where one must.
        m_fake.setRendezvous(2, bThreadSafe ? 5000 : 300);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (ready.fetch_add(1); ready.load() < 4;) {
                    std::this_thread::yield();
                }
                OM_uint32 minor = 0;
                gss_name_t name = nullptr;
                gss_buffer_desc in = {4, const_cast<char*>("user")};
                pDll->gss_import_name(&minor, &in, nullptr, &name);
                pDll->gss_release_name(&minor, &name);
            });
        }
        for (std::thread& t : threads) {
            t.join();
        }
        EXPECT_EQ(m_fake.maxConcurrent() > 1, bThreadSafe) << m_fake.maxConcurrent();
        EXPECT_EQ(m_fake.outstanding(), 0);
    }
}

// ---- the acceptor's credentials ----

TEST_F(GssTest, CredentialsAreForTheSpnAsAUserNameWithTheUsageOfTheirType) {
    WrapperPtr pDll = Bound();
    const struct {
        int type;
        int usage;
    } rows[] = {{SSOCredentialsServer, W::GSS_C_ACCEPT},
                {SSOCredentialsClient, W::GSS_C_INITIATE},
                {SSOCredentialsBoth, W::GSS_C_BOTH}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        {
            CredsPtr pCreds(new GSSAPIServerCredentials(OSTREL_T("HTTP/web.example.com@EXAMPLE.COM"), row.type, pDll));
            const FakeGss::Last last = m_fake.last();
            EXPECT_EQ(last.import, "HTTP/web.example.com@EXAMPLE.COM");
            EXPECT_EQ(last.importedAsUser, 1);
            EXPECT_EQ(last.usage, row.usage);
            EXPECT_EQ(m_fake.outstanding(), 1);  // the name went back at once
        }
        EXPECT_EQ(m_fake.outstanding(), 0);
    }

    // What they cannot use is refused before any call.
    m_fake.reset();
    EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 3, pDll)); }), 100u);
    EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 0, Wrapper(kFake))); }), 100u);
    EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 0, nullptr)); }), 100u);
    EXPECT_EQ(m_fake.calls(nullptr), 0);
}

TEST_F(GssTest, AFailedAcquireOrImportIsTracedExactlyAndGivesEverythingBack) {
    WrapperPtr pDll = Bound();
    const struct {
        OM_uint32 major;
        const char* name;
    } rows[] = {
        {W::GSS_S_BAD_MECH, "GSS_S_BAD_MECH"},
        {W::GSS_S_BAD_NAMETYPE, "GSS_S_BAD_NAMETYPE"},
        {W::GSS_S_CREDENTIALS_EXPIRED, "GSS_S_CREDENTIALS_EXPIRED"},
        {W::GSS_S_NO_CRED, "GSS_S_NO_CRED"},
        {W::GSS_S_NO_CRED | kDuplicateToken, "UNKNOWN"},  // the status as a whole, not a part of it
        {W::GSS_S_FAILURE, "UNKNOWN"},
    };
    for (const auto& row : rows) {
        for (int leaveCred = 0; leaveCred <= 1; ++leaveCred) {
            SCOPED_TRACE(std::string(row.name) + (leaveCred ? ", with a credential left" : ""));
            m_capture.clear();
            m_fake.fail("gss_acquire_cred", row.major, leaveCred);
            EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 0, pDll)); }), 100u);
            EXPECT_TRUE(m_capture.hasLineEndingWith(std::string("-- gss_acquire_cred ") + row.name));
            EXPECT_EQ(m_fake.outstanding(), 0);
        }
    }

    // A name handed out by a failed import goes back too, and nothing is acquired.
    m_fake.reset();
    m_fake.fail("gss_import_name", W::GSS_S_BAD_NAMETYPE, 1);
    EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 0, pDll)); }), 100u);
    EXPECT_EQ(m_fake.calls("gss_acquire_cred"), 0);
    EXPECT_EQ(m_fake.outstanding(), 0);
}

// ---- the handler ----

constexpr int kThrown = -1;  // the pass threw status 100
const char* const kUntouched = "<untouched>";
const char* const kAbsent = "<absent>";

class GssHandlerTest : public GssTest {
protected:
    void SetUp() override {
        m_pDll = Wrapper(kFake);
        m_pHandler = new GSSAPIHandler();
        m_pHandler->SetDllForTesting(m_pDll);
    }

    static Parameters WithSpn(const ostrel_char* i_pSpn) {
        Parameters params;
        params.AddParameter(g_ssKeyServerSpn, i_pSpn);
        return params;
    }
    void Init() { m_pHandler->InitHandler(WithSpn(OSTREL_T("HTTP/web.example.com"))); }
    void Script(OM_uint32 i_nMajor, const std::string& i_token, const char* i_pClientName) {
        ASSERT_EQ(m_fake.scriptAccept(i_nMajor, i_token.data(), i_token.size(), i_pClientName), 1);
    }

    struct PassResult {
        int status = kThrown;
        std::string token;
        Parameters out;
    };
    // One server pass with fresh credentials, as the session manager runs it; no input is a null buffer.
    PassResult Accept(const SSOSessionPtr& i_pSession, const std::string& i_input, bool i_bGetLogonInfo = true,
                      SSOCredentialsPtr i_pCredentials = nullptr) {
        if (i_pCredentials == nullptr) {
            i_pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
        }
        char untouched = 0;
        void* pvToken = &untouched;
        size_t nToken = 99;
        PassResult result;
        try {
            result.status =
                m_pHandler->AcceptContext(i_pCredentials, i_pSession, i_input.empty() ? nullptr : i_input.data(),
                                          i_input.size(), &pvToken, &nToken, i_bGetLogonInfo, result.out);
        } catch (const SSOException& e) {
            EXPECT_EQ(e.GetCode(), 100u);
        }
        if (pvToken == &untouched) {
            // A closing call need not write them; the host starts them empty.
            result.token = result.status == kThrown ? kUntouched : "";
        } else if (pvToken != nullptr) {
            result.token.assign(static_cast<const char*>(pvToken), nToken);
            m_pHandler->FreeBuffer(pvToken);
        } else {
            EXPECT_EQ(nToken, 0u);
        }
        return result;
    }
    static std::string UserName(const Parameters& i_params) {
        SWCharString ssValue;
        return i_params.GetParameter(g_ssKeyGssapiUserName, ssValue) ? Narrow(ssValue) : kAbsent;
    }
    static void ExpectMechanismUnavailable(const std::function<void()>& i_fn) {
        try {
            i_fn();
            ADD_FAILURE() << "no exception";
        } catch (const SSOException& e) {
            EXPECT_EQ(e.GetCode(), 100u);
            EXPECT_EQ(e.GetMessageId(), 61777u);
            ASSERT_EQ(e.GetSubstStrings().GetSize(), 1);
            EXPECT_EQ(Narrow(e.GetSubstStrings()[0]), "Kerberos/GSSAPI");
        }
    }

    WrapperPtr m_pDll;
    CSmartRefCountPtr<GSSAPIHandler> m_pHandler;
};

TEST_F(GssHandlerTest, InitHandlerBindsOnceThenTakesEachSpnWithCachingOff) {
    Parameters required;
    m_pHandler->GetRequiredParameters(required);
    bool bRequired = false;
    EXPECT_EQ(required.GetCount(), 1u);
    EXPECT_TRUE(required.GetParameter(g_ssKeyServerSpn, bRequired) && bRequired);
    EXPECT_FALSE(m_pDll->IsInitialized());

    // Without a SPN: refused, though only after binding.
    ExpectMechanismUnavailable([&] { m_pHandler->InitHandler(Parameters()); });
    EXPECT_TRUE(m_pDll->IsInitialized());
    EXPECT_TRUE(m_pHandler->IsCachingOn());

    Parameters params = WithSpn(OSTREL_T("HTTP/one.example.com"));
    params.AddParameter(g_ssKeyCacheSecContext, true);
    params.AddParameter(g_ssKeyCacheExpiry, int64_t{600});
    params.AddParameter(g_ssKeyRenewalsAllowed, true);
    m_pHandler->InitHandler(params);
    EXPECT_FALSE(m_pHandler->IsCachingOn());
    EXPECT_EQ(m_pHandler->GetCacheExpiry().GetMilliseconds(), 0);
    EXPECT_FALSE(m_pHandler->GetRenewalsAllowed());

    m_pHandler->InitHandler(WithSpn(OSTREL_T("HTTP/two.example.com")));
    EXPECT_EQ(m_capture.count("About to try to load DLL"), 1u);
    SSOCredentialsPtr pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
    EXPECT_EQ(m_fake.last().import, "HTTP/two.example.com");
}

TEST_F(GssHandlerTest, OnALibraryThatCannotBeBoundNothingIsMade) {
    m_pHandler->SetDllForTesting(Wrapper(kNine));
    ExpectMechanismUnavailable([&] { m_pHandler->InitHandler(WithSpn(OSTREL_T("HTTP/x"))); });
    EXPECT_EQ(StatusOf([&] { m_pHandler->CreateSession(nullptr); }), 100u);
    EXPECT_EQ(StatusOf([&] { m_pHandler->CreateServerCredentials(SSOCredentialsServer); }), 100u);
}

TEST_F(GssHandlerTest, EachWayThroughAPass) {
    // clang-format off
    struct Step { OM_uint32 major; const char* token; const char* name; };
    // user: the name given out; kept: the name in the session.
    struct Pass { const char* input; bool logon; int status; const char* token; const char* user; const char* kept; };
    struct Way { const char* what; std::vector<Step> script; std::vector<Pass> passes; long accepts; long displays; };
    const OM_uint32 kDone = W::GSS_S_COMPLETE;
    const OM_uint32 kMore = W::GSS_S_CONTINUE_NEEDED;
    const char* const A = "alice@EXAMPLE.COM";
    const char* const N = kAbsent;
    const Way ways[] = {
        {"complete at once", {{kDone, "", A}}, {{"t", true, 2, "", A, N}}, 1, 1},
        // The reply still has to reach the client: the name waits in the session for the closing call.
        {"with a reply", {{kDone, "reply", A}}, {{"t", true, 1, "reply", N, A}, {"", true, 2, "", A, A}}, 1, 1},
        {"without logon info", {{kDone, "reply", A}}, {{"t", false, 1, "reply", N, N}, {"", false, 2, "", N, N}}, 1, 1},
        // The second call continues the first one's context: the stand-in refuses any other.
        {"continue needed", {{kMore, "challenge", nullptr}, {kDone, "", A}},
         {{"t1", true, 1, "challenge", N, N}, {"t2", true, 2, "", A, N}}, 2, 1},
        // The client never answered: a closing call cannot finish an unauthenticated login.
        {"closing too early", {{kMore, "challenge", nullptr}},
         {{"t", true, 1, "challenge", N, N}, {"", true, kThrown, kUntouched, N, N}}, 1, 0},
        {"first pass without input", {{kMore, "challenge", nullptr}}, {{"", true, 1, "challenge", N, N}}, 1, 0},
        {"empty client name", {{kDone, "", ""}}, {{"t", true, 2, "", "", N}}, 1, 1},
        {"no client name", {{kDone, "", nullptr}}, {{"t", true, 2, "", "", N}}, 1, 0},
        // A failed context's name goes back unread; its error token goes back, not on.
        {"failure", {{W::GSS_S_DEFECTIVE_TOKEN, "error", A}}, {{"t", true, kThrown, "", N, N}}, 1, 0},
        // Not an error, so the reply is out; yet only a status exactly complete finishes.
        {"supplementary bit", {{kDone | kDuplicateToken, "reply", A}}, {{"t", true, kThrown, "reply", N, N}}, 1, 1},
    };
    // clang-format on
    Init();
    for (const Way& way : ways) {
        SCOPED_TRACE(way.what);
        m_fake.reset();
        m_capture.clear();
        for (const Step& step : way.script) {
            Script(step.major, step.token, step.name);
        }
        SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
        for (const Pass& pass : way.passes) {
            SCOPED_TRACE(pass.input);
            const PassResult result = Accept(pSession, pass.input, pass.logon);
            EXPECT_EQ(result.status, pass.status);
            EXPECT_EQ(result.token, pass.token);
            EXPECT_EQ(UserName(result.out), pass.user);
            EXPECT_EQ(UserName(pSession->GetParameters()), pass.kept);
        }
        EXPECT_EQ(m_fake.calls("gss_accept_sec_context"), way.accepts);
        EXPECT_EQ(m_fake.calls("gss_display_name"), way.displays);
        pSession = nullptr;  // and its context with it
        EXPECT_EQ(m_fake.outstanding(), 0);
        EXPECT_FALSE(m_capture.has("ASSERT("));
    }
}

TEST_F(GssHandlerTest, AnythingThrownInTheLibraryIsStatus100AndLeavesOutputsAndGateAsTheyWere) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    m_fake.setHook([](const char* i_pEntry) {
        if (std::strcmp(i_pEntry, "gss_accept_sec_context") == 0) {
            throw 7;
        }
    });
    const PassResult thrown = Accept(pSession, "token");
    EXPECT_EQ(thrown.status, kThrown);
    EXPECT_EQ(thrown.token, kUntouched);
    EXPECT_TRUE(m_capture.has("Exception caught calling into GSSAPI DLL!"));

    // The next pass, from another thread, goes through.
    m_fake.setHook(nullptr);
    Script(W::GSS_S_COMPLETE, "", "alice@EXAMPLE.COM");
    int status = kThrown;
    std::thread([&] { status = Accept(pSession, "token").status; }).join();
    EXPECT_EQ(status, SSEC_STATUS_COMPLETE_NO_OUTPUT);
}

TEST_F(GssHandlerTest, ForeignObjectsTheClientSideAndImpersonationAreRefused) {
    Init();
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
    try {
        pSession->GetStaticToken()->Impersonate();
        ADD_FAILURE() << "impersonated";
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetMessageId(), 61776u);
    }
}

}  // namespace
