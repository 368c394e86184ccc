// The provider "GSSAPI" against a scripted stand-in library: the binding and
// the gate of every call in both locking modes, status texts, the acceptor's
// credentials, the handler's passes, and whole logins through SSOImpl.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <stdexcept>
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
#include "authentication/ostrel/SSOImpl.h"
#include "foundation/SharedLibrary.h"
#include "support/TraceCapture.h"

using namespace ostrel;

namespace {

// Mirrors fake_gss_record in the stand-in; its size is checked on load.
struct FakeRecord {
    long names;
    long buffers;
    long creds;
    long contexts;
    size_t import_length;
    char import_text[256];
    int import_type_is_user_name;
    int acquire_usage;
    OM_uint32 acquire_time_req;
    int acquire_default_mechs;
    int accept_input_present;
    size_t accept_input_length;
    int accept_context_was_new;
    int accept_cred_valid;
};

// The stand-in's controls, reached through a handle of our own on the same file:
// the loader gives back the one the code under test holds.
class FakeGss {
public:
    explicit FakeGss(const char* i_pPath) {
        m_lib.LoadLibraryW(ToWCharString(i_pPath), CSharedLibrary::LM_NOW_LOCAL, true);
        Bind(reset, "fake_gss_reset");
        Bind(scriptAccept, "fake_gss_script_accept");
        Bind(failAcquire, "fake_gss_fail_acquire");
        Bind(failImport, "fake_gss_fail_import");
        Bind(failDisplayStatus, "fake_gss_fail_display_status");
        Bind(setStatusPieces, "fake_gss_set_status_pieces");
        Bind(setCallDelayUs, "fake_gss_set_call_delay_us");
        Bind(setRendezvous, "fake_gss_set_rendezvous");
        Bind(maxConcurrent, "fake_gss_max_concurrent");
        Bind(setHook, "fake_gss_set_hook");
        Bind(calls, "fake_gss_calls");
        Bind(m_recordSize, "fake_gss_record_size");
        Bind(m_recordGet, "fake_gss_record_get");
        if (m_recordSize() != sizeof(FakeRecord)) {
            throw std::runtime_error("the stand-in's record differs from the test's copy");
        }
        reset();
    }
    FakeRecord record() const {
        FakeRecord r{};
        m_recordGet(&r);
        return r;
    }

    void (*reset)() = nullptr;
    int (*scriptAccept)(OM_uint32, OM_uint32, const void*, size_t, const char*) = nullptr;
    void (*failAcquire)(OM_uint32, OM_uint32, int) = nullptr;
    void (*failImport)(OM_uint32, int) = nullptr;
    void (*failDisplayStatus)(int) = nullptr;
    void (*setStatusPieces)(unsigned) = nullptr;
    void (*setCallDelayUs)(int) = nullptr;
    void (*setRendezvous)(int, int) = nullptr;
    int (*maxConcurrent)() = nullptr;
    void (*setHook)(void (*)(const char*)) = nullptr;
    long (*calls)(const char*) = nullptr;

private:
    template <class Fn>
    void Bind(Fn& o_fn, const char* i_pName) {
        o_fn = reinterpret_cast<Fn>(m_lib.GetFunction(i_pName, true));
    }
    CSharedLibrary m_lib;
    size_t (*m_recordSize)() = nullptr;
    void (*m_recordGet)(FakeRecord*) = nullptr;
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

const char* const kFake = OSTREL_FAKE_GSSAPI_PATH;
const char* const kNine = OSTREL_FAKE_GSSAPI_NINE_PATH;
constexpr OM_uint32 kDuplicateToken = 1u << 1;  // a supplementary bit
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
    // Nothing handed out by the library is still outstanding.
    void ExpectNothingOutstanding() {
        const FakeRecord r = m_fake.record();
        EXPECT_EQ(r.names, 0);
        EXPECT_EQ(r.buffers, 0);
        EXPECT_EQ(r.creds, 0);
        EXPECT_EQ(r.contexts, 0);
    }

