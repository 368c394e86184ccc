// The demo: one Kerberos login, accepted by the plug-in the way a server platform
// accepts it. This program is the host: it loads libostrel.so with dlopen and
// calls its C functions. The user's side runs in a second program, demo_client,
// which this one starts and exchanges tokens with over a pipe.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "PluginHost.h"

using namespace ostrel_example;

namespace {


void Host(const std::string& i_text) { std::printf("host    %s\n", i_text.c_str()); std::fflush(stdout); }
void Client(const std::string& i_text) { std::printf("client  %s\n", i_text.c_str()); std::fflush(stdout); }
void Detail(const std::string& i_text) { std::printf("          %s\n", i_text.c_str()); std::fflush(stdout); }

const char* Meaning(unsigned int i_nStatus) {
    switch (i_nStatus) {
        case SSO_STATUS_OK: return "done";
        case SSO_STATUS_CONTINUE: return "the plug-in has a reply for the client and wants one more call";
        case SSO_STATUS_SERVER_DONE: return "the login is accepted";
        case SSO_STATUS_LOGON_DENIED: return "the login is refused";
        default: return "refused";
    }
}

// The client program, connected to us through two pipes.
class ClientProcess {
public:
    ~ClientProcess() { Finish(); }

    bool Start(const std::string& i_program, const std::vector<std::string>& i_args) {
        int toChild[2];
        int fromChild[2];
        if (::pipe2(toChild, O_CLOEXEC) != 0) {
            return false;
        }
        if (::pipe2(fromChild, O_CLOEXEC) != 0) {
            ::close(toChild[0]);
            ::close(toChild[1]);
            return false;
        }
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(i_program.c_str()));
        for (const std::string& arg : i_args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(toChild[0], STDIN_FILENO);
            ::dup2(fromChild[1], STDOUT_FILENO);
            ::execv(i_program.c_str(), argv.data());
            std::fprintf(stderr, "demo_host: cannot run %s: %s\n", i_program.c_str(), std::strerror(errno));
            ::_exit(127);
        }
        ::close(toChild[0]);
        ::close(fromChild[1]);
        if (m_pid < 0) {
            ::close(toChild[1]);
            ::close(fromChild[0]);
            return false;
        }
        m_pTo = ::fdopen(toChild[1], "w");
        m_pFrom = ::fdopen(fromChild[0], "r");
        return m_pTo != nullptr && m_pFrom != nullptr;
    }

    // The next line that is not narration; narration is printed on the way.
    std::string Next() {
        for (;;) {
            char* pLine = nullptr;
            size_t nCapacity = 0;
            const ssize_t n = ::getline(&pLine, &nCapacity, m_pFrom);
            std::string line = n > 0 ? std::string(pLine, static_cast<size_t>(n)) : std::string();
            std::free(pLine);
            if (n <= 0) {
                return "FAIL the client stopped without a word";
            }
            if (line.back() == '\n') {
                line.pop_back();
            }
            if (line.rfind("SAY ", 0) == 0) {
                Client(line.substr(4));
                continue;
            }
            return line;
        }
    }

    void Send(const std::string& i_line) {
        std::fprintf(m_pTo, "%s\n", i_line.c_str());
        std::fflush(m_pTo);
    }

    // Closes the pipes and waits; true when the client ended well.
    bool Finish() {
        if (m_pTo != nullptr) {
            std::fclose(m_pTo);
            m_pTo = nullptr;
        }
        if (m_pFrom != nullptr) {
            std::fclose(m_pFrom);
            m_pFrom = nullptr;
        }
        if (m_pid <= 0) {
            return m_bOk;
        }
        int status = 0;
        while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        m_pid = -1;
        m_bOk = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        return m_bOk;
    }

private:
    pid_t m_pid = -1;
    FILE* m_pTo = nullptr;
    FILE* m_pFrom = nullptr;
    bool m_bOk = false;
};

void Report(const AcceptPass& i_pass) {
    Detail("-> " + StatusText(i_pass.status) + ": " + Meaning(i_pass.status));
    if (!i_pass.error.empty()) {
        Detail("   error record: " + i_pass.error);
    }
}

