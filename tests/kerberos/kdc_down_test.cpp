// An acceptor needs no KDC: with the KDC gone, tickets already issued still log in. On a realm of its own,
// so that the shared realm's KDC is never stopped.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "integration/Plugin.h"
#include "kerberos/KerberosClient.h"

using ostrel_test::Env;

namespace {

int Realm(const std::string& i_args) {
    return std::system(("bash " OSTREL_REALM_SCRIPT " " + i_args + " >/dev/null 2>&1").c_str());
}

}  // namespace

TEST(KdcDown, TicketsAlreadyIssuedStillLogIn) {
    if (Env("OSTREL_REALM_DIR").empty()) {
        GTEST_SKIP() << "needs the test realm (run through ctest)";
    }
    const std::string dir = Env("OSTREL_REALM_DIR") + "-kdc-down";
    // The watchdog stops this KDC should the test die before its end.
    ASSERT_EQ(Realm("start " + dir + " --replace --watch " + std::to_string(::getpid())), 0);
    std::vector<std::unique_ptr<ostrel_test::ScopedEnv>> env;
    const std::pair<const char*, const char*> files[] = {
        {"KRB5_CONFIG", "/krb5.conf"}, {"KRB5_KDC_PROFILE", "/kdc.conf"}, {"KRB5_KTNAME", "/keytab"}, {"KRB5RCACHEDIR", "/rcache"}};
    for (auto [name, file] : files) {
        env.push_back(std::make_unique<ostrel_test::ScopedEnv>(name, (dir + file).c_str()));
    }
    ostrel_test::Plugin plugin;
    const std::u16string spn = ostrel_test::Wide(Env("OSTREL_SPN"));
    ParasSeq seq{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                 const_cast<ostrel_char*>(reinterpret_cast<const ostrel_char*>(spn.c_str())), nullptr};
    ASSERT_EQ(plugin.SSOInitPackage() + plugin.SSOInitProvider(SSO_PROVIDER_GSSAPI, &seq), 0u);
    auto accept = [&](const ostrel_test::Bytes& i_token) {
        void* pBuffer = nullptr;
        size_t nLength = 0;
        ostrel_char* pKey = nullptr;
        const unsigned int rc = plugin.SSOAcceptLogin(OSTREL_T(""), SSO_PROVIDER_GSSAPI, i_token.data(), i_token.size(),
                                                      &pBuffer, &nLength, nullptr, &pKey);
        plugin.SSOFreeBuffer(pBuffer);
        plugin.SSOFreeString(pKey);
        return rc;
    };
    ostrel_test::KerberosClient alice(Env("OSTREL_USER1"), Env("OSTREL_PASS1"));
    ASSERT_TRUE(alice.ok()) << alice.error();
    EXPECT_EQ(accept(alice.Start(Env("OSTREL_SPN"), false)), 2u);  // the service ticket is fetched now, and kept
    EXPECT_EQ(Realm("stop-kdc " + dir), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(accept(alice.Start(Env("OSTREL_SPN"), false)), 2u) << alice.error();
    }
    ostrel_test::KerberosClient bob(Env("OSTREL_USER2"), Env("OSTREL_PASS2"));  // a newcomer gets no ticket at all
    EXPECT_NE(bob.error().find("Cannot contact any KDC"), std::string::npos) << bob.error();
    EXPECT_EQ(Realm("start-kdc " + dir), 0);
    ostrel_test::KerberosClient carol(Env("OSTREL_USER2"), Env("OSTREL_PASS2"));
    EXPECT_TRUE(carol.ok()) << "the KDC is back: " << carol.error();
    plugin.SSOTermPackage();
    EXPECT_EQ(Realm("destroy " + dir), 0);
}
