// External single sign-on through the exports, against the stand-in agent
// library and the stand-in policy server (tests/support/standin_siteminder.cpp).
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "integration/Plugin.h"

using ostrel_test::Plugin;
using ostrel_test::ScopedEnv;
using ostrel_test::Text;
using Result = std::pair<unsigned int, std::u16string>;
using Record = std::pair<unsigned int, unsigned int>;

namespace {

// Stored forms of "s3cret", "second secret" and "wrong secret", made with ostrel-scramble.
const std::u16string kSecret1 = u"OSS1:2e5478511f2afca8:2b1beffbcfdf:3bf01ba7";
const std::u16string kSecret2 = u"OSS1:1c2d7f12f3a84b14:447636131c3abf7fa28d0836f6:e875715d";
const std::u16string kWrongSecret = u"OSS1:3f77caa3f74c8855:1fd45d35d9de1bbd34f44b46:09e40693";
const std::u16string k255Bytes(85, u'\u20AC');  // 255 bytes of UTF-8: the longest name that fits
const ostrel_char* const kVendor = WP_SI_SSO_VENDOR_W;
const ostrel_char* const kServers = WP_SI_SSO_SERVERS_AND_PORTS_W;
const ostrel_char* const kSecret = WP_SI_SSO_SHARED_SECRET_W;
const ostrel_char* const kAgent = WP_SI_SSO_AGENT_W;
const ostrel_char* const kMode = WP_SI_SSO_ACCESS_MODE_W;
constexpr uint32_t kText = SSO_PARAM_STRING;
constexpr uint32_t kNumber = SSO_PARAM_LONG;
constexpr uint32_t kLeftOut = 0;

#if !defined(_WIN32)
// The stand-in policy server as a child process, stopped by its PID; it ends with the test in any case.
struct PolicyServer {
    PolicyServer() : pOutput(::popen("exec '" OSTREL_STANDIN_SERVER "' '" OSTREL_STANDIN_CONFIG "'", "r")) {
        if (pOutput == nullptr || std::fscanf(pOutput, "%d %d", &nPort, &pid) != 2) nPort = 0;
    }
    ~PolicyServer() {
        if (pid > 0) ::kill(pid, SIGKILL);
        if (pOutput != nullptr) ::pclose(pOutput);
    }
    FILE* pOutput;
    int nPort = 0;
    pid_t pid = 0;
};
std::unique_ptr<PolicyServer> s_pServer;
#endif
int s_nPort = 0;

std::u16string Wide(const char* i_pText) { return {i_pText, i_pText + std::strlen(i_pText)}; }

struct Param {
    const ostrel_char* key;
    uint32_t type;
    std::u16string value;
};

class ExternalSSO : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
#if defined(_WIN32)
        std::ifstream(OSTREL_STANDIN_PORT_FILE) >> s_nPort;  // a ctest fixture runs it beside Wine
#else
        s_nPort = (s_pServer = std::make_unique<PolicyServer>())->nPort;
#endif
    }
    void SetUp() override {
        ASSERT_NE(s_nPort, 0) << "no stand-in policy server";
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
    }
    void TearDown() override { plugin.SSOTermPackage(); }

    // '@' in a list stands for the server's port.
    static std::u16string AtPort(std::u16string i_servers, int i_nPort = s_nPort) {
        const std::string digits = std::to_string(i_nPort);
        for (size_t at; (at = i_servers.find(u'@')) != std::u16string::npos;)
            i_servers.replace(at, 1, std::u16string(digits.begin(), digits.end()));
        return i_servers;
    }
    static std::vector<Param> Standard(const std::u16string& i_servers = u"127.0.0.1:1:@:3", int i_nPort = s_nPort) {
        return {{kVendor, kNumber, u"1"},
                {kServers, kText, AtPort(i_servers, i_nPort)},
                {kSecret, kText, kSecret1},
                {kAgent, kText, u"agent1"},
                {kMode, kNumber, u"1"}};
    }
    static std::vector<Param> With(std::vector<Param> io_params, const Param& i_change) {
        for (Param& param : io_params) param = param.key == i_change.key ? i_change : param;
        return io_params;
    }
    unsigned int Create(const std::vector<Param>& i_params, CExternalSSO** o_pHandle) {
        std::vector<ParasSeq> seq;
        for (const Param& param : i_params) {
            if (param.type == kLeftOut) continue;
            seq.push_back({const_cast<ostrel_char*>(param.key), param.type, 0,
                           reinterpret_cast<ostrel_char*>(const_cast<char16_t*>(param.value.c_str())), nullptr});
        }
        for (size_t i = 1; i < seq.size(); ++i) seq[i - 1].next = &seq[i];
        return plugin.ExternalSSOCreateHandle(seq.empty() ? nullptr : seq.data(), o_pHandle);
    }
    // Again while the second changes under it, so that the server and the plug-in read one clock second.
    Result Verify(CExternalSSO* i_handle, const std::u16string& i_token) {
        Result result;
        for (std::time_t before = -1, tries = 0; before != std::time(nullptr) && tries < 3; ++tries) {
            before = std::time(nullptr);
            ostrel_char* pName = nullptr;
            result.first =
                plugin.ExternalSSOVerifyUser(i_handle, reinterpret_cast<const ostrel_char*>(i_token.c_str()), &pName);
            result.second = Text(pName);
            plugin.SSOFreeString(pName);
        }
        return result;
    }
    // The calling thread's record, taken; {0, 0} when there is none.
    Record TakeRecord() {
        Plugin_Exception_Struct* pError = nullptr;
        const Record record =
            plugin.SSOGetError(0, &pError) != 0 ? Record(0, 0) : Record(pError->errCode, pError->messageId);
        plugin.SSOFreeError(pError);
        return record;
    }
    int OpenAgentHandles() { return reinterpret_cast<int (*)()>(m_agent.symbol("StandinAgent_OpenHandles"))(); }
    std::string LastInit() { return reinterpret_cast<const char* (*)()>(m_agent.symbol("StandinAgent_LastInit"))(); }

    ScopedEnv m_library{"OSTREL_SITEMINDER_LIBRARY", OSTREL_STANDIN_AGENT};
    Plugin m_agent{OSTREL_STANDIN_AGENT};  // the library the plug-in binds, for what it received
    Plugin plugin;
};