// The provider "SSPI" at both ends in this one process: a password login of a principal named
// after a local account (so that it has SIDs), accepted with its logon information, and the
// finished context found in the plug-in's cache by its session ID.
bool SspiRound(Plugin& io_plugin, const std::string& i_principal, const std::string& i_password,
               const std::string& i_service) {
    std::printf("\n");
    Host("SSPI round: this process is now the client too, through the provider \"SSPI\"");
    const std::u16string spn = FromAscii(i_service);
    ParasSeq spnParameter{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                          const_cast<ostrel_char*>(spn.c_str()), nullptr};
    unsigned int status = io_plugin.SSOInitProvider(SSO_PROVIDER_SSPI, &spnParameter);
    Host("SSOInitProvider(\"SSPI\", SI_SERVER_SSPI_SPN=" + i_service + ") -> " + StatusText(status));
    if (status != SSO_STATUS_OK) {
        Detail("error record: " + DescribeError(io_plugin, status));
        return false;
    }

    ostrel_char* pClientKey = nullptr;
    void* pToken = nullptr;
    size_t nToken = 0;
    status = io_plugin.SSOStartLogin(FromAscii(i_principal).c_str(), FromAscii(i_password).c_str(), SSO_PROVIDER_SSPI,
                                     &spnParameter, &pClientKey, &pToken, &nToken);
    Host("client: SSOStartLogin(\"" + i_principal + "\", its password, \"SSPI\") -> " + StatusText(status));
    if (status != SSO_STATUS_CONTINUE) {
        Detail("error record: " + DescribeError(io_plugin, status));
        return false;
    }
    const Bytes token(static_cast<unsigned char*>(pToken), static_cast<unsigned char*>(pToken) + nToken);
    const std::u16string clientKey = pClientKey;
    io_plugin.SSOFreeBuffer(pToken);
    io_plugin.SSOFreeString(pClientKey);
    Detail("   a token of " + std::to_string(token.size()) + " bytes for the server");

    Host("server: SSOAcceptLogin(no session key, that token, asking for logon information)");
    AcceptPass pass = Accept(io_plugin, u"", &token, SSO_PROVIDER_SSPI);
    Report(pass);
    if (pass.status != SSO_STATUS_CONTINUE) {
        return false;
    }
    void* pLast = nullptr;
    size_t nLast = 0;
    status = io_plugin.SSOContinueLogin(clientKey.c_str(), pass.reply.data(), pass.reply.size(), &pLast, &nLast);
    io_plugin.SSOFreeBuffer(pLast);
    Host("client: SSOContinueLogin(its session key, the server's reply of " + std::to_string(pass.reply.size()) +
         " bytes) -> " + StatusText(status) + ": the server is who it claims");
    if (status != SSO_STATUS_OK) {
        Detail("error record: " + DescribeError(io_plugin, status));
        return false;
    }
    Host("server: SSOAcceptLogin(its session key, no token)");
    pass = Accept(io_plugin, pass.key, nullptr, SSO_PROVIDER_SSPI);
    Report(pass);
    if (pass.status != SSO_STATUS_SERVER_DONE) {
        return false;
    }
    Detail("   session ID: " + ToUtf8(pass.key.c_str()) + " (the finished context, kept in the plug-in's cache)");
    Detail("   SSPI_USER_SID: " + pass.sid);
    Detail("   SSPI_USER_GROUP_SIDS: " + pass.groupSids);
    status = io_plugin.SSOLookupSecurityContext(pass.key.c_str());
    Host("SSOLookupSecurityContext(the session ID) -> " + StatusText(status) +
         (status == SSO_STATUS_OK ? ": cached and valid" : ""));
    const unsigned int released = io_plugin.SSOReleaseSecurityContext(pass.key.c_str());
    Host("SSOReleaseSecurityContext(the session ID) -> " + StatusText(released));
    return status == SSO_STATUS_OK && released == SSO_STATUS_OK && !pass.sid.empty();
}

