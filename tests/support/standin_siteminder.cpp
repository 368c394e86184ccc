// Stand-ins for SiteMinder, never under the vendor's names: the agent library, with records at their
// byte offsets (apart from the plug-in's layout), and (STANDIN_POLICY_SERVER) the policy server it asks:
//   standin_policy_server CONFIG [PORT [DIR]]  prints "PORT PID" and serves until killed, or
//   with DIR goes to the background, leaving DIR/port and DIR/pid. CONFIG: "agent|NAME|SECRET",
//   "token|TOKEN|OK|id=value|id..." (a bare id: a null value; "now-N": the time less N) or "token|TOKEN|FAIL|code".
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#if defined(_WIN32)
#include <winsock2.h>
#define STANDIN_EXPORT extern "C" __declspec(dllexport)
constexpr int kNoSignal = 0;
#else
#include <arpa/inet.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#define STANDIN_EXPORT extern "C" __attribute__((visibility("default")))
#define closesocket close
constexpr int kNoSignal = MSG_NOSIGNAL;
#endif

namespace {

using Socket = decltype(socket(0, 0, 0));

// One line from the socket, what follows it kept for the next; false once the connection is gone.
bool ReadLine(Socket fd, std::string& io_buffered, std::string& o_line) {
    size_t end;
    while ((end = io_buffered.find('\n')) == std::string::npos) {
        char chunk[65536];
        const int n = static_cast<int>(recv(fd, chunk, sizeof chunk, 0));
        if (n <= 0) return false;
        io_buffered.append(chunk, static_cast<size_t>(n));
    }
    o_line = io_buffered.substr(0, end);
    io_buffered.erase(0, end + 1);
    return true;
}

sockaddr_in Address(uint32_t i_nAddress, int i_nPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(i_nPort));
    address.sin_addr.s_addr = i_nAddress;
    return address;
}

bool SendLine(Socket fd, std::string line) {
    line += "\n";
    return send(fd, line.data(), static_cast<int>(line.size()), kNoSignal) == static_cast<int>(line.size());
}

}  // namespace

#if defined(STANDIN_POLICY_SERVER)

namespace {

std::set<std::string> s_agents;  // "NAME|SECRET"
std::map<std::string, std::string> s_tokens;

std::string Answer(const std::string& request) {
    if (request.rfind("HELLO ", 0) == 0) return s_agents.count(request.substr(6)) != 0 ? "OK" : "NO";
    if (request == "PING") return "OK|1=stand-in policy server";
    const auto it = s_tokens.find(request.rfind("TOKEN ", 0) == 0 ? request.substr(6) : "");
    std::string reply = it != s_tokens.end() ? it->second : "FAIL|2";
    for (size_t at; (at = reply.find("=now")) != std::string::npos;) {
        const size_t end = reply.find('|', at);
        const long offset = std::atol(reply.substr(at + 4, end - at - 4).c_str());
        reply.replace(at + 1, end - at - 1, std::to_string(static_cast<long>(std::time(nullptr)) + offset));
    }
    return reply;
}

void Serve(int fd) {
    std::string buffered;
    for (std::string request; ReadLine(fd, buffered, request) && SendLine(fd, Answer(request));) {
    }
    close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    std::ifstream config(argc > 1 ? argv[1] : "");
    for (std::string line; std::getline(config, line);) {
        const size_t bar = line.find('|', 6);
        if (line.rfind("agent|", 0) == 0) s_agents.insert(line.substr(6));
        if (line.rfind("token|", 0) == 0) s_tokens[line.substr(6, bar - 6)] = line.substr(bar + 1);
    }
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = Address(htonl(INADDR_LOOPBACK), argc > 2 ? std::atoi(argv[2]) : 0);
    socklen_t length = sizeof address;
    if (!config.eof() || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 64) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("usage: standin_policy_server CONFIG [PORT [DIR]]");
        return 1;
    }
    const int port = ntohs(address.sin_port);
    if (argc > 3) {
        if (const pid_t child = fork(); child != 0) {
            std::ofstream(std::string(argv[3]) + "/pid") << child << "\n";
            return (std::ofstream(std::string(argv[3]) + "/port") << port << "\n") && child > 0 ? 0 : 1;
        }
        for (FILE* pStream : {stdout, stderr}) std::freopen("/dev/null", "w", pStream);
    } else {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // no test leaves it behind
    }
    std::printf("%d %d\n", port, static_cast<int>(getpid()));
    std::fflush(stdout);
    for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) std::thread(Serve, fd).detach();
    return 1;
}

#else  // the agent library