// Handles are made before SSOInitPackage, as after it: nothing of this needs the plug-in started.
TEST_F(ExternalSSO, SeveralHandlesBeforeInitPackageAndTheTokensTheyVerify) {
    ASSERT_EQ(plugin.SSOTermPackage(), 0u);
    CExternalSSO *pFirst = nullptr, *pSecond = nullptr;
    ASSERT_EQ(Create(Standard(), &pFirst), 0u);
    ASSERT_EQ(Create(With(With(Standard(), {kAgent, kText, u"agent2"}), {kSecret, kText, kSecret2}), &pSecond), 0u);
    EXPECT_EQ(OpenAgentHandles(), 2);
    EXPECT_EQ(Verify(pFirst, u"good"), Result(0, u"alice"));
    EXPECT_EQ(Verify(pSecond, u"refused"), Result(100, u""));
    EXPECT_EQ(Create(With(Standard(), {kVendor, kNumber, u"2"}), &pFirst), 113u);
    ASSERT_EQ(plugin.SSOInitPackage(), 0u);
    EXPECT_EQ(TakeRecord(), Record(0, 0));  // a failure before the start is only a status
    const std::pair<const char*, Result> good[] = {
        {"good", {0, u"alice"}},         {"no-limits", {0, u"carol"}},
        {"largest", {0, u"dave"}},       {"twice", {0, u"erin"}},
        {"idle-within", {0, u"alice"}},  {"session-within", {0, u"alice"}},
        {"access-later", {0, u"alice"}}, {"unicode", {0, u"J\u00FCrgen \u03A9mega \u65E5\u672C \U0001F600"}}};
    for (const auto& [token, result] : good) EXPECT_EQ(Verify(pFirst, Wide(token)), result) << token;
    // Refused for their times, attributes, decoding or text; the host learns only the status.
    for (const char* token :
         {"idle-over", "session-over", "no-name", "no-idle", "no-session", "no-start", "no-last", "empty-name",
          "null-name", "not-a-number", "overflow", "negative", "nothing", "refused", "unknown"}) {
        EXPECT_EQ(Verify(pFirst, Wide(token)), Result(100, u"")) << token;
        EXPECT_EQ(TakeRecord(), Record(0, 0)) << token;
    }
    EXPECT_EQ(Verify(pFirst, std::u16string(1 << 20, u'a')), Result(100, u""));
    EXPECT_EQ(Verify(pFirst, u"\xD800good"), Result(100, u""));
    EXPECT_EQ(Verify(pFirst, u""), Result(113, u""));
    EXPECT_EQ(plugin.ExternalSSOVerifyUser(pFirst, nullptr, nullptr), 113u);
    EXPECT_EQ(plugin.ExternalSSOVerifyUser(pFirst, OSTREL_T("good"), nullptr), 113u);
    EXPECT_EQ(TakeRecord(), Record(0, 0));
    EXPECT_EQ(plugin.ExternalSSODestroyHandle(pFirst), 0u);
    EXPECT_EQ(Verify(pSecond, u"twice"), Result(0, u"erin"));
    EXPECT_EQ(plugin.ExternalSSODestroyHandle(pSecond), 0u);
    EXPECT_EQ(OpenAgentHandles(), 0);
    // Gone from the set, so refused without being touched; as are null and foreign handles.
    int foreign = 0;
    for (CExternalSSO* pBad :
         {pFirst, pSecond, static_cast<CExternalSSO*>(nullptr), reinterpret_cast<CExternalSSO*>(&foreign)}) {
        EXPECT_EQ(Verify(pBad, u"good").first, 113u);
        EXPECT_EQ(plugin.ExternalSSODestroyHandle(pBad), 113u);
    }
}

