// Collects the diagnostic log's lines through its callback sink, with every
// other sink off.
#pragma once

#include "dbg/dbg.h"

#include <mutex>
#include <string>
#include <vector>

class LogCapture {
public:
    struct Line {
        int level;
        std::string text;
    };

    LogCapture()
    {
        dbgcommand("null");
        dbgsetcallback(&LogCapture::Receive, this);
        dbgcommand("callback");
    }
    ~LogCapture()
    {
        dbgcommand("null");
        dbgsetcallback(nullptr, nullptr);
    }

    std::vector<Line> Lines()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    void Clear()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.clear();
    }
    // Lines containing `text`.
    std::vector<Line> Matching(const std::string& text)
    {
        std::vector<Line> result;
        for (const Line& line : Lines())
            if (line.text.find(text) != std::string::npos)
                result.push_back(line);
        return result;
    }

private:
    static void Receive(void* context, int level, const char* line, int length)
    {
        LogCapture* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> guard(self->m_mutex);
        self->m_lines.push_back({level, std::string(line, static_cast<size_t>(length))});
    }

    std::mutex m_mutex;
    std::vector<Line> m_lines;
};
