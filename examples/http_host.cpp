// An HTTP/1.1 host that logs every request in with Kerberos ("Negotiate") through
// the plug-in, loaded with dlopen as a server platform loads it.
//
//   http_host --port N [--port-file FILE] [--plugin LIB] [--service SPN] [--threads N]
//
// Listens on 127.0.0.1 only. A request without a token gets 401 and
// "WWW-Authenticate: Negotiate"; a good token gets 200 and the user's name; any
// failure gets 401 and a line on stderr with the plug-in's status and error record.
// SIGTERM or SIGINT stops it: open connections are closed, then SSOTermPackage.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "PluginHost.h"

using namespace ostrel_example;

namespace {


constexpr size_t kMaxHead = 64 * 1024;  // Kerberos tokens with group data run to several kilobytes
constexpr size_t kMaxBody = 1024 * 1024;
constexpr int kMaxThreads = 64;

struct Options {
    int port = -1;
    std::string portFile;
    std::string plugin = ExecutableDir() + "/libostrel.so";
    std::string service = "HTTP/localhost";
    int threads = 4;
    int idleSeconds = 15;
};

Plugin g_plugin;
int g_stopRead = -1;  // readable once the host is stopping; never drained, so every poller sees it

void Log(const std::string& i_line) {
    // One call per line: lines from several workers do not interleave.
    std::fprintf(stderr, "http_host: %s\n", i_line.c_str());
}

// ---- What the plug-in is asked ----

// A login the client walked away from would otherwise wait in the plug-in until
// SSOTermPackage: the closing call ends it, whatever it answers.
void Abandon(std::u16string& io_key) {
    if (io_key.empty()) {
        return;
    }
    EndLogin(g_plugin, io_key);
    io_key.clear();
}

// ---- Whether a reply token ends the exchange ----
//
// The plug-in answers 1 both when its reply completes the login (one closing call
// left) and when it needs another token from the client. Over HTTP the closing
// call cannot wait for another request, so the reply itself is read: a SPNEGO
// answer carries its state, a bare Kerberos reply (AP-REP) is always final.

bool ReadTlv(const unsigned char*& io_p, const unsigned char* i_pEnd, unsigned char& o_tag,
             const unsigned char*& o_pContent, size_t& o_nLength) {
    if (i_pEnd - io_p < 2) {
        return false;
    }
    o_tag = *io_p++;
    size_t length = *io_p++;
    if (length & 0x80) {
        const size_t nBytes = length & 0x7F;
        if (nBytes == 0 || nBytes > 4 || static_cast<size_t>(i_pEnd - io_p) < nBytes) {
            return false;
        }
        length = 0;
        for (size_t i = 0; i < nBytes; ++i) {
            length = (length << 8) | *io_p++;
        }
    }
    if (static_cast<size_t>(i_pEnd - io_p) < length) {
        return false;
    }
    o_pContent = io_p;
    o_nLength = length;
    io_p += length;
    return true;
}

bool ReplyFinishesLogin(const Bytes& i_reply) {
    const unsigned char* p = i_reply.data();
    const unsigned char* const pEnd = p + i_reply.size();
    unsigned char tag = 0;
    const unsigned char* pContent = nullptr;
    size_t nLength = 0;
    if (!ReadTlv(p, pEnd, tag, pContent, nLength)) {
        return false;
    }
    if (tag == 0xA1) {  // NegTokenResp: SEQUENCE { [0] negState ENUMERATED, ... }
        const unsigned char* q = pContent;
        if (!ReadTlv(q, pContent + nLength, tag, pContent, nLength) || tag != 0x30) {
            return false;
        }
        const unsigned char* const pSeqEnd = pContent + nLength;
        q = pContent;
        while (q < pSeqEnd) {
            if (!ReadTlv(q, pSeqEnd, tag, pContent, nLength)) {
                return false;
            }
            if (tag == 0xA0) {
                const unsigned char* r = pContent;
                if (!ReadTlv(r, pContent + nLength, tag, pContent, nLength) || tag != 0x0A || nLength != 1) {
                    return false;
                }
                return pContent[0] == 0;  // accept-completed
            }
        }
        return false;
    }
    if (tag == 0x60) {  // framed mechanism token: OID, then a two-byte token id
        static const unsigned char kKrb5[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x02};
        static const unsigned char kKrb5Microsoft[] = {0x2A, 0x86, 0x48, 0x82, 0xF7, 0x12, 0x01, 0x02, 0x02};
        const unsigned char* q = pContent;
        const unsigned char* const pInnerEnd = pContent + nLength;
        if (!ReadTlv(q, pInnerEnd, tag, pContent, nLength) || tag != 0x06 || nLength != sizeof(kKrb5)) {
            return false;
        }
        const bool bKerberos = std::memcmp(pContent, kKrb5, nLength) == 0 ||
                               std::memcmp(pContent, kKrb5Microsoft, nLength) == 0;
        return bKerberos && pInnerEnd - q >= 2 && q[0] == 0x02 && q[1] == 0x00;  // AP-REP
    }
    return false;
}

// ---- HTTP ----

struct Request {
    std::string method;
    std::string target;
    std::string version;
    std::vector<std::pair<std::string, std::string>> headers;
    bool keepAlive = true;
};

struct Response {
    int code = 401;
    std::string negotiate;  // WWW-Authenticate value; empty: none
    std::string body;
};

bool EqualsNoCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

std::string Trim(const std::string& s) {
    const size_t first = s.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

const char* Reason(int i_nCode) {
    switch (i_nCode) {
        case 200: return "OK";
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 408: return "Request Timeout";
        case 413: return "Content Too Large";
        case 431: return "Request Header Fields Too Large";
        case 501: return "Not Implemented";
        default: return "Error";
    }
}

class Connection {
public:
    Connection(int i_fd, std::string i_peer) : m_fd(i_fd), m_peer(std::move(i_peer)) {}
    ~Connection() {
        Abandon(m_pendingKey);
        ::close(m_fd);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void Serve(int i_idleSeconds) {
        for (;;) {
            Request request;
            const int nError = ReadRequest(request, i_idleSeconds);
            if (nError < 0) {
                return;  // closed, idle or stopping
            }
            if (nError > 0) {
                Response response{nError, {}, std::string(Reason(nError)) + "\n"};
                Send(response, false, false);
                return;
            }
            const Response response = Authenticate(request);
            const bool bHead = request.method == "HEAD";
            if (!Send(response, bHead, request.keepAlive) || !request.keepAlive) {
                return;
            }
        }
    }

private:
    enum Fill { kData, kClosed, kIdle, kStopping };

    Fill FillBuffer(int i_idleSeconds) {
        pollfd fds[2] = {{m_fd, POLLIN, 0}, {g_stopRead, POLLIN, 0}};
        for (;;) {
            const int n = ::poll(fds, 2, i_idleSeconds * 1000);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n == 0) {
                return kIdle;
            }
            if (n < 0 || (fds[1].revents & POLLIN) != 0) {
                return kStopping;
            }
            char chunk[16384];
            const ssize_t got = ::recv(m_fd, chunk, sizeof(chunk), 0);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return kClosed;
            }
            m_buffer.append(chunk, static_cast<size_t>(got));
            return kData;
        }
    }

    // 0: a request; an HTTP status: answer it and close; -1: just close.
    int ReadRequest(Request& o_request, int i_idleSeconds) {
        size_t headEnd;
        while ((headEnd = m_buffer.find("\r\n\r\n")) == std::string::npos) {
            if (m_buffer.size() > kMaxHead) {
                return 431;
            }
            const Fill fill = FillBuffer(i_idleSeconds);
            if (fill != kData) {
                return fill == kIdle && !m_buffer.empty() ? 408 : -1;
            }
        }
        if (headEnd > kMaxHead) {
            return 431;
        }
        const std::string head = m_buffer.substr(0, headEnd);
        m_buffer.erase(0, headEnd + 4);

        size_t lineEnd = head.find("\r\n");
        const std::string requestLine = head.substr(0, lineEnd);
        const size_t space1 = requestLine.find(' ');
        const size_t space2 = space1 == std::string::npos ? std::string::npos : requestLine.find(' ', space1 + 1);
        if (space2 == std::string::npos) {
            return 400;
        }
        o_request.method = requestLine.substr(0, space1);
        o_request.target = requestLine.substr(space1 + 1, space2 - space1 - 1);
        o_request.version = requestLine.substr(space2 + 1);
        if (o_request.version != "HTTP/1.1" && o_request.version != "HTTP/1.0") {
            return 400;
        }
        o_request.keepAlive = o_request.version == "HTTP/1.1";

        size_t contentLength = 0;
        while (lineEnd != std::string::npos) {
            const size_t start = lineEnd + 2;
            lineEnd = head.find("\r\n", start);
            const std::string line = head.substr(start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start);
            const size_t colon = line.find(':');
            if (colon == std::string::npos || colon == 0 || line[0] == ' ' || line[0] == '\t') {
                return 400;
            }
            const std::string name = line.substr(0, colon);
            const std::string value = Trim(line.substr(colon + 1));
            if (EqualsNoCase(name, "Transfer-Encoding")) {
                return 501;
            }
            if (EqualsNoCase(name, "Content-Length")) {
                if (value.empty() || value.size() > 9 || value.find_first_not_of("0123456789") != std::string::npos) {
                    return 400;
                }
                contentLength = std::strtoul(value.c_str(), nullptr, 10);
                if (contentLength > kMaxBody) {
                    return 413;
                }
            }
            if (EqualsNoCase(name, "Connection")) {
                if (EqualsNoCase(value, "close")) {
                    o_request.keepAlive = false;
                } else if (EqualsNoCase(value, "keep-alive")) {
                    o_request.keepAlive = true;
                }
            }
            o_request.headers.emplace_back(name, value);
        }
        // The body means nothing here; it is read only to find the next request.
        while (m_buffer.size() < contentLength) {
            if (FillBuffer(i_idleSeconds) != kData) {
                return -1;
            }
        }
        m_buffer.erase(0, contentLength);
        return 0;
    }

    Response Refuse(const Request& i_request, const std::string& i_why) {
        Log(m_peer + " " + i_request.method + " " + i_request.target + ": 401, " + i_why);
        return Response{401, "Negotiate", "Kerberos login required\n"};
    }

    Response Authenticate(const Request& i_request) {
        std::vector<std::string> authorization;
        for (const auto& [name, value] : i_request.headers) {
            if (EqualsNoCase(name, "Authorization")) {
                authorization.push_back(value);
            }
        }
        if (authorization.empty()) {
            // The usual first request of a browser or curl: no log line for it.
            Abandon(m_pendingKey);
            return Response{401, "Negotiate", "Kerberos login required\n"};
        }
        const std::string& value = authorization.front();
        const size_t space = value.find(' ');
        Bytes token;
        if (authorization.size() != 1 || space == std::string::npos ||
            !EqualsNoCase(value.substr(0, space), "Negotiate") || !Base64Decode(Trim(value.substr(space + 1)), token) ||
            token.empty()) {
            Abandon(m_pendingKey);
            return Refuse(i_request, "not one Negotiate token in base64");
        }

        // An unfinished login on this connection goes on; otherwise a new one starts.
        const std::u16string key = std::move(m_pendingKey);
        m_pendingKey.clear();
        AcceptPass pass = Accept(g_plugin, key, &token);
        Response response;
        if (!pass.reply.empty()) {
            response.negotiate = "Negotiate " + Base64Encode(pass.reply.data(), pass.reply.size());
        }
        if (pass.status == SSO_STATUS_CONTINUE) {
            if (pass.reply.empty()) {
                Abandon(pass.key);
                return Refuse(i_request, "SSOAcceptLogin -> 1 CONTINUE without a reply for the client");
            }
            if (!ReplyFinishesLogin(pass.reply)) {
                m_pendingKey = pass.key;
                response.body = "Kerberos login continues\n";
                return response;
            }
            const std::u16string openKey = pass.key;
            pass = Accept(g_plugin, openKey, nullptr);
        }
        if (pass.status != SSO_STATUS_SERVER_DONE) {
            return Refuse(i_request, "SSOAcceptLogin -> " + StatusText(pass.status) +
                                         (pass.error.empty() ? "" : "; " + pass.error));
        }
        if (pass.userName.empty()) {
            return Refuse(i_request, "SSOAcceptLogin -> 2 SERVER_DONE without GSSAPI_USER_NAME");
        }
        Log(m_peer + " " + i_request.method + " " + i_request.target + ": 200, " + pass.userName);
        response.code = 200;
        response.body = "Hello " + pass.userName + "\n";
        return response;
    }

    bool Send(const Response& i_response, bool i_bHead, bool i_bKeepAlive) {
        std::string out = "HTTP/1.1 " + std::to_string(i_response.code) + " " + Reason(i_response.code) + "\r\n";
        if (!i_response.negotiate.empty()) {
            out += "WWW-Authenticate: " + i_response.negotiate + "\r\n";
        }
        out += "Content-Type: text/plain; charset=utf-8\r\n";
        out += "Content-Length: " + std::to_string(i_response.body.size()) + "\r\n";
        if (!i_bKeepAlive) {
            out += "Connection: close\r\n";
        }
        out += "\r\n";
        if (!i_bHead) {
            out += i_response.body;
        }
        size_t sent = 0;
        while (sent < out.size()) {
            const ssize_t n = ::send(m_fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return false;
            }
            sent += static_cast<size_t>(n);
        }
        return true;
    }

    int m_fd;
    std::string m_peer;
    std::string m_buffer;
    std::u16string m_pendingKey;  // of a login that wants another token on this connection
};

// Each worker takes one connection at a time from the shared listening socket.
void Worker(int i_listenFd, int i_idleSeconds) {
    for (;;) {
        pollfd fds[2] = {{i_listenFd, POLLIN, 0}, {g_stopRead, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            return;
        }
        sockaddr_in peer{};
        socklen_t peerLength = sizeof(peer);
        // Non-blocking listener: another worker may have taken this connection.
        const int fd = ::accept4(i_listenFd, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        // A client that stops reading cannot hold a worker for ever.
        const timeval sendTimeout{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof(sendTimeout));
        char address[INET_ADDRSTRLEN] = "?";
        ::inet_ntop(AF_INET, &peer.sin_addr, address, sizeof(address));
        Connection connection(fd, std::string(address) + ":" + std::to_string(ntohs(peer.sin_port)));
        connection.Serve(i_idleSeconds);
    }
}

int Usage(const char* i_pProgram) {
    std::fprintf(stderr,
                 "usage: %s --port N [--port-file FILE] [--plugin LIB] [--service SPN] [--threads N]\n"
                 "  Serves http://localhost:N/ on 127.0.0.1 (N = 0: any free port, printed and written to FILE)\n"
                 "  and logs each request in with Kerberos through the plug-in LIB (default: libostrel.so\n"
                 "  next to this program) as service SPN (default HTTP/localhost; its key from KRB5_KTNAME).\n"
                 "  N worker threads (1..%d, default 4) serve one connection each at a time.\n",
                 i_pProgram, kMaxThreads);
    return 2;
}

bool ParseInt(const char* i_pText, int i_nMin, int i_nMax, int& o_value) {
    char* pEnd = nullptr;
    errno = 0;
    const long value = std::strtol(i_pText, &pEnd, 10);
    if (errno != 0 || pEnd == i_pText || *pEnd != 0 || value < i_nMin || value > i_nMax) {
        return false;
    }
    o_value = static_cast<int>(value);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) {
            return Usage(argv[0]);
        }
        const char* pValue = argv[++i];
        if (arg == "--port") {
            if (!ParseInt(pValue, 0, 65535, options.port)) {
                return Usage(argv[0]);
            }
        } else if (arg == "--threads") {
            if (!ParseInt(pValue, 1, kMaxThreads, options.threads)) {
                return Usage(argv[0]);
            }
        } else if (arg == "--port-file") {
            options.portFile = pValue;
        } else if (arg == "--plugin") {
            options.plugin = pValue;
        } else if (arg == "--service") {
            options.service = pValue;
        } else {
            return Usage(argv[0]);
        }
    }
    if (options.port < 0) {
        return Usage(argv[0]);
    }

    // Signals are taken by the main thread alone, with sigwait; workers never see them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    std::string error;
    if (!g_plugin.Load(options.plugin, error)) {
        Log("cannot load the plug-in: " + error);
        return 1;
    }
    unsigned int status = g_plugin.SSOInitPackage();
    if (status != SSO_STATUS_OK) {
        Log("SSOInitPackage -> " + StatusText(status));
        return 1;
    }
    const std::u16string spn = FromAscii(options.service);
    ParasSeq spnParameter{const_cast<ostrel_char*>(WP_SI_SERVER_SSPI_SPN_W), SSO_PARAM_STRING, 0,
                          const_cast<ostrel_char*>(spn.c_str()), nullptr};
    status = g_plugin.SSOInitProvider(SSO_PROVIDER_GSSAPI, &spnParameter);
    if (status != SSO_STATUS_OK) {
        Log("SSOInitProvider(GSSAPI, " + options.service + ") -> " + StatusText(status) + "; " +
            DescribeError(g_plugin, status));
        g_plugin.SSOTermPackage();
        return 1;
    }

    const int listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int reuse = 1;
    ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(options.port));
    socklen_t addressLength = sizeof(address);
    int stopPipe[2] = {-1, -1};
    if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listenFd, 64) != 0 ||
        ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &addressLength) != 0 ||
        ::pipe2(stopPipe, O_CLOEXEC) != 0) {
        Log(std::string("cannot listen on 127.0.0.1:") + std::to_string(options.port) + ": " + std::strerror(errno));
        if (listenFd >= 0) {
            ::close(listenFd);
        }
        g_plugin.SSOTermPackage();
        return 1;
    }
    g_stopRead = stopPipe[0];
    const int port = ntohs(address.sin_port);
    if (!options.portFile.empty()) {
        // Written whole, then renamed: a reader never sees half a number.
        const std::string temporary = options.portFile + ".tmp";
        FILE* pFile = std::fopen(temporary.c_str(), "w");
        const bool bWritten = pFile != nullptr && std::fprintf(pFile, "%d\n", port) > 0;
        if (pFile != nullptr) {
            std::fclose(pFile);
        }
        if (!bWritten || std::rename(temporary.c_str(), options.portFile.c_str()) != 0) {
            Log("cannot write " + options.portFile);
        }
    }
    std::printf("listening on http://localhost:%d/ (service %s, %d threads)\n", port, options.service.c_str(),
                options.threads);
    std::fflush(stdout);

    std::vector<std::thread> workers;
    for (int i = 0; i < options.threads; ++i) {
        workers.emplace_back(Worker, listenFd, options.idleSeconds);
    }
    int signal = 0;
    sigwait(&stopSignals, &signal);
    Log(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
    const char stop = 1;
    while (::write(stopPipe[1], &stop, 1) < 0 && errno == EINTR) {
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    ::close(listenFd);
    ::close(stopPipe[0]);
    ::close(stopPipe[1]);
    status = g_plugin.SSOTermPackage();
    Log("stopped; SSOTermPackage -> " + StatusText(status));
    return status == SSO_STATUS_OK ? 0 : 1;
}