namespace {

struct Agent {
    ~Agent() { closesocket(fd); }
    Socket fd;
    std::string buffered;
    std::mutex lock;
};
std::string s_lastInit;
std::atomic<int> s_nOpenHandles{0};

// Fields by their offsets: a 32-bit number, a pointer.
int32_t Int(const char* p, size_t offset) { return *reinterpret_cast<const int32_t*>(p + offset); }
char*& Pointer(char* p, size_t offset) { return *reinterpret_cast<char**>(p + offset); }

bool Ask(Agent& agent, const std::string& request, std::string& reply) {
    return SendLine(agent.fd, request) && ReadLine(agent.fd, agent.buffered, reply);
}

// The server's answer as attribute records, or its failure code.
int Answer(void* pHandle, const std::string& request, int32_t* pnAttributes, char** ppAttributes) {
    std::string reply;
    if (pHandle == nullptr) return -3;
    std::lock_guard<std::mutex> guard(static_cast<Agent*>(pHandle)->lock);
    if (!Ask(*static_cast<Agent*>(pHandle), request, reply)) return -3;
    if (reply.rfind("OK", 0) != 0) return std::atoi(reply.c_str() + 5);
    *pnAttributes = 0;
    *ppAttributes = nullptr;
    for (size_t bar = reply.find('|'); bar != std::string::npos; bar = reply.find('|', bar + 1)) {
        *ppAttributes = static_cast<char*>(std::realloc(*ppAttributes, 88 * (*pnAttributes + 1)));
        char* pRecord = *ppAttributes + 88 * (*pnAttributes)++;
        const std::string item = reply.substr(bar + 1, reply.find('|', bar + 1) - bar - 1);
        const size_t equals = item.find('=');
        *reinterpret_cast<int32_t*>(pRecord) = std::atoi(item.c_str());
        char*& pValue = Pointer(pRecord, 80) = nullptr;
        if (equals != std::string::npos)
            pValue = std::strcpy(new char[item.size() - equals], item.c_str() + equals + 1);
    }
    return 0;
}

}  // namespace

STANDIN_EXPORT const char* StandinAgent_LastInit() { return s_lastInit.c_str(); }
STANDIN_EXPORT int StandinAgent_OpenHandles() { return s_nOpenHandles; }

// Connects to the first server whose host is a numeric IPv4 address and whose second port answers.
STANDIN_EXPORT int Sm_AgentApi_Init(const char* pInit, void** ppHandle) {
    char text[96];
    std::snprintf(text, sizeof text, "version=%d mode=%d servers=%d", Int(pInit, 0), Int(pInit, 516), Int(pInit, 520));
    s_lastInit = std::string(text) + " agent=" + (pInit + 4) + " secret=" + (pInit + 260);
    const char* pServers = Pointer(const_cast<char*>(pInit), 528);
    *ppHandle = nullptr;  // no server answers: a handle that DoManagement finds unconnected
    for (const char* s = pServers; s < pServers + 320 * Int(pInit, 520); s += 320) {
        std::snprintf(text, sizeof text, ":%d:%d:%d/%d,%d,%d,%d]", Int(s, 272), Int(s, 276), Int(s, 280), Int(s, 256),
                      Int(s, 260), Int(s, 264), Int(s, 268));
        s_lastInit += std::string(" [") + s + text;
        sockaddr_in address = Address(inet_addr(s), Int(s, 276));
        if (*ppHandle != nullptr || address.sin_addr.s_addr == INADDR_NONE) continue;
        auto* pAgent = new Agent{socket(AF_INET, SOCK_STREAM, 0), {}, {}};
        std::string reply;
        if (connect(pAgent->fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            Ask(*pAgent, std::string("HELLO ") + (pInit + 4) + "|" + (pInit + 260), reply) && reply == "OK") {
            *ppHandle = pAgent;
            ++s_nOpenHandles;
            continue;
        }
        delete pAgent;
        if (reply == "NO") return -1;
    }
    return 0;
}

STANDIN_EXPORT int Sm_AgentApi_UnInit(void** ppHandle) {
    if (*ppHandle == nullptr) return -1;
    delete static_cast<Agent*>(std::exchange(*ppHandle, nullptr));
    return --s_nOpenHandles, 0;
}

STANDIN_EXPORT int Sm_AgentApi_FreeAttributes(int32_t nAttributes, char* pAttributes) {
    for (int32_t i = 0; i < nAttributes; ++i) delete[] Pointer(pAttributes, 88 * i + 80);
    std::free(pAttributes);
    return 0;
}

STANDIN_EXPORT int Sm_AgentApi_DoManagement(void* pHandle, const char* pManagement, int32_t* pnAttributes,
                                            char** ppAttributes) {
    return Int(pManagement, 0) == 1 ? Answer(pHandle, "PING", pnAttributes, ppAttributes) : -2;
}

#if !defined(STANDIN_WITHOUT_DECODE)
STANDIN_EXPORT int Sm_AgentApi_DecodeSSOToken(void* pHandle, const char* pszToken, int32_t*, int32_t*,
                                              int32_t* pnAttributes, char** ppAttributes, int32_t, void*, void*) {
    return Answer(pHandle, std::string("TOKEN ") + pszToken, pnAttributes, ppAttributes);
}
#endif

#endif