    FakeGss m_fake{kFake};
    ostrel_test::TraceCapture m_capture;
};

// ---- binding ----

TEST_F(GssTest, ALibraryThatCannotBeLoadedIsTriedAgainLater) {
    // Beside the stand-in, where loading code is allowed; a temporary directory may forbid it.
    const std::filesystem::path later = std::filesystem::path(kFake).parent_path() /
                                        ("ostrel_gss_later_" + std::to_string(std::random_device{}()) + ".so");
    std::filesystem::remove(later);
    {
        WrapperPtr pDll = Wrapper(later.string());
        EXPECT_FALSE(pDll->Initialize());
        EXPECT_FALSE(pDll->IsInitialized());
        EXPECT_TRUE(m_capture.has("GSSAPIDllWrapper::Initialize() -- About to try to load DLL '" + later.string() + "'"));
        EXPECT_TRUE(m_capture.has("GSSAPIDllWrapper::Initialize() -- Unable to load dll " + later.string() + ": "));
        EXPECT_EQ(StatusOf([&] { pDll->GetGSSAPIError(1, 1); }), 100u);

        // Once the file is there, the same object binds it.
        std::filesystem::copy_file(kFake, later);
        EXPECT_TRUE(pDll->Initialize());
        EXPECT_TRUE(pDll->IsInitialized());
        EXPECT_EQ(m_capture.count("About to try to load DLL"), 2u);
    }
    std::filesystem::remove(later);
}

TEST_F(GssTest, ALibraryWithNineOfTheTenIsLeftUnboundAndUnloaded) {
    WrapperPtr pDll = Wrapper(kNine);
    EXPECT_FALSE(pDll->Initialize());
    EXPECT_FALSE(pDll->IsInitialized());
    EXPECT_TRUE(m_capture.has(std::string("GSSAPIDllWrapper::Initialize() -- Expected symbols not found in DLL ") + kNine +
                              ": "));
    EXPECT_TRUE(m_capture.has("gss_release_buffer"));
    EXPECT_FALSE(IsLoaded(kNine));
    EXPECT_EQ(StatusOf([&] {
                  OM_uint32 minor = 0;
                  gss_name_t name = nullptr;
                  pDll->gss_release_name(&minor, &name);
              }),
              100u);

    // Tried anew, and again let go.
    EXPECT_FALSE(pDll->Initialize());
    EXPECT_EQ(m_capture.count("Expected symbols not found in DLL"), 2u);
    EXPECT_FALSE(IsLoaded(kNine));

    // The probe itself sees the file when something holds it.
    CSharedLibrary holder;
    holder.LoadLibraryW(ToWCharString(kNine), CSharedLibrary::LM_NOW_LOCAL, true);
    EXPECT_TRUE(IsLoaded(kNine));
}

TEST_F(GssTest, InitializeOnABoundWrapperLoadsNothing) {
    WrapperPtr pDll = Wrapper(kFake);
    EXPECT_TRUE(pDll->Initialize());
    EXPECT_TRUE(pDll->Initialize());
    EXPECT_EQ(m_capture.count("About to try to load DLL"), 1u);
    EXPECT_TRUE(m_capture.has("Assuming DLL is NOT thread-safe, applying locks to all calls."));
    EXPECT_FALSE(m_capture.has("Treating DLL as thread-safe."));

    WrapperPtr pSafe = Wrapper(kFake, true);
    EXPECT_TRUE(pSafe->Initialize());
    EXPECT_TRUE(m_capture.has("Treating DLL as thread-safe."));
}

// Each of the ten calls, with arguments the stand-in accepts.
struct AllTen {
    explicit AllTen(GSSAPIDllWrapper& i_dll) : dll(i_dll) {}
    std::vector<std::pair<std::string, std::function<OM_uint32()>>> calls() {
        return {
            {"gss_import_name",
             [this] {
                 gss_buffer_desc in = {4, const_cast<char*>("user")};
                 return dll.gss_import_name(&minor, &in, GSSAPIDllWrapper::GSS_C_NT_USER_NAME, &name);
             }},
            {"gss_display_name", [this] { return dll.gss_display_name(&minor, name, &buffer, nullptr); }},
            {"gss_release_buffer", [this] { return dll.gss_release_buffer(&minor, &buffer); }},
            {"gss_acquire_cred",
             [this] {
                 return dll.gss_acquire_cred(&minor, name, GSSAPIDllWrapper::GSS_C_INDEFINITE, nullptr,
                                             GSSAPIDllWrapper::GSS_C_ACCEPT, &cred, nullptr, nullptr);
             }},
            {"gss_release_name", [this] { return dll.gss_release_name(&minor, &name); }},
            {"gss_init_sec_context",
             [this] {
                 return dll.gss_init_sec_context(&minor, cred, &ctx, nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr,
                                                 &buffer, nullptr, nullptr);
             }},
            {"gss_delete_sec_context", [this] { return dll.gss_delete_sec_context(&minor, &ctx, nullptr); }},
            {"gss_accept_sec_context",
             [this] {
                 gss_buffer_desc in = {0, nullptr};
                 return dll.gss_accept_sec_context(&minor, &ctx, cred, &in, nullptr, nullptr, nullptr, &buffer,
                                                   nullptr, nullptr, nullptr);
             }},
            {"gss_display_status",
             [this] {
                 OM_uint32 context = 0;
                 return dll.gss_display_status(&minor, 0, GSSAPIDllWrapper::GSS_C_GSS_CODE, nullptr, &context,
                                               &buffer);
             }},
            {"gss_release_cred", [this] { return dll.gss_release_cred(&minor, &cred); }},
        };
    }
    GSSAPIDllWrapper& dll;
    OM_uint32 minor = 0;
    gss_name_t name = nullptr;
    gss_buffer_desc buffer = {0, nullptr};
    gss_cred_id_t cred = nullptr;
    gss_ctx_id_t ctx = nullptr;
};

TEST_F(GssTest, EachCallReachesItsOwnEntryPoint) {
    WrapperPtr pDll = Bound();
    AllTen ten(*pDll);
    for (auto& [entry, call] : ten.calls()) {
        SCOPED_TRACE(entry);
        const long before = m_fake.calls(entry.c_str());
        const long total = m_fake.calls(nullptr);
        call();
        EXPECT_EQ(m_fake.calls(entry.c_str()), before + 1);
        EXPECT_EQ(m_fake.calls(nullptr), total + 1);
    }
    // The accept call above was unscripted and failed; its context and the message buffer remain.
    OM_uint32 minor = 0;
    pDll->gss_release_buffer(&minor, &ten.buffer);
    pDll->gss_delete_sec_context(&minor, &ten.ctx, nullptr);
    ExpectNothingOutstanding();
}

TEST_F(GssTest, CallsOnAnUnboundWrapperThrowAndCallNothing) {
    WrapperPtr pDll = Wrapper(kFake);
    auto expectAllRefused = [&] {
        AllTen ten(*pDll);
        for (auto& [entry, call] : ten.calls()) {
            SCOPED_TRACE(entry);
            EXPECT_EQ(StatusOf([&] { call(); }), 100u);
        }
        EXPECT_EQ(StatusOf([&] { pDll->GetGSSAPIError(GSSAPIDllWrapper::GSS_S_FAILURE, 0); }), 100u);
        EXPECT_EQ(m_fake.calls(nullptr), 0);
    };
    expectAllRefused();  // never bound
    ASSERT_TRUE(pDll->Initialize());
    pDll->Uninitialize();
    EXPECT_FALSE(pDll->IsInitialized());
    expectAllRefused();  // bound, then let go
}

TEST_F(GssTest, AnExceptionOutOfTheLibraryBecomesStatus100) {
    WrapperPtr pDll = Bound();
    m_fake.setHook([](const char* i_pEntry) {
        if (std::strcmp(i_pEntry, "gss_import_name") == 0) {
            throw std::runtime_error("thrown inside the library");
        }
    });
    OM_uint32 minor = 0;
    gss_name_t name = nullptr;
    gss_buffer_desc in = {4, const_cast<char*>("user")};
    EXPECT_EQ(StatusOf([&] { pDll->gss_import_name(&minor, &in, nullptr, &name); }), 100u);
    EXPECT_TRUE(m_capture.has("ASSERT(0) Exception caught calling into GSSAPI DLL!"));
    m_fake.setHook(nullptr);

    // The gate was left open: the next call, from another thread too, goes through.
    OM_uint32 result = 1;
    std::thread([&] { result = pDll->gss_import_name(&minor, &in, nullptr, &name); }).join();
    EXPECT_EQ(result, GSSAPIDllWrapper::GSS_S_COMPLETE);
    EXPECT_EQ(pDll->gss_release_name(&minor, &name), GSSAPIDllWrapper::GSS_S_COMPLETE);
    ExpectNothingOutstanding();
}

TEST(GssStatus, OnlyCallingAndRoutineErrorsAreErrors) {
    EXPECT_EQ(GSSAPIDllWrapper::GSS_ERROR(GSSAPIDllWrapper::GSS_S_COMPLETE), 0u);
    EXPECT_EQ(GSSAPIDllWrapper::GSS_ERROR(GSSAPIDllWrapper::GSS_S_CONTINUE_NEEDED), 0u);
    EXPECT_EQ(GSSAPIDllWrapper::GSS_ERROR(kDuplicateToken | (1u << 4)), 0u);
    EXPECT_NE(GSSAPIDllWrapper::GSS_ERROR(GSSAPIDllWrapper::GSS_S_BAD_MECH), 0u);
    EXPECT_NE(GSSAPIDllWrapper::GSS_ERROR(GSSAPIDllWrapper::GSS_S_NO_CRED | kDuplicateToken), 0u);
    EXPECT_NE(GSSAPIDllWrapper::GSS_ERROR(kCallBadStructure), 0u);
    EXPECT_NE(GSSAPIDllWrapper::GSS_ERROR(0xFF000000u), 0u);
}

TEST_F(GssTest, ErrorTextHasABracketPairForEachPiece) {
    WrapperPtr pDll = Bound();
    m_fake.setStatusPieces(2);
    EXPECT_EQ(Narrow(pDll->GetGSSAPIError(GSSAPIDllWrapper::GSS_S_NO_CRED, 5)),
              "GSSAPI ERROR: [GSS major 0x00070000 part 1/2] [GSS major 0x00070000 part 2/2] [MECH minor 5] ");
    EXPECT_EQ(m_fake.calls("gss_display_status"), 3);
    EXPECT_EQ(m_fake.calls("gss_release_buffer"), 3);
    EXPECT_FALSE(m_capture.has("could not read error message."));
    ExpectNothingOutstanding();
}

TEST_F(GssTest, ErrorTextKeepsTheBracketsOfAnUnreadableStatus) {
    WrapperPtr pDll = Bound();
    m_fake.setStatusPieces(3);
    m_fake.failDisplayStatus(1);
    EXPECT_EQ(Narrow(pDll->GetGSSAPIError(GSSAPIDllWrapper::GSS_S_FAILURE, 7)), "GSSAPI ERROR: [GSS ] [MECH minor 7] ");
    EXPECT_EQ(m_capture.count("GSSAPIDllWrapper::GetGSSAPIError() -- could not read error message."), 1u);
    m_fake.failDisplayStatus(3);
    EXPECT_EQ(Narrow(pDll->GetGSSAPIError(GSSAPIDllWrapper::GSS_S_FAILURE, 7)), "GSSAPI ERROR: [GSS ] [MECH ] ");
    EXPECT_EQ(m_capture.count("could not read error message."), 3u);
    ExpectNothingOutstanding();
}

// ---- the two locking modes ----

// Several threads, each naming and releasing names through one wrapper.
void Hammer(GSSAPIDllWrapper& i_dll, int i_nThreads, int i_nRounds) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < i_nThreads; ++t) {
        threads.emplace_back([&] {
            ready.fetch_add(1);
            while (ready.load() < i_nThreads) {
                std::this_thread::yield();
            }
            for (int i = 0; i < i_nRounds; ++i) {
                OM_uint32 minor = 0;
                gss_name_t name = nullptr;
                gss_buffer_desc in = {4, const_cast<char*>("user")};
                i_dll.gss_import_name(&minor, &in, nullptr, &name);
                i_dll.gss_release_name(&minor, &name);
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
}

TEST_F(GssTest, ANotThreadSafeLibraryIsEnteredByOneThreadAtATime) {
    WrapperPtr pDll = Bound(false);
    m_fake.setCallDelayUs(300);
    Hammer(*pDll, 4, 10);
    EXPECT_EQ(m_fake.calls("gss_import_name"), 40);
    EXPECT_EQ(m_fake.maxConcurrent(), 1);
    ExpectNothingOutstanding();
}

TEST_F(GssTest, AThreadSafeLibraryIsEnteredSideBySide) {
    WrapperPtr pDll = Bound(true);
    // The first call waits inside, up to 5 s, for a second one to come in.
    m_fake.setRendezvous(2, 5000);
    Hammer(*pDll, 4, 2);
    EXPECT_GE(m_fake.maxConcurrent(), 2);
    ExpectNothingOutstanding();
}

// ---- the acceptor's credentials ----

using CredsPtr = CSmartRefCountPtr<GSSAPIServerCredentials>;

TEST_F(GssTest, CredentialsAreAcquiredForTheSpnAsAUserName) {
    WrapperPtr pDll = Bound();
    const struct {
        int type;
        int usage;
    } rows[] = {{SSOCredentialsServer, GSSAPIDllWrapper::GSS_C_ACCEPT},
                {SSOCredentialsClient, GSSAPIDllWrapper::GSS_C_INITIATE},
                {SSOCredentialsBoth, GSSAPIDllWrapper::GSS_C_BOTH}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        m_fake.reset();
        {
            CredsPtr pCreds(new GSSAPIServerCredentials(OSTREL_T("HTTP/web.example.com@EXAMPLE.COM"), row.type, pDll));
            EXPECT_NE(pCreds->m_CredHandle, nullptr);
            const FakeRecord r = m_fake.record();
            EXPECT_EQ(std::string(r.import_text), "HTTP/web.example.com@EXAMPLE.COM");
            EXPECT_EQ(r.import_length, std::strlen("HTTP/web.example.com@EXAMPLE.COM"));
            EXPECT_TRUE(r.import_type_is_user_name);
            EXPECT_EQ(r.acquire_usage, row.usage);
            EXPECT_EQ(r.acquire_time_req, GSSAPIDllWrapper::GSS_C_INDEFINITE);
            EXPECT_TRUE(r.acquire_default_mechs);
            EXPECT_EQ(r.names, 0);  // the imported name went back at once
            EXPECT_EQ(r.creds, 1);
        }
        EXPECT_EQ(m_fake.calls("gss_release_cred"), 1);
        ExpectNothingOutstanding();
    }

    // An empty name isn't questioned here: it goes to the library with length 0.
    CredsPtr pEmpty(new GSSAPIServerCredentials(SWCharString(), SSOCredentialsServer, pDll));
    EXPECT_EQ(m_fake.record().import_length, 0u);
}

TEST_F(GssTest, CredentialsRefuseWhatTheyCannotUseBeforeAnyCall) {
    WrapperPtr pDll = Bound();
    EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 3, pDll)); }), 100u);
    EXPECT_TRUE(m_capture.has("Unexpected credential type requested!"));

    EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 0, Wrapper(kFake))); }), 100u);
    EXPECT_TRUE(m_capture.has("ASSERT(i_pGssDll->IsInitialized())"));
    EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 0, nullptr)); }), 100u);
    EXPECT_TRUE(m_capture.has("ASSERT(i_pGssDll)"));
    EXPECT_EQ(m_fake.calls(nullptr), 0);
}

