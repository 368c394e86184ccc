// The plug-in's life, through the exports of the built library.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "integration/Plugin.h"

#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>
#endif

using ostrel_test::Plugin;
using ostrel_test::Text;

TEST(Lifecycle, CountedStartsAndWhatAnswersMeanwhile) {
    Plugin plugin;
    EXPECT_EQ(plugin.SSOFreeString(nullptr) + plugin.SSOFreeParameters(nullptr) + plugin.SSOFreeError(nullptr), 0u);
    ostrel_char* pText = nullptr;
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_EQ(plugin.SSOInitPackage() + plugin.SSOInitPackage() + plugin.SSOTermPackage(), 0u);
        ASSERT_EQ(plugin.SSOGetMessageContent(61778, &pText), 0u) << "one user is still in";
        EXPECT_GT(Text(pText).size(), 10u);
        plugin.SSOFreeString(std::exchange(pText, nullptr));
        EXPECT_EQ(plugin.SSOGetMessageContent(1, &pText), 100u);
        EXPECT_EQ(plugin.SSOGetMessageContent(61778, nullptr), 100u);
        Plugin_Exception_Struct* pError = nullptr;  // nothing failed through an exception: no record
        EXPECT_EQ(plugin.SSOGetError(100, &pError), 100u);
        EXPECT_EQ(pError, nullptr);
        EXPECT_EQ(plugin.SSOReleaseAllProviderSecContexts(), 100u);
        ASSERT_EQ(plugin.SSOTermPackage(), 0u);
        EXPECT_EQ(plugin.SSOGetMessageContent(61778, &pText), 100u) << "fully terminated";
        EXPECT_EQ(pText, nullptr);
    }
    EXPECT_EQ(plugin.SSOTermPackage(), 0u) << "a surplus termination is harmless";
    EXPECT_EQ(plugin.SSOInitPackage() + plugin.SSOTermPackage(), 0u);
}

#if !defined(_WIN32)
namespace {
decltype(&::SSOTermPackage) g_pLateTerm = nullptr;
void LateCleanup() {  // runs after the library's own static destructors: the object has ended
    const unsigned int rc = g_pLateTerm != nullptr ? g_pLateTerm() : 999u;
    std::fflush(nullptr);
    ::_exit(rc == 0 ? 42 : 1);
}
}  // namespace

TEST(Lifecycle, TerminationAfterTheObjectsEndIsHarmless) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::atexit(LateCleanup);  // registered before the library loads, so it runs after its teardown
        static Plugin* s_pPlugin = new Plugin();  // never unloaded: the exit path does the teardown
        g_pLateTerm = s_pPlugin->SSOTermPackage;
        ::_exit(s_pPlugin->SSOInitPackage() != 0 ? 2 : (std::exit(0), 3));  // a host that never terminated
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << "the late call did not answer 0: " << status;
}
#endif