TEST_F(ExternalSSO, RefusedHandlesLeaveNothingOpen) {
    const struct {
        const char* what;
        Param change;
        const char* library;  // null: the stand-in
        Record record;        // its status is the result too
    } cases[] = {
        {"wrong secret", {kSecret, kText, kWrongSecret}, nullptr, {113, 49444}},
        {"plain secret", {kSecret, kText, u"s3cret"}, nullptr, {113, 49444}},
        {"agent of 255 bytes", {kAgent, kText, k255Bytes}, nullptr, {113, 49444}},
        {"agent of 256 bytes", {kAgent, kText, k255Bytes + u"a"}, nullptr, {113, 49448}},
        {"host of 256 bytes", {kServers, kText, std::u16string(256, u'h') + u":1:2:3"}, nullptr, {113, 49447}},
        {"no agent library", {}, "no-such-directory/no-such-agent-library", {113, 49444}},
        {"library without decoding", {}, OSTREL_STANDIN_AGENT_NODECODE, {113, 49444}},
        {"no server list", {kServers, kLeftOut, u""}, nullptr, {113, 49442}},
        {"empty secret", {kSecret, kText, u""}, nullptr, {113, 49442}},
        {"no agent", {kAgent, kLeftOut, u""}, nullptr, {113, 49442}},
        {"no access mode", {kMode, kLeftOut, u""}, nullptr, {113, 49442}},
        {"access mode as text", {kMode, kText, u"1"}, nullptr, {113, 49442}},
        {"servers as a number", {kServers, kNumber, u"5"}, nullptr, {113, 49442}},
        {"access mode 0", {kMode, kNumber, u"0"}, nullptr, {113, 49442}},
        {"access mode 0 in its low 32 bits", {kMode, kNumber, u"4294967296"}, nullptr, {113, 49442}},
        {"vendor 2", {kVendor, kNumber, u"2"}, nullptr, {113, 49446}},
        {"no vendor", {kVendor, kLeftOut, u""}, nullptr, {113, 49446}},
        {"vendor as text", {kVendor, kText, u"1"}, nullptr, {113, 42038}},
        {"three elements", {kServers, kText, u"127.0.0.1:1:@"}, nullptr, {113, 49443}},
        {"port not a number", {kServers, kText, u"127.0.0.1:1:@:x"}, nullptr, {113, 49443}},
        {"no server answers", {kServers, kText, u"127.0.0.1:1:1:1"}, nullptr, {113, 49443}},
        {"blanks only", {kServers, kText, u"   "}, nullptr, {113, 49443}},
        {"dangling escape", {kServers, kText, u"127.0.0.1:1:2:3^"}, nullptr, {100, 42254}},
    };
    // Trace from a fresh start on, to see what the starts and failures name.
    const std::string tracePath = "ostrel-siteminder-trace." + std::to_string(std::time(nullptr));
    ScopedEnv trace("OSTREL_TRACE", tracePath.c_str());
    ASSERT_EQ(plugin.SSOTermPackage(), 0u);
    ASSERT_EQ(plugin.SSOInitPackage() + plugin.SSOInitPackage() + plugin.SSOTermPackage(), 0u);
    for (const auto& c : cases) {
        ScopedEnv library("OSTREL_SITEMINDER_LIBRARY", c.library != nullptr ? c.library : OSTREL_STANDIN_AGENT);
        CExternalSSO* pHandle = reinterpret_cast<CExternalSSO*>(&m_agent);  // stays as it is
        EXPECT_EQ(Create(With(Standard(), {c.change.key, c.change.type, AtPort(c.change.value)}), &pHandle),
                  c.record.first)
            << c.what;
        EXPECT_EQ(pHandle, reinterpret_cast<CExternalSSO*>(&m_agent)) << c.what;
        EXPECT_EQ(TakeRecord(), c.record) << c.what;
        EXPECT_EQ(OpenAgentHandles(), 0) << c.what;
    }
    EXPECT_EQ(plugin.ExternalSSOCreateHandle(nullptr, nullptr), 113u);
    trace.set(nullptr);  // the next start turns trace off: not one more byte
    ASSERT_EQ(plugin.SSOTermPackage() + plugin.SSOInitPackage(), 0u);
    const auto read = [&] {
        std::ifstream file(tracePath);
        return std::string{std::istreambuf_iterator<char>(file), {}};
    };
    const std::string text = read();
    CExternalSSO* pHandle = nullptr;
    EXPECT_EQ(Create(With(Standard(), {kAgent, kText, k255Bytes + u"a"}), &pHandle), 113u);
    EXPECT_EQ(read(), text);
    std::remove(tracePath.c_str());
    const std::string library(OSTREL_STANDIN_AGENT_NODECODE);
    for (const std::string& expected :
         {std::string("no-such-agent-library"), std::string("Sm_AgentApi_DecodeSSOToken"),
          library.substr(library.find_last_of("/\\") + 1),
          std::string("ssoplugin: SSOImpl::Initialize() -- Successfully initialized.  Refcount is now 1\n"),
          std::string("ssoplugin: SSOImpl::Initialize() -- Already initialized; incrementing refcount (2)\n")})
        EXPECT_NE(text.find(expected), std::string::npos) << expected << " not in:\n" << text;
}