TEST_F(GssTest, AFailedAcquireTracesItsStatusAndGivesEverythingBack) {
    WrapperPtr pDll = Bound();
    const struct {
        OM_uint32 major;
        const char* name;
    } rows[] = {
        {GSSAPIDllWrapper::GSS_S_BAD_MECH, "GSS_S_BAD_MECH"},
        {GSSAPIDllWrapper::GSS_S_BAD_NAMETYPE, "GSS_S_BAD_NAMETYPE"},
        {GSSAPIDllWrapper::GSS_S_CREDENTIALS_EXPIRED, "GSS_S_CREDENTIALS_EXPIRED"},
        {GSSAPIDllWrapper::GSS_S_NO_CRED, "GSS_S_NO_CRED"},
        // The comparison is exact: a supplementary bit beside a known error is unknown.
        {GSSAPIDllWrapper::GSS_S_NO_CRED | kDuplicateToken, "UNKNOWN"},
        {GSSAPIDllWrapper::GSS_S_FAILURE, "UNKNOWN"},
    };
    for (const auto& row : rows) {
        for (int leaveCred = 0; leaveCred <= 1; ++leaveCred) {
            SCOPED_TRACE(std::string(row.name) + (leaveCred ? ", with a credential left" : ""));
            m_fake.reset();
            m_capture.clear();
            m_fake.failAcquire(row.major, 42, leaveCred);
            EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 0, pDll)); }), 100u);
            EXPECT_TRUE(m_capture.hasLineEndingWith(
                "ssoplugin: GSSAPIServerCredentials::GSSAPIServerCredentials() -- gss_acquire_cred failed."));
            EXPECT_TRUE(m_capture.has("ssoplugin: GSSAPIServerCredentials::GSSAPIServerCredentials() -- GSSAPI ERROR: [GSS "));
            EXPECT_TRUE(m_capture.has("[MECH minor 42] "));
            EXPECT_TRUE(m_capture.hasLineEndingWith(
                std::string("ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- gss_acquire_cred ") +
                row.name));
            EXPECT_EQ(m_capture.count("GSSAPIClientCredentials() -- gss_acquire_cred "), 1u);
            EXPECT_EQ(m_fake.calls("gss_release_name"), 1);
            EXPECT_EQ(m_fake.calls("gss_release_cred"), leaveCred);
            ExpectNothingOutstanding();
        }
    }
}

