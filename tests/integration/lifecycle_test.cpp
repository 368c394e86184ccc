// The plug-in's life and error reporting, through the exports of the built library.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "integration/Plugin.h"

#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>
#endif

using ostrel_test::Plugin;
using ostrel_test::ScopedEnv;
using ostrel_test::Text;

namespace {

std::string ReadFile(const std::string& i_path) {
    std::ifstream in(i_path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string TempPath(const char* i_pName) {
    const char* pDir = std::getenv("TMPDIR");
    std::string path = std::string(pDir != nullptr ? pDir : "/tmp") + "/" + i_pName + "." +
                       std::to_string(static_cast<long>(::testing::UnitTest::GetInstance()->random_seed())) + "." +
                       std::to_string(reinterpret_cast<uintptr_t>(&path));
    std::remove(path.c_str());
    return path;
}

}  // namespace

TEST(Lifecycle, CountedInitialisationInAnyNumberOfCycles) {
    Plugin plugin;
    for (int cycle = 0; cycle < 5; ++cycle) {
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        ASSERT_EQ(plugin.SSOTermPackage(), 0u);
        // One user is still in: the plug-in keeps answering.
        ostrel_char* pText = nullptr;
        ASSERT_EQ(plugin.SSOGetMessageContent(61778, &pText), 0u) << "cycle " << cycle;
        plugin.SSOFreeString(pText);
        ASSERT_EQ(plugin.SSOTermPackage(), 0u);
        // Fully terminated: nothing but the life calls answer.
        pText = nullptr;
        EXPECT_EQ(plugin.SSOGetMessageContent(61778, &pText), 100u);
        EXPECT_EQ(pText, nullptr);
    }
    // A surplus termination is harmless.
    EXPECT_EQ(plugin.SSOTermPackage(), 0u);
    EXPECT_EQ(plugin.SSOInitPackage(), 0u);
    EXPECT_EQ(plugin.SSOTermPackage(), 0u);
}

TEST(Lifecycle, FunctionsThatNeedNoInitialisation) {
    Plugin plugin;
    EXPECT_EQ(plugin.SSOFreeString(nullptr), 0u);
    EXPECT_EQ(plugin.SSOFreeParameters(nullptr), 0u);
    EXPECT_EQ(plugin.SSOFreeError(nullptr), 0u);
    EXPECT_EQ(plugin.SSOReleaseAllProviderSecContexts(), 100u);
    ASSERT_EQ(plugin.SSOInitPackage(), 0u);
    EXPECT_EQ(plugin.SSOReleaseAllProviderSecContexts(), 100u);
    EXPECT_EQ(plugin.SSOTermPackage(), 0u);
}

TEST(Lifecycle, MessageTextsForKnownAndUnknownIds) {
    Plugin plugin;
    ASSERT_EQ(plugin.SSOInitPackage(), 0u);
    for (unsigned int id : {42038u, 42254u, 42256u, 42502u, 61748u, 61775u, 61776u, 61777u, 61778u, 61869u}) {
        ostrel_char* pText = nullptr;
        ASSERT_EQ(plugin.SSOGetMessageContent(id, &pText), 0u) << id;
        EXPECT_GT(Text(pText).size(), 10u) << id;
        EXPECT_EQ(plugin.SSOFreeString(pText), 0u);
    }
    ostrel_char* pText = nullptr;
    EXPECT_EQ(plugin.SSOGetMessageContent(1, &pText), 100u);
    EXPECT_EQ(pText, nullptr);
    EXPECT_EQ(plugin.SSOGetMessageContent(61778, nullptr), 100u);
    // Nothing failed through an exception, so there is no record to fetch.
    Plugin_Exception_Struct* pError = nullptr;
    EXPECT_EQ(plugin.SSOGetError(100, &pError), 100u);
    EXPECT_EQ(pError, nullptr);
    EXPECT_EQ(plugin.SSOGetError(100, nullptr), 100u);
    EXPECT_EQ(plugin.SSOTermPackage(), 0u);
}

TEST(Lifecycle, TraceOfInitialisationOnlyWhenAskedFor) {
    const std::string path = TempPath("ostrel-trace");
    {
        ScopedEnv trace("OSTREL_TRACE", path.c_str());
        Plugin plugin;
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        ASSERT_EQ(plugin.SSOTermPackage(), 0u);
        ASSERT_EQ(plugin.SSOTermPackage(), 0u);
        const std::string text = ReadFile(path);
        EXPECT_NE(text.find("ssoplugin: SSOImpl::Initialize() -- Successfully initialized.  Refcount is now 1\n"),
                  std::string::npos)
            << text;
        EXPECT_NE(text.find("ssoplugin: SSOImpl::Initialize() -- Already initialized; incrementing refcount (2)\n"),
                  std::string::npos)
            << text;

        // Without the variable the next start turns trace off: not one more byte.
        trace.set(nullptr);
        const size_t nBefore = ReadFile(path).size();
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        ASSERT_EQ(plugin.SSOTermPackage(), 0u);
        ASSERT_EQ(plugin.SSOTermPackage(), 0u);
        EXPECT_EQ(ReadFile(path).size(), nBefore);
    }
    std::remove(path.c_str());
}

#if !defined(_WIN32)
namespace {
decltype(&::SSOTermPackage) g_pLateTerm = nullptr;
void LateCleanup() {
    // Runs after the library's own static destructors: the object has ended.
    const unsigned int rc = g_pLateTerm != nullptr ? g_pLateTerm() : 999u;
    std::fflush(nullptr);
    ::_exit(rc == 0 ? 42 : 1);
}
}  // namespace

TEST(Lifecycle, TerminationAfterTheObjectsEndIsHarmless) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // Registered before the library loads, so it runs after the library's teardown.
        std::atexit(LateCleanup);
        static Plugin* s_pPlugin = new Plugin();  // never unloaded: the exit path does the teardown
        g_pLateTerm = s_pPlugin->SSOTermPackage;
        // A host that never terminated: the object must tear down at exit by itself.
        if (s_pPlugin->SSOInitPackage() != 0) {
            ::_exit(2);
        }
        std::exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    // Exited through the late call, which answered 0 and did not crash on what unloading left behind.
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 42);
}
#endif
