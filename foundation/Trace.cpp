#include "Trace.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <sstream>
#include <thread>

namespace Tarvik500 {

std::atomic<bool> g_traceIsOff{true};

namespace {

struct Stream {
    std::FILE* pFile = nullptr;
    bool bOwned = false;

    void open(const std::string& i_dest) {
        close();
        if (i_dest.empty()) {
            return;
        }
        if (i_dest == "stderr") {
            pFile = stderr;
            return;
        }
        pFile = std::fopen(i_dest.c_str(), "a");
        bOwned = pFile != nullptr;
    }
    void close() {
        if (bOwned) {
            std::fclose(pFile);
        }
        pFile = nullptr;
        bOwned = false;
    }
};

struct LoggerState {
    std::mutex mutex;
    Stream trace;
    Stream asserts;
    SLogger::Sink sink;
    std::atomic<bool> bAssertOn{false};

    ~LoggerState() {
        g_traceIsOff.store(true);
        bAssertOn.store(false);
        trace.close();
        asserts.close();
    }
};

LoggerState& State() {
    static LoggerState s_state;
    return s_state;
}

std::string EnvOf(const char* i_pName) {
    const char* pValue = std::getenv(i_pName);
    return pValue != nullptr ? std::string(pValue) : std::string();
}

void ConfigureFromEnvironment() { SLogger::Configure(EnvOf("OSTREL_TRACE"), EnvOf("OSTREL_ASSERT")); }

// Trace set in the environment works from the first statement, before Initialize.
const bool s_bConfiguredAtLoad = (ConfigureFromEnvironment(), true);

const char* BaseName(const char* i_pPath) {
    const char* pBase = i_pPath;
    for (const char* p = i_pPath; *p != 0; ++p) {
        if (*p == '/' || *p == '\\') {
            pBase = p + 1;
        }
    }
    return pBase;
}

std::string Prefix(const char* i_pFile, int i_nLine) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t t = system_clock::to_time_t(now);
    const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tmUtc{};
#if defined(_WIN32)
    gmtime_s(&tmUtc, &t);
#else
    gmtime_r(&t, &tmUtc);
#endif
    char stamp[64];
    std::snprintf(stamp, sizeof(stamp), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tmUtc.tm_year + 1900, tmUtc.tm_mon + 1,
                  tmUtc.tm_mday, tmUtc.tm_hour, tmUtc.tm_min, tmUtc.tm_sec, static_cast<int>(ms));
    std::ostringstream os;
    os << stamp << " [" << std::this_thread::get_id() << "] " << BaseName(i_pFile) << ':' << i_nLine << ' ';
    return os.str();
}

void Write(Stream& io_stream, const std::string& i_line) {
    LoggerState& state = State();
    std::lock_guard<std::mutex> guard(state.mutex);
    if (io_stream.pFile != nullptr) {
        std::fputs(i_line.c_str(), io_stream.pFile);
        std::fputc('\n', io_stream.pFile);
        std::fflush(io_stream.pFile);
    }
    if (state.sink) {
        state.sink(i_line);
    }
}

}  // namespace

bool SLogger::Initialize() {
    (void)s_bConfiguredAtLoad;
    ConfigureFromEnvironment();
    return true;
}

bool SLogger::Terminate() {
    LoggerState& state = State();
    std::lock_guard<std::mutex> guard(state.mutex);
    for (Stream* pStream : {&state.trace, &state.asserts}) {
        if (pStream->pFile != nullptr) {
            std::fflush(pStream->pFile);
        }
    }
    return true;
}

void SLogger::Configure(const std::string& i_traceDest, const std::string& i_assertDest) {
    LoggerState& state = State();
    std::lock_guard<std::mutex> guard(state.mutex);
    state.trace.open(i_traceDest);
    state.asserts.open(i_assertDest);
    g_traceIsOff.store(state.trace.pFile == nullptr && !state.sink);
    state.bAssertOn.store(state.asserts.pFile != nullptr || static_cast<bool>(state.sink));
}

void SLogger::SetSink(Sink i_sink) {
    LoggerState& state = State();
    std::lock_guard<std::mutex> guard(state.mutex);
    state.sink = std::move(i_sink);
    g_traceIsOff.store(state.trace.pFile == nullptr && !state.sink);
    state.bAssertOn.store(state.asserts.pFile != nullptr || static_cast<bool>(state.sink));
}

bool ShouldTrace_slowpath(SLogger::tracelevel /*i_level*/, const char* /*i_pFile*/, int /*i_nLine*/) {
    return !g_traceIsOff.load(std::memory_order_relaxed);
}

std::string FormatTrace(const char* i_pFormat, const STraceParameter* const* i_pParams, int i_nParams) {
    std::string out;
    if (i_pFormat == nullptr) {
        return out;
    }
    for (const char* p = i_pFormat; *p != 0; ++p) {
        if (p[0] == '%' && p[1] >= '1' && p[1] <= '5') {
            const int index = p[1] - '1';
            if (index < i_nParams) {
                out += i_pParams[index]->text();
                ++p;
                continue;
            }
        }
        out += *p;
    }
    return out;
}

void STraceObj::emit(const char* i_pFormat, const STraceParameter* const* i_pParams, int i_nParams) const {
    (void)m_level;
    (void)m_nWord;
    Write(State().trace, Prefix(m_pFile, m_nLine) + FormatTrace(i_pFormat, i_pParams, i_nParams));
}

void STraceObj::operator()(const char* i_pFormat) const { emit(i_pFormat, nullptr, 0); }

void STraceObj::operator()(const char* i_pFormat, const STraceParameter& p1) const {
    const STraceParameter* params[] = {&p1};
    emit(i_pFormat, params, 1);
}

void STraceObj::operator()(const char* i_pFormat, const STraceParameter& p1, const STraceParameter& p2) const {
    const STraceParameter* params[] = {&p1, &p2};
    emit(i_pFormat, params, 2);
}

void STraceObj::operator()(const char* i_pFormat, const STraceParameter& p1, const STraceParameter& p2,
                           const STraceParameter& p3) const {
    const STraceParameter* params[] = {&p1, &p2, &p3};
    emit(i_pFormat, params, 3);
}

void STraceObj::operator()(const char* i_pFormat, const STraceParameter& p1, const STraceParameter& p2,
                           const STraceParameter& p3, const STraceParameter& p4,
                           const STraceParameter& p5) const {
    const STraceParameter* params[] = {&p1, &p2, &p3, &p4, &p5};
    emit(i_pFormat, params, 5);
}

void STraceObj::operator()(const ostrel_char* i_pText) const {
    Write(State().trace, Prefix(m_pFile, m_nLine) + ToAnsiString(i_pText).c_str());
}

bool ShouldAssert() { return State().bAssertOn.load(std::memory_order_relaxed); }

void SAssert(const char* i_pFile, int i_nLine, const char* i_pExpr) {
    Write(State().asserts, Prefix(i_pFile, i_nLine) + "ASSERT(" + (i_pExpr != nullptr ? i_pExpr : "") + ")");
}

void SAssert(const char* i_pFile, int i_nLine, const char* i_pExpr, const char* i_pMessage) {
    Write(State().asserts, Prefix(i_pFile, i_nLine) + "ASSERT(" + (i_pExpr != nullptr ? i_pExpr : "") + ") " +
                               (i_pMessage != nullptr ? i_pMessage : ""));
}

void SAssert(const char* i_pFile, int i_nLine, const char* i_pExpr, const ostrel_char* i_pMessage) {
    SAssert(i_pFile, i_nLine, i_pExpr, ToAnsiString(i_pMessage).c_str());
}

}  // namespace Tarvik500
