// Collects trace and assertion lines for the length of a test.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/Trace.h"

namespace ostrel_test {

class TraceCapture {
public:
    TraceCapture() {
        Tarvik500::SLogger::SetSink([this](const std::string& i_line) {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_lines.push_back(i_line);
        });
    }
    ~TraceCapture() { Tarvik500::SLogger::SetSink(nullptr); }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    // Lines that contain the text; with i_bAtEnd, lines that end with it exactly.
    size_t count(const std::string& i_text, bool i_bAtEnd = false) const {
        std::lock_guard<std::mutex> guard(m_mutex);
        return std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& l) {
            const size_t at = l.rfind(i_text);
            return at != std::string::npos && (!i_bAtEnd || at + i_text.size() == l.size());
        });
    }
    bool has(const std::string& i_text) const { return count(i_text) > 0; }
    bool hasLineEndingWith(const std::string& i_text) const { return count(i_text, true) > 0; }
    void clear() {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

}  // namespace ostrel_test