TEST_F(ExternalSSO, ServerListsAsTheAgentReceivesThem) {
    const std::string live = "127.0.0.1:1:" + std::to_string(s_nPort) + ":3";
    const struct {
        std::u16string servers;
        std::u16string accessMode;
        int mode;  // what the record says
        std::vector<std::string> entries;
    } cases[] = {
        {u"127.0.0.1:1:@:3", u"1", 0, {live}},
        {u"127.0.0.1:1:@:3", u"2", 1, {live}},
        {u"127.0.0.1:1:@:3", u"4294967297", 0, {live}},
        {u"host^ name:1:2:3 127.0.0.1:1:@:3", u"1", 0, {"host name:1:2:3", live}},
        {u"host^:name:1:2:3 127.0.0.1:1:@:3", u"1", 0, {"host:name:1:2:3", live}},
        {u"a^^b:1:2:3 127.0.0.1:1:@:3", u"1", 0, {"a^b:1:2:3", live}},
        {u"a^b:1:2:3 127.0.0.1:1:@:3", u"1", 0, {"a^b:1:2:3", live}},
        {u"  127.0.0.1::1:@:3   sm2:0:1:99999  ", u"1", 0, {live, "sm2:0:1:99999"}},
        {std::u16string(255, u'h') + u":1:2:3 127.0.0.1:1:@:3", u"1", 0, {std::string(255, 'h') + ":1:2:3", live}},
    };
    for (const auto& c : cases) {
        CExternalSSO* pHandle = nullptr;
        ASSERT_EQ(Create(With(Standard(c.servers), {kMode, kNumber, c.accessMode}), &pHandle), 0u) << LastInit();
        std::string expected = "version=1024 mode=" + std::to_string(c.mode) +
                               " servers=" + std::to_string(c.entries.size()) + " agent=agent1 secret=s3cret";
        for (const std::string& entry : c.entries) expected += " [" + entry + "/1,10,1,60]";
        EXPECT_EQ(LastInit(), expected);
        EXPECT_EQ(Verify(pHandle, u"good"), Result(0, u"alice")) << expected;
        EXPECT_EQ(plugin.ExternalSSODestroyHandle(pHandle), 0u);
    }
}

