// What code under test logs, caught through the log's callback sink (the only
// sink while a capture lives; none afterwards).
#pragma once

#include "dbg/dbg.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

class LogCapture {
public:
    LogCapture()
    {
        dbgcommand("null");
        dbgsetcallback(
            [](void* self, int, const char* line, int length) {
                auto* capture = static_cast<LogCapture*>(self);
                std::lock_guard<std::mutex> guard(capture->m_mutex);
                capture->m_lines.emplace_back(line, static_cast<size_t>(length));
            },
            this);
        dbgcommand("callback");
        Take(); // the sink's own "using callback"
    }
    ~LogCapture()
    {
        dbgcommand("null");
        dbgsetcallback(nullptr, nullptr);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The lines so far that contain `text`.
    std::vector<std::string> Matching(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        std::vector<std::string> result;
        std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(result),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
        return result;
    }
    // All lines so far, as one text; they are not seen again.
    std::string Take()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        std::string text;
        for (const std::string& line : m_lines)
            text += line;
        m_lines.clear();
        return text;
    }

private:
    std::mutex m_mutex; // a leaf
    std::vector<std::string> m_lines;
};