TEST_F(GssTest, AFailedImportStopsBeforeAcquiring) {
    WrapperPtr pDll = Bound();
    m_fake.failImport(GSSAPIDllWrapper::GSS_S_BAD_NAMETYPE, 1);
    EXPECT_EQ(StatusOf([&] { CredsPtr p(new GSSAPIServerCredentials(OSTREL_T("HTTP/x"), 0, pDll)); }), 100u);
    EXPECT_TRUE(m_capture.has(
        "ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- Failed to import name: GSSAPI ERROR: [GSS "
        "major 0x00030000"));
    EXPECT_EQ(m_fake.calls("gss_acquire_cred"), 0);
    EXPECT_EQ(m_fake.calls("gss_release_name"), 1);
    ExpectNothingOutstanding();
}

TEST_F(GssTest, ClientCredentialsCanNeverBeMade) {
    WrapperPtr pDll = Bound();
    for (int type : {SSOCredentialsServer, SSOCredentialsClient, SSOCredentialsBoth}) {
        EXPECT_EQ(StatusOf([&] {
                      CSmartRefCountPtr<GSSAPIClientCredentials> p(
                          new GSSAPIClientCredentials(OSTREL_T("alice"), OSTREL_T("secret"), type, pDll));
                  }),
                  100u);
    }
    EXPECT_EQ(StatusOf([&] {
                  CSmartRefCountPtr<GSSAPIClientCredentials> p(
                      new GSSAPIClientCredentials(SWCharString(), SWCharString(), 0, nullptr));
              }),
              100u);
    EXPECT_EQ(m_capture.count("GSSAPI C++ client not supported."), 4u);
    EXPECT_EQ(m_fake.calls(nullptr), 0);
}


