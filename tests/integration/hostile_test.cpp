// A host that unloads the plug-in without ever terminating it.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "integration/Plugin.h"

#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>

namespace {

// In a child of its own: load, start, capture, unload; nothing of the library may run on.
int UnloadUnterminated(int i_nContexts) {
    auto pPlugin = std::make_unique<ostrel_test::Plugin>();
    pPlugin->SSOInitPackage();
    pPlugin->SSOInitProvider(SSO_PROVIDER_THREADTOKEN, nullptr);
    // On a thread that ends first: a live thread's thread-local data would keep the library loaded.
    std::thread([&] {
        for (int i = 0; i < i_nContexts; ++i) {
            ostrel_char* pKey = nullptr;
            pPlugin->SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pKey);
            pPlugin->SSOFreeString(pKey);
        }
    }).join();
    auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    const auto nLoaded = threads();  // this one, the cleaner, and what a sanitizer runs
    pPlugin.reset();
    if (::dlopen(OSTREL_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD) != nullptr) {
        return 4;  // still loaded: nothing was tried
    }
    return threads() == nLoaded - 1 ? 0 : 3;
}

}  // namespace

// The cleaner starts with the provider and scans at once: the first unload comes
// while that scan is likely still under way, the second while it sleeps.
TEST(HostileHost, UnloadingWithoutTerminationStopsTheCleanerFirst) {
    for (int nContexts : {0, 5000}) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) ::_exit(UnloadUnterminated(nContexts));
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "with " << nContexts << " contexts: status " << status << " (exit 3: a thread of the library ran on)";
    }
}
#endif
