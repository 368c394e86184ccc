// Trace and assertions. An off trace statement reads one byte and builds nothing.
//
// OSTREL_TRACE=<file>|stderr turns trace on; OSTREL_ASSERT=<file>|stderr turns
// assertion reports on. Both are read at load and again by SLogger::Initialize().
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "SString.h"

namespace Tarvik500 {

// Relaxed loads of an atomic bool compile to a plain byte read.
extern std::atomic<bool> g_traceIsOff;

class SLogger {
public:
    enum tracelevel { TL_DEFAULT = 0 };

    static bool Initialize();
    static bool Terminate();

    // Where lines go; an empty destination turns that stream off.
    static void Configure(const std::string& i_traceDest, const std::string& i_assertDest);
    // Every trace and assertion line is also handed here (tests read it back).
    using Sink = std::function<void(const std::string& i_line)>;
    static void SetSink(Sink i_sink);
};

bool ShouldTrace_slowpath(SLogger::tracelevel i_level, const char* i_pFile, int i_nLine);

class STraceParameter {
public:
    STraceParameter(int i_n) : m_text(std::to_string(i_n)) {}
    STraceParameter(unsigned int i_n) : m_text(std::to_string(i_n)) {}
    STraceParameter(long i_n) : m_text(std::to_string(i_n)) {}
    STraceParameter(unsigned long i_n) : m_text(std::to_string(i_n)) {}
    STraceParameter(long long i_n) : m_text(std::to_string(i_n)) {}
    STraceParameter(unsigned long long i_n) : m_text(std::to_string(i_n)) {}
    STraceParameter(const char* i_pText) : m_text(i_pText != nullptr ? i_pText : "(null)") {}
    STraceParameter(const SWCharString& i_ss) : m_text(ToAnsiString(i_ss.c_str()).c_str()) {}
    STraceParameter(const SAnsiString& i_ss) : m_text(i_ss.c_str()) {}
    const std::string& text() const { return m_text; }

private:
    std::string m_text;
};

class STraceObj {
public:
    STraceObj(SLogger::tracelevel i_level, const char* i_pFile, int i_nLine, unsigned int i_nWord)
        : m_level(i_level), m_pFile(i_pFile), m_nLine(i_nLine), m_nWord(i_nWord) {}

    void operator()(const char* i_pFormat) const;
    void operator()(const char* i_pFormat, const STraceParameter& p1) const;
    void operator()(const char* i_pFormat, const STraceParameter& p1, const STraceParameter& p2) const;
    void operator()(const char* i_pFormat, const STraceParameter& p1, const STraceParameter& p2,
                    const STraceParameter& p3) const;
    void operator()(const char* i_pFormat, const STraceParameter& p1, const STraceParameter& p2,
                    const STraceParameter& p3, const STraceParameter& p4, const STraceParameter& p5) const;
    void operator()(const ostrel_char* i_pText) const;

private:
    void emit(const char* i_pFormat, const STraceParameter* const* i_pParams, int i_nParams) const;

    SLogger::tracelevel m_level;
    const char* m_pFile;
    int m_nLine;
    unsigned int m_nWord;
};

// Replaces %1..%5 with the parameters' texts; anything else stays as written.
std::string FormatTrace(const char* i_pFormat, const STraceParameter* const* i_pParams, int i_nParams);

bool ShouldAssert();
void SAssert(const char* i_pFile, int i_nLine, const char* i_pExpr);
void SAssert(const char* i_pFile, int i_nLine, const char* i_pExpr, const char* i_pMessage);
void SAssert(const char* i_pFile, int i_nLine, const char* i_pExpr, const ostrel_char* i_pMessage);

}  // namespace Tarvik500

#define STRACE(...)                                                                                             \
    do {                                                                                                        \
        if (!::Tarvik500::g_traceIsOff.load(std::memory_order_relaxed) &&                                      \
            ::Tarvik500::ShouldTrace_slowpath(::Tarvik500::SLogger::TL_DEFAULT, __FILE__, __LINE__)) {         \
            ::Tarvik500::STraceObj(::Tarvik500::SLogger::TL_DEFAULT, __FILE__, __LINE__, 0)(__VA_ARGS__);      \
        }                                                                                                       \
    } while (0)

// An assertion reports and returns; the code behind it runs either way.
#define SASSERT(cond, text)                                          \
    do {                                                             \
        if (!(cond) && ::Tarvik500::ShouldAssert()) {                \
            ::Tarvik500::SAssert(__FILE__, __LINE__, text);          \
        }                                                            \
    } while (0)

#define SASSERT_MSG(cond, text, message)                             \
    do {                                                             \
        if (!(cond) && ::Tarvik500::ShouldAssert()) {                \
            ::Tarvik500::SAssert(__FILE__, __LINE__, text, message); \
        }                                                            \
    } while (0)

// A branch that should never run.
#define SASSERT_FAIL(message) SASSERT_MSG(false, "0", message)