// ---- the handler ----

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
        ASSERT_EQ(m_fake.scriptAccept(i_nMajor, 0, i_token.data(), i_token.size(), i_pClientName), 1);
    }

    struct PassResult {
        int status = -1;
        std::string token;
        Parameters out;
    };
    // One server pass with fresh credentials, as the session manager runs it; no input is a null buffer.
    PassResult Accept(const SSOSessionPtr& i_pSession, const std::string& i_input, bool i_bGetLogonInfo = true) {
        SSOCredentialsPtr pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
        void* pvToken = nullptr;
        size_t nToken = 0;
        PassResult result;
        result.status = m_pHandler->AcceptContext(pCredentials, i_pSession, i_input.empty() ? nullptr : i_input.data(),
                                                  i_input.size(), &pvToken, &nToken, i_bGetLogonInfo, result.out);
        if (pvToken != nullptr) {
            result.token.assign(static_cast<const char*>(pvToken), nToken);
            m_pHandler->FreeBuffer(pvToken);
        }
        return result;
    }
    static std::string UserName(const Parameters& i_params) {
        SWCharString ssValue;
        return i_params.GetParameter(g_ssKeyGssapiUserName, ssValue) ? Narrow(ssValue) : "<absent>";
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

TEST_F(GssHandlerTest, InitHandlerWithoutSpnIsRefusedAndChangesNothing) {
    ExpectMechanismUnavailable([&] { m_pHandler->InitHandler(Parameters()); });
    EXPECT_TRUE(m_capture.has("ssoplugin: GSSAPIHandler::InitHandler() -- Missing SPN."));
    EXPECT_TRUE(m_pDll->IsInitialized());  // the library stays bound
    EXPECT_TRUE(m_pHandler->IsCachingOn());
    EXPECT_TRUE(m_pHandler->GetRenewalsAllowed());

    Init();
    ExpectMechanismUnavailable([&] { m_pHandler->InitHandler(Parameters()); });
    EXPECT_EQ(Narrow(m_pHandler->GetSPN()), "HTTP/web.example.com");
}

TEST_F(GssHandlerTest, ALibraryThatCannotBeBoundIsRefused) {
    for (const char* pPath : {"/nonexistent/ostrel_no_such_gssapi.so", kNine}) {
        SCOPED_TRACE(pPath);
        m_capture.clear();
        CSmartRefCountPtr<GSSAPIHandler> pHandler(new GSSAPIHandler());
        pHandler->SetDllForTesting(Wrapper(pPath));
        ExpectMechanismUnavailable([&] { pHandler->InitHandler(WithSpn(OSTREL_T("HTTP/x"))); });
        EXPECT_TRUE(m_capture.has("ssoplugin: GSSAPIHandler::InitHandler() -- Failed to initialize GSSAPI dll."));
        EXPECT_TRUE(pHandler->GetSPN().isEmpty());
        EXPECT_TRUE(pHandler->IsCachingOn());
        // Nothing can be made on an unbound library.
        EXPECT_EQ(StatusOf([&] { pHandler->CreateSession(nullptr); }), 100u);
        EXPECT_TRUE(m_capture.has("ssoplugin: GSSAPIHandler::CreateSession() -- Creation failed."));
        EXPECT_EQ(StatusOf([&] { pHandler->CreateServerCredentials(SSOCredentialsServer); }), 100u);
        EXPECT_TRUE(m_capture.has("GSSAPIHandler::CreateServerCredentials() -- Creation failed."));
    }
}

TEST_F(GssHandlerTest, InitHandlerTwiceKeepsTheLibraryAndTakesTheNewSpn) {
    m_pHandler->InitHandler(WithSpn(OSTREL_T("HTTP/one.example.com")));
    m_pHandler->InitHandler(WithSpn(OSTREL_T("HTTP/two.example.com")));
    EXPECT_EQ(Narrow(m_pHandler->GetSPN()), "HTTP/two.example.com");
    EXPECT_EQ(m_capture.count("About to try to load DLL"), 1u);
    // Credentials come from the library bound first, for the new name.
    SSOCredentialsPtr pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
    EXPECT_EQ(std::string(m_fake.record().import_text), "HTTP/two.example.com");
    EXPECT_EQ(m_fake.calls("gss_acquire_cred"), 1);
}

TEST_F(GssHandlerTest, CachingRenewalAndExpiryAreOffWhateverTheHostAsks) {
    EXPECT_TRUE(m_pHandler->IsCachingOn());
    EXPECT_TRUE(m_pHandler->GetRenewalsAllowed());
    Parameters params = WithSpn(OSTREL_T("HTTP/web.example.com"));
    params.AddParameter(g_ssKeyCacheSecContext, true);
    params.AddParameter(g_ssKeyCacheExpiry, int64_t{600});
    params.AddParameter(g_ssKeyRenewalsAllowed, true);
    m_pHandler->InitHandler(params);
    EXPECT_FALSE(m_pHandler->IsCachingOn());
    EXPECT_EQ(m_pHandler->GetCacheExpiry().GetMilliseconds(), 0);
    EXPECT_FALSE(m_pHandler->GetRenewalsAllowed());
}

TEST_F(GssHandlerTest, TheSpnIsTheOnlyRequiredParameter) {
    Parameters required;
    m_pHandler->GetRequiredParameters(required);
    EXPECT_EQ(required.GetCount(), 1u);
    bool bRequired = false;
    EXPECT_TRUE(required.GetParameter(g_ssKeyServerSpn, bRequired));
    EXPECT_TRUE(bRequired);
    // Making and asking the handler binds nothing yet.
    EXPECT_FALSE(m_pDll->IsInitialized());
    EXPECT_EQ(m_fake.calls(nullptr), 0);
}

TEST_F(GssHandlerTest, AContextCompleteOnTheFirstPassGivesTheNameAtOnce) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    EXPECT_EQ(pSession->GetProvider(), SWCharString(OSTREL_T("GSSAPI")));
    Script(GSSAPIDllWrapper::GSS_S_COMPLETE, "", "alice@EXAMPLE.COM");
    const PassResult pass = Accept(pSession, "client-token");
    EXPECT_EQ(pass.status, SSEC_STATUS_COMPLETE_NO_OUTPUT);
    EXPECT_TRUE(pass.token.empty());
    EXPECT_EQ(UserName(pass.out), "alice@EXAMPLE.COM");
    EXPECT_EQ(UserName(pSession->GetParameters()), "<absent>");

    const FakeRecord r = m_fake.record();
    EXPECT_TRUE(r.accept_input_present);
    EXPECT_EQ(r.accept_input_length, std::strlen("client-token"));
    EXPECT_TRUE(r.accept_context_was_new);
    EXPECT_TRUE(r.accept_cred_valid);
    EXPECT_EQ(r.names, 0);
    EXPECT_EQ(r.buffers, 0);
    EXPECT_EQ(r.contexts, 1);  // kept by the session

    pSession = nullptr;
    EXPECT_EQ(m_fake.calls("gss_delete_sec_context"), 1);
    ExpectNothingOutstanding();
}

