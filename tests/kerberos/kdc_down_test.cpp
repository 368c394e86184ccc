// An acceptor needs no KDC: with the KDC gone, tickets already issued still log in.
// Runs on a realm of its own, so that the shared realm's KDC is never stopped.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "integration/Plugin.h"
#include "kerberos/KerberosClient.h"

using ostrel_test::Bytes;
using ostrel_test::Env;
using ostrel_test::KerberosClient;
using ostrel_test::Plugin;
using ostrel_test::Text;

namespace {

int Realm(const std::string& i_args) {
    return std::system(("bash " OSTREL_REALM_SCRIPT " " + i_args + " >/dev/null 2>&1").c_str());
}

class KdcDown : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string base = Env("OSTREL_REALM_DIR");
        if (base.empty()) {
            GTEST_SKIP() << "needs the test realm (run through ctest)";
        }
        m_dir = base + "-kdc-down";
        // The watchdog stops this KDC should the test die before TearDown.
        ASSERT_EQ(Realm("start " + m_dir + " --replace --watch " + std::to_string(::getpid())), 0);
        m_bStarted = true;
        for (const char* var : {"KRB5_CONFIG", "KRB5_KDC_PROFILE"}) {
            const std::string file = std::string(var) == "KRB5_CONFIG" ? "/krb5.conf" : "/kdc.conf";
            m_env.emplace_back(new ostrel_test::ScopedEnv(var, (m_dir + file).c_str()));
        }
        m_env.emplace_back(new ostrel_test::ScopedEnv("KRB5_KTNAME", ("FILE:" + m_dir + "/keytab").c_str()));
        m_env.emplace_back(new ostrel_test::ScopedEnv("KRB5RCACHEDIR", (m_dir + "/rcache").c_str()));
        ASSERT_EQ(plugin.SSOInitPackage(), 0u);
        const std::u16string spn = ostrel_test::Wide(Env("OSTREL_SPN"));
        ParasSeq seq{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                     const_cast<ostrel_char*>(reinterpret_cast<const ostrel_char*>(spn.c_str())), nullptr};
        ASSERT_EQ(plugin.SSOInitProvider(SSO_PROVIDER_GSSAPI, &seq), 0u);
    }
    void TearDown() override {
        if (m_bStarted) {
            plugin.SSOTermPackage();
            EXPECT_EQ(Realm("destroy " + m_dir), 0);
        }
    }

    unsigned int AcceptOnePass(const Bytes& i_token) {
        void* pBuffer = nullptr;
        size_t nLength = 0;
        ostrel_char* pKey = nullptr;
        const unsigned int rc = plugin.SSOAcceptLogin(OSTREL_T(""), SSO_PROVIDER_GSSAPI, i_token.data(), i_token.size(),
                                                      &pBuffer, &nLength, nullptr, &pKey);
        plugin.SSOFreeBuffer(pBuffer);
        plugin.SSOFreeString(pKey);
        return rc;
    }

    Plugin plugin;
    std::string m_dir;
    bool m_bStarted = false;
    std::vector<std::unique_ptr<ostrel_test::ScopedEnv>> m_env;
};

}  // namespace

TEST_F(KdcDown, TicketsAlreadyIssuedStillLogIn) {
    KerberosClient alice(Env("OSTREL_USER1"), Env("OSTREL_PASS1"));
    ASSERT_TRUE(alice.ok()) << alice.error();
    // The service ticket is fetched now, while the KDC runs, and kept in the client's credentials.
    ASSERT_EQ(AcceptOnePass(alice.Start(Env("OSTREL_SPN"), false)), 2u);

    ASSERT_EQ(Realm("stop-kdc " + m_dir), 0);
    for (int i = 0; i < 3; ++i) {
        const Bytes token = alice.Start(Env("OSTREL_SPN"), false);
        ASSERT_FALSE(token.empty()) << alice.error();
        EXPECT_EQ(AcceptOnePass(token), 2u);
    }
    // A newcomer cannot get a ticket at all; the host is not disturbed by that.
    KerberosClient bob(Env("OSTREL_USER2"), Env("OSTREL_PASS2"));
    EXPECT_FALSE(bob.ok());
    EXPECT_NE(bob.error().find("Cannot contact any KDC"), std::string::npos) << bob.error();
    EXPECT_EQ(AcceptOnePass(alice.Start(Env("OSTREL_SPN"), false)), 2u);
}
