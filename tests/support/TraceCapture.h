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

    // Lines that contain the text, counted.
    size_t count(const std::string& i_text) const {
        std::lock_guard<std::mutex> guard(m_mutex);
        return static_cast<size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& l) {
            return l.find(i_text) != std::string::npos;
        }));
    }
    bool has(const std::string& i_text) const { return count(i_text) > 0; }
    // A line ends with the text exactly (nothing after it, trailing blanks kept).
    bool hasLineEndingWith(const std::string& i_text) const {
        std::lock_guard<std::mutex> guard(m_mutex);
        return std::any_of(m_lines.begin(), m_lines.end(), [&](const std::string& l) {
            return l.size() >= i_text.size() && l.compare(l.size() - i_text.size(), i_text.size(), i_text) == 0;
        });
    }
    void clear() {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

}  // namespace ostrel_test