TEST_F(GssHandlerTest, ACompleteContextWithAReplyTakesOneClosingCall) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_COMPLETE, "mutual-reply", "alice@EXAMPLE.COM");
    const PassResult last = Accept(pSession, "client-token");
    EXPECT_EQ(last.status, SSEC_STATUS_CONTINUE);
    EXPECT_EQ(last.token, "mutual-reply");
    EXPECT_EQ(last.out.GetCount(), 0u);
    EXPECT_EQ(UserName(pSession->GetParameters()), "alice@EXAMPLE.COM");

    const PassResult closing = Accept(pSession, "");
    EXPECT_EQ(closing.status, SSEC_STATUS_COMPLETE_NO_OUTPUT);
    EXPECT_TRUE(closing.token.empty());
    EXPECT_EQ(UserName(closing.out), "alice@EXAMPLE.COM");
    EXPECT_EQ(m_fake.calls("gss_accept_sec_context"), 1);  // the closing call stays out of the library

    pSession = nullptr;
    ExpectNothingOutstanding();
}

TEST_F(GssHandlerTest, WithoutLogonInfoNoNameIsKeptOrGiven) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_COMPLETE, "mutual-reply", "alice@EXAMPLE.COM");
    EXPECT_EQ(Accept(pSession, "client-token", false).status, SSEC_STATUS_CONTINUE);
    EXPECT_EQ(UserName(pSession->GetParameters()), "<absent>");
    const PassResult closing = Accept(pSession, "", false);
    EXPECT_EQ(closing.status, SSEC_STATUS_COMPLETE_NO_OUTPUT);
    EXPECT_EQ(closing.out.GetCount(), 0u);
    EXPECT_FALSE(m_capture.has("ASSERT("));

    // A host that asks only at the end gets an empty name, and an assertion says why.
    SSOSessionPtr pOther = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_COMPLETE, "mutual-reply", "alice@EXAMPLE.COM");
    EXPECT_EQ(Accept(pOther, "client-token", false).status, SSEC_STATUS_CONTINUE);
    const PassResult asked = Accept(pOther, "", true);
    EXPECT_EQ(asked.status, SSEC_STATUS_COMPLETE_NO_OUTPUT);
    EXPECT_EQ(UserName(asked.out), "");
    EXPECT_TRUE(m_capture.has("ASSERT(i_pSession->GetParameters().GetParameter(GSSAPI_USER_NAME, ssUserName))"));
}

TEST_F(GssHandlerTest, ContinueNeededKeepsTheContextForTheNextPass) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_CONTINUE_NEEDED, "challenge", nullptr);
    Script(GSSAPIDllWrapper::GSS_S_COMPLETE, "", "bob@EXAMPLE.COM");
    const PassResult first = Accept(pSession, "token-1");
    EXPECT_EQ(first.status, SSEC_STATUS_CONTINUE);
    EXPECT_EQ(first.token, "challenge");
    EXPECT_EQ(first.out.GetCount(), 0u);

    const PassResult second = Accept(pSession, "token-2");
    EXPECT_EQ(second.status, SSEC_STATUS_COMPLETE_NO_OUTPUT);
    EXPECT_EQ(UserName(second.out), "bob@EXAMPLE.COM");
    // The second call continued the context of the first (the library rejects any other handle).
    EXPECT_FALSE(m_fake.record().accept_context_was_new);
    EXPECT_EQ(m_fake.record().contexts, 1);
    pSession = nullptr;
    ExpectNothingOutstanding();
}

TEST_F(GssHandlerTest, AClosingCallCannotFinishAnIncompleteContext) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_CONTINUE_NEEDED, "challenge", nullptr);
    EXPECT_EQ(Accept(pSession, "opening").status, SSEC_STATUS_CONTINUE);
    // The client never answered; a host that still sends the closing call gets a failure, not 2.
    try {
        Accept(pSession, "");
        ADD_FAILURE() << "an unauthenticated login was finished";
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), 100u);
    }
    EXPECT_EQ(m_fake.calls("gss_accept_sec_context"), 1);
    EXPECT_TRUE(m_capture.has("No input, but the context is not complete."));
    pSession = nullptr;
    ExpectNothingOutstanding();
}

TEST_F(GssHandlerTest, AFirstPassWithNoInputStillGoesToTheLibrary) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_CONTINUE_NEEDED, "negotiate", nullptr);
    const PassResult pass = Accept(pSession, "");
    EXPECT_EQ(pass.status, SSEC_STATUS_CONTINUE);
    EXPECT_EQ(pass.token, "negotiate");
    EXPECT_EQ(m_fake.calls("gss_accept_sec_context"), 1);
    EXPECT_EQ(m_fake.record().accept_input_length, 0u);
}

TEST_F(GssHandlerTest, AFailurePassesNoErrorTokenOn) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_DEFECTIVE_TOKEN, "error-token", "mallory@EXAMPLE.COM");
    SSOCredentialsPtr pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
    unsigned char stale = 0;
    void* pvToken = &stale;
    size_t nToken = 99;
    Parameters out;
    EXPECT_EQ(StatusOf([&] {
                  m_pHandler->AcceptContext(pCredentials, pSession, "garbage", 7, &pvToken, &nToken, true, out);
              }),
              100u);
    EXPECT_EQ(pvToken, nullptr);
    EXPECT_EQ(nToken, 0u);
    EXPECT_EQ(out.GetCount(), 0u);
    EXPECT_TRUE(m_capture.has("ssoplugin: GSSAPIHandler::AcceptContext() -- GSSAPI ERROR: [GSS major 0x00090000"));
    // The name of a failed context is given back unread; the error token is given back too.
    EXPECT_EQ(m_fake.calls("gss_display_name"), 0);
    const FakeRecord r = m_fake.record();
    EXPECT_EQ(r.names, 0);
    EXPECT_EQ(r.buffers, 0);
    EXPECT_EQ(r.contexts, 1);  // what the library left in the session goes with it
    pCredentials = nullptr;
    pSession = nullptr;
    ExpectNothingOutstanding();
}