// Four threads verify on one handle while two others destroy it: every call is answered, none begun after the end
// succeeds. Each thread goes on until it has verified 5 times after the end.
TEST_F(ExternalSSO, DestroyRacesVerification) {
    for (int round = 0; round < 5; ++round) {
        CExternalSSO* pHandle = nullptr;
        ASSERT_EQ(Create(Standard(), &pHandle), 0u);
        std::atomic<int> nVerified{0};
        std::atomic<bool> bDestroyed{false};
        std::promise<void> started;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int nAfter = 0; nAfter < 5;) {
                    const bool bAfter = bDestroyed;
                    const unsigned int status = Verify(pHandle, u"good").first;
                    EXPECT_TRUE(status == 113u || (!bAfter && (status == 0u || status == 110u))) << status;
                    nAfter += bAfter ? 1 : 0;
                    if (++nVerified == 20) started.set_value();
                }
            });
        }
        EXPECT_EQ(started.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
        unsigned int first = 0, second = 0;
        std::thread other([&] { second = plugin.ExternalSSODestroyHandle(pHandle); });
        first = plugin.ExternalSSODestroyHandle(pHandle);
        other.join();
        bDestroyed = true;
        for (std::thread& thread : threads) thread.join();
        // Both may pass the look-up; at least one removes the handle.
        EXPECT_TRUE((first == 0u || second == 0u) && (first | second | 113u) == 113u) << first << " " << second;
        EXPECT_EQ(OpenAgentHandles(), 0);
    }
}

#if !defined(_WIN32)
// The policy server goes: 110 with its record from then on.
TEST_F(ExternalSSO, ALostServerIsAFailureWithItsRecord) {
    auto pServer = std::make_unique<PolicyServer>();
    CExternalSSO* pHandle = nullptr;
    ASSERT_EQ(Create(Standard(u"127.0.0.1:1:@:3", pServer->nPort), &pHandle), 0u);
    EXPECT_EQ(Verify(pHandle, u"good"), Result(0, u"alice"));
    pServer.reset();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Verify(pHandle, u"good"), Result(110, u""));
        EXPECT_EQ(TakeRecord(), Record(110, 42254));
    }
    EXPECT_EQ(plugin.ExternalSSODestroyHandle(pHandle), 0u);
}
#endif

}  // namespace