int Usage(const char* i_pProgram) {
    std::fprintf(stderr,
                 "usage: %s [--plugin LIB] [--client PROGRAM] [--service SPN] [--sspi-user NAME@REALM]\n"
                 "          USER PASSWORD-FILE\n"
                 "  Runs one Kerberos login of USER (password from PASSWORD-FILE, \"user password\" lines)\n"
                 "  against service SPN (default HTTP/localhost), accepted by the plug-in LIB\n"
                 "  (default: libostrel.so next to this program). The realm comes from KRB5_CONFIG,\n"
                 "  the service's key from KRB5_KTNAME. With --sspi-user, then a login of NAME (a\n"
                 "  principal named after a local account, its password in PASSWORD-FILE too) through\n"
                 "  the provider \"SSPI\", both ends in this process.\n",
                 i_pProgram);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string pluginPath = ExecutableDir() + "/libostrel.so";
    std::string clientPath = ExecutableDir() + "/demo_client";
    std::string service = "HTTP/localhost";
    std::string sspiUser;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--plugin" || arg == "--client" || arg == "--service" || arg == "--sspi-user") && i + 1 < argc) {
            (arg == "--plugin" ? pluginPath : arg == "--client" ? clientPath : arg == "--service" ? service : sspiUser) =
                argv[++i];
        } else if (arg.rfind("--", 0) == 0) {
            return Usage(argv[0]);
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != 2) {
        return Usage(argv[0]);
    }
    const std::string& user = positional[0];

    std::printf("ostrel demo: one Kerberos login, accepted by the plug-in\n\n"
                "This program plays the server platform: it loads the plug-in and hands it\n"
                "the client's tokens. The client is a separate program that logs in as %s.\n\n",
                user.c_str());

    Plugin plugin;
    std::string error;
    if (!plugin.Load(pluginPath, error)) {
        Host("cannot load the plug-in: " + error);
        return 1;
    }
    Host("loaded " + pluginPath + " and found its functions");

    unsigned int status = plugin.SSOInitPackage();
    Host("SSOInitPackage -> " + StatusText(status));
    if (status != SSO_STATUS_OK) {
        return 1;
    }
    const std::u16string spn = FromAscii(service);
    ParasSeq spnParameter{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                          const_cast<ostrel_char*>(spn.c_str()), nullptr};
    status = plugin.SSOInitProvider(SSO_PROVIDER_GSSAPI, &spnParameter);
    Host("SSOInitProvider(\"GSSAPI\", SI_SERVER_SSPI_SPN=" + service + ") -> " + StatusText(status));
    if (status != SSO_STATUS_OK) {
        Detail("error record: " + DescribeError(plugin, status));
        plugin.SSOTermPackage();
        return 1;
    }

    bool bLoggedIn = false;
    std::string userName;
    {
        ClientProcess client;
        if (!client.Start(clientPath, {user, positional[1], service})) {
            Host("cannot start the client " + clientPath);
            plugin.SSOTermPackage();
            return 1;
        }
        std::string line = client.Next();
        Bytes token;
        if (line.rfind("TOKEN ", 0) != 0 || !Base64Decode(line.substr(6), token)) {
            Client("could not log in: " + (line.rfind("FAIL ", 0) == 0 ? line.substr(5) : line));
            client.Finish();
            plugin.SSOTermPackage();
            return 1;
        }

        Host("pass 1: SSOAcceptLogin(no session key, the client's token of " + std::to_string(token.size()) +
             " bytes)");
        AcceptPass pass = Accept(plugin, u"", &token);
        Report(pass);
        if (pass.status == SSO_STATUS_CONTINUE) {
            Detail("   reply token: " + std::to_string(pass.reply.size()) + " bytes, for the client");
            Detail("   session key: " + ToUtf8(pass.key.c_str()) + " (names this login in the next call)");
            client.Send("REPLY " + Base64Encode(pass.reply.data(), pass.reply.size()));
            line = client.Next();
            if (line != "DONE") {
                Client("could not finish: " + (line.rfind("FAIL ", 0) == 0 ? line.substr(5) : line));
            } else {
                Host("pass 2: SSOAcceptLogin(the session key, no token): the reply reached the client");
                pass = Accept(plugin, pass.key, nullptr);
                Report(pass);
            }
        }
        if (pass.status == SSO_STATUS_SERVER_DONE) {
            Detail("   session key: " + ToUtf8(pass.key.c_str()) + " (this provider keeps nothing after a login)");
            Detail("   GSSAPI_USER_NAME: " + pass.userName);
            userName = pass.userName;
            bLoggedIn = !userName.empty();
        }

        if (pass.status >= SSO_STATUS_FAILURE) {
            Detail("   (OSTREL_TRACE=stderr shows the plug-in's own account of it)");
        }

        // What an eavesdropper would try: the same first token again.
        if (bLoggedIn) {
            Host("the client's first token once more, as an eavesdropper would replay it:");
            AcceptPass replay = Accept(plugin, u"", &token);
            Report(replay);
            if (replay.status == SSO_STATUS_CONTINUE) {
                // Accepted again (the replay cache is off); the closing call ends that login.
                EndLogin(plugin, replay.key);
            }
            if (replay.status < SSO_STATUS_FAILURE) {
                Detail("   accepted: Kerberos's replay cache is off here (KRB5RCACHETYPE=none)");
            }
        }

        client.Send("END");
        bLoggedIn = client.Finish() && bLoggedIn;
    }

    std::string sspiPassword;
    bool bSspi = sspiUser.empty();
    if (!bSspi && !PasswordOf(positional[1], sspiUser.substr(0, sspiUser.find('@')), sspiPassword)) {
        Host("no password for " + sspiUser + " in " + positional[1]);
    } else if (!bSspi) {
        bSspi = SspiRound(plugin, sspiUser, sspiPassword, service);
    }

    std::printf("\n");
    status = plugin.SSOTermPackage();
    Host("SSOTermPackage -> " + StatusText(status));
    std::printf("\n");
    if (!bLoggedIn) {
        std::printf("The login of %s failed.\n", user.c_str());
        return 1;
    }
    std::printf("%s logged in; the plug-in named the user %s.\n", user.c_str(), userName.c_str());
    if (!sspiUser.empty()) {
        std::printf(bSspi ? "%s logged in through \"SSPI\"; the plug-in gave its SIDs and kept its context.\n"
                          : "The \"SSPI\" login of %s failed.\n",
                    sspiUser.c_str());
    }
    return bSspi ? 0 : 1;
}