TEST_F(GssHandlerTest, ASupplementaryStatusIsNoErrorYetEndsTheLogin) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_COMPLETE | kDuplicateToken, "reply", nullptr);
    SSOCredentialsPtr pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
    void* pvToken = nullptr;
    size_t nToken = 0;
    Parameters out;
    EXPECT_EQ(StatusOf([&] {
                  m_pHandler->AcceptContext(pCredentials, pSession, "token", 5, &pvToken, &nToken, true, out);
              }),
              100u);
    // Not an error, so the reply had been copied out; it is the caller's to free.
    ASSERT_NE(pvToken, nullptr);
    EXPECT_EQ(std::string(static_cast<const char*>(pvToken), nToken), "reply");
    m_pHandler->FreeBuffer(pvToken);
    EXPECT_FALSE(m_capture.has("GSSAPI ERROR"));
}

TEST_F(GssHandlerTest, AnEmptyOrMissingClientNameGivesAnEmptyUserName) {
    Init();
    for (const char* pName : {"", static_cast<const char*>(nullptr)}) {
        SCOPED_TRACE(pName == nullptr ? "no name" : "empty name");
        SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
        Script(GSSAPIDllWrapper::GSS_S_COMPLETE, "", pName);
        const PassResult pass = Accept(pSession, "client-token");
        EXPECT_EQ(pass.status, SSEC_STATUS_COMPLETE_NO_OUTPUT);
        EXPECT_EQ(UserName(pass.out), "");
        pSession = nullptr;
        ExpectNothingOutstanding();
    }
}

TEST_F(GssHandlerTest, TheSessionDeletesOnlyAContextItHas) {
    Init();
    SSOSessionPtr pUnused = m_pHandler->CreateSession(nullptr);
    pUnused = nullptr;
    EXPECT_EQ(m_fake.calls("gss_delete_sec_context"), 0);

    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    Script(GSSAPIDllWrapper::GSS_S_CONTINUE_NEEDED, "challenge", nullptr);
    Accept(pSession, "token-1");
    EXPECT_EQ(m_fake.record().contexts, 1);
    pSession = nullptr;
    EXPECT_EQ(m_fake.calls("gss_delete_sec_context"), 1);
    EXPECT_FALSE(m_capture.has("ASSERT("));
    ExpectNothingOutstanding();
}

TEST_F(GssHandlerTest, AnExceptionInTheLibraryLeavesTheOutputsAsTheyWere) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    SSOCredentialsPtr pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
    m_fake.setHook([](const char* i_pEntry) {
        if (std::strcmp(i_pEntry, "gss_accept_sec_context") == 0) {
            throw 7;
        }
    });
    unsigned char mine = 0;
    void* pvToken = &mine;
    size_t nToken = 42;
    Parameters out;
    EXPECT_EQ(StatusOf([&] {
                  m_pHandler->AcceptContext(pCredentials, pSession, "token", 5, &pvToken, &nToken, true, out);
              }),
              100u);
    EXPECT_EQ(pvToken, &mine);
    EXPECT_EQ(nToken, 42u);
    EXPECT_TRUE(m_capture.has("Exception caught calling into GSSAPI DLL!"));
}

TEST_F(GssHandlerTest, ForeignCredentialsOrSessionsAndTheClientSideAreRefused) {
    Init();
    class OtherCredentials : public SSOCredentials {};
    class OtherSession : public SSOSession {
    public:
        OtherSession() : SSOSession(nullptr) {}
        CSmartRefCountPtr<StaticToken> GetStaticToken() override { return nullptr; }
    };
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    SSOCredentialsPtr pCredentials = m_pHandler->CreateServerCredentials(SSOCredentialsServer);
    void* pvToken = nullptr;
    size_t nToken = 0;
    Parameters out;
    EXPECT_EQ(StatusOf([&] {
                  m_pHandler->AcceptContext(SSOCredentialsPtr(new OtherCredentials()), pSession, "t", 1, &pvToken,
                                            &nToken, true, out);
              }),
              100u);
    EXPECT_TRUE(m_capture.has("GSSAPIHandler::AcceptContext() -- Wrong type of SSOCredentialsPtr passed in."));
    EXPECT_EQ(StatusOf([&] {
                  m_pHandler->AcceptContext(pCredentials, SSOSessionPtr(new OtherSession()), "t", 1, &pvToken,
                                            &nToken, true, out);
              }),
              100u);
    EXPECT_TRUE(m_capture.has("GSSAPIHandler::AcceptContext() -- Wrong type of SSOSessionPtr passed in."));
    EXPECT_EQ(m_fake.calls("gss_accept_sec_context"), 0);

    EXPECT_EQ(StatusOf([&] { m_pHandler->CreateClientCredentials(OSTREL_T("alice"), OSTREL_T("pw"), 1); }), 100u);
    EXPECT_TRUE(m_capture.has("GSSAPIHandler::CreateClientCredentials() -- Creation failed."));
}

TEST_F(GssHandlerTest, TheTokenHoldsNothingAndCannotImpersonate) {
    Init();
    SSOSessionPtr pSession = m_pHandler->CreateSession(nullptr);
    CSmartRefCountPtr<StaticToken> pToken = pSession->GetStaticToken();
    ASSERT_NE(pToken, nullptr);
    try {
        pToken->Impersonate();
        ADD_FAILURE() << "impersonated";
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), 100u);
        EXPECT_EQ(e.GetMessageId(), 61776u);
    }
    EXPECT_NO_THROW(pToken->Revert());
    EXPECT_EQ(m_fake.calls(nullptr), 0);

    // The handler's own buffers.
    const char bytes[] = {'a', 0, 'b'};
    gss_buffer_desc source = {sizeof bytes, const_cast<char*>(bytes)};
    void* pCopy = m_pHandler->CopyGssBuffer(&source);
    ASSERT_NE(pCopy, nullptr);
    EXPECT_EQ(std::memcmp(pCopy, bytes, sizeof bytes), 0);
    m_pHandler->FreeBuffer(pCopy);
    EXPECT_EQ(m_pHandler->CopyGssBuffer(nullptr), nullptr);
    m_pHandler->FreeBuffer(nullptr);
    EXPECT_EQ(m_capture.count("GSSAPIHandler::FreeBuffer() -- input buffer is NULL"), 2u);
}

// ---- whole logins through the plug-in object, in-process ----

class GssLoginTest : public GssHandlerTest {
protected:
    void SetUp() override {
        GssHandlerTest::SetUp();
        m_pImpl = SSOImpl::instance();
        ASSERT_TRUE(m_pImpl->Initialize());
        SSOHandlerFactory::instance()->SetHandlerForTesting(g_ssProviderGSSAPI, m_pHandler);
        ParasSeq cache{const_cast<ostrel_char*>(WP_SI_CACHE_SECCONTEXT_W), SSO_PARAM_BOOL, 0,
                       const_cast<ostrel_char*>(OSTREL_T("1")), nullptr};
        ParasSeq spn{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                     const_cast<ostrel_char*>(OSTREL_T("HTTP/web.example.com")), &cache};
        ASSERT_EQ(m_pImpl->InitSSOProvider(g_ssProviderGSSAPI, &spn), 0u);
    }
    void TearDown() override {
        m_pImpl->Shutdown();
        GssHandlerTest::TearDown();
    }

    struct LoginResult {
        uint32_t status = 0;
        std::string token;
        std::string key;
        std::string user = "<absent>";
    };
    LoginResult AcceptLogin(const std::string& i_key, const std::string& i_input) {
        void* pvToken = nullptr;
        size_t nToken = 0;
        ParasSeq* pParams = nullptr;
        ostrel_char* pKey = nullptr;
        LoginResult result;
        result.status = m_pImpl->AcceptLogin(ToWCharString(i_key.c_str()), g_ssProviderGSSAPI,
                                             i_input.empty() ? nullptr : i_input.data(), i_input.size(), &pvToken,
                                             &nToken, &pParams, &pKey);
        if (pvToken != nullptr) {
            result.token.assign(static_cast<const char*>(pvToken), nToken);
            m_pImpl->FreeBuffer(pvToken);
        }
        if (pKey != nullptr) {
            result.key = Narrow(SWCharString(pKey));
            m_pImpl->FreeString(pKey);
        }
        for (const ParasSeq* p = pParams; p != nullptr; p = p->next) {
            if (SWCharString(p->key) == g_ssKeyGssapiUserName) {
                result.user = Narrow(SWCharString(p->value));
            }
        }
        m_pImpl->FreeParameters(pParams);
        return result;
    }
    uint32_t ErrorStatus(uint32_t i_nStatus) {
        Plugin_Exception_Struct* pError = nullptr;
        uint32_t nCode = 0;
        if (m_pImpl->GetError(i_nStatus, &pError) == 0 && pError != nullptr) {
            nCode = pError->errCode;
        }
        m_pImpl->FreeError(pError);
        return nCode;
    }

    CSmartRefCountPtr<SSOImpl> m_pImpl;
};

TEST_F(GssLoginTest, AWholeLoginEndsWithTheNameAndLeavesNothingBehind) {
    Script(GSSAPIDllWrapper::GSS_S_CONTINUE_NEEDED, "server-1", nullptr);
    Script(GSSAPIDllWrapper::GSS_S_COMPLETE, "server-2", "alice@EXAMPLE.COM");

    const LoginResult first = AcceptLogin("", "client-1");
    EXPECT_EQ(first.status, 1u);
    EXPECT_EQ(first.token, "server-1");
    ASSERT_FALSE(first.key.empty());
    EXPECT_EQ(first.user, "<absent>");

    const LoginResult second = AcceptLogin(first.key, "client-2");
    EXPECT_EQ(second.status, 1u);
    EXPECT_EQ(second.token, "server-2");
    EXPECT_EQ(second.key, first.key);

    const LoginResult closing = AcceptLogin(first.key, "");
    EXPECT_EQ(closing.status, 2u);
    EXPECT_TRUE(closing.token.empty());
    EXPECT_EQ(closing.key, "DUMMY_KEY__CACHING_IS_OFF");
    EXPECT_EQ(closing.user, "alice@EXAMPLE.COM");

    EXPECT_EQ(m_fake.calls("gss_accept_sec_context"), 2);
    EXPECT_EQ(m_fake.calls("gss_acquire_cred"), 3);  // fresh credentials on every pass
    // The session went at the end, and its context with it; the cache got nothing.
    EXPECT_EQ(m_fake.calls("gss_delete_sec_context"), 1);
    ExpectNothingOutstanding();
    EXPECT_EQ(m_pImpl->GetContextCacheForTesting()->GetCount(), 0u);
    EXPECT_NE(m_pImpl->Impersonate(OSTREL_T("DUMMY_KEY__CACHING_IS_OFF")), 0u);
}

TEST_F(GssLoginTest, AFailedPassEndsTheLogin) {
    Script(GSSAPIDllWrapper::GSS_S_DEFECTIVE_TOKEN, "error-token", nullptr);
    const LoginResult failed = AcceptLogin("", "garbage");
    EXPECT_EQ(failed.status, 100u);
    EXPECT_EQ(ErrorStatus(100), 100u);
    EXPECT_TRUE(failed.token.empty());
    EXPECT_TRUE(failed.key.empty());
    // The session that the library had started a context in is gone.
    EXPECT_EQ(m_fake.calls("gss_delete_sec_context"), 1);
    ExpectNothingOutstanding();
}

TEST_F(GssLoginTest, StartingALoginFailsAtTheCredentials) {
    void* pvToken = nullptr;
    size_t nToken = 0;
    ostrel_char* pKey = nullptr;
    ParasSeq spn{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                 const_cast<ostrel_char*>(OSTREL_T("HTTP/web.example.com")), nullptr};
    EXPECT_EQ(m_pImpl->StartLogin(OSTREL_T("alice"), OSTREL_T("secret"), g_ssProviderGSSAPI, &spn, &pvToken, &nToken,
                                  &pKey),
              100u);
    EXPECT_EQ(ErrorStatus(100), 100u);
    EXPECT_EQ(pvToken, nullptr);
    EXPECT_EQ(nToken, 0u);
    EXPECT_EQ(pKey, nullptr);
    EXPECT_TRUE(m_capture.has("GSSAPI C++ client not supported."));
    EXPECT_TRUE(m_capture.has("GSSAPIHandler::CreateClientCredentials() -- Creation failed."));
    EXPECT_EQ(m_fake.calls("gss_init_sec_context"), 0);
    EXPECT_EQ(m_fake.calls("gss_import_name"), 0);
}

}  // namespace
