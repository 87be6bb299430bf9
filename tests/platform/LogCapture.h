// Collects the diagnostic log's lines through its callback sink, with every
// other sink off, and restores the "npl" module's flags when it goes.
#pragma once

#include "dbg/dbg.h"
#include "platform/NplDebug.h"

#include <mutex>
#include <string>
#include <vector>

class LogCapture {
public:
    LogCapture() : m_flags(_dbgGetModuleFlags(NplDebugModule()))
    {
        dbgcommand("null");
        dbgsetcallback(&Receive, this);
        dbgcommand("callback");
    }
    ~LogCapture()
    {
        dbgcommand("null");
        dbgsetcallback(nullptr, nullptr);
        for (int level = 0; level < 4; ++level)
            dbgsetflagvalue(NplDebugModule(), level, (m_flags >> level) & 1);
    }
    // Lines containing `text`.
    std::vector<std::string> Matching(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        std::vector<std::string> result;
        for (const std::string& line : m_lines)
            if (line.find(text) != std::string::npos)
                result.push_back(line);
        return result;
    }

private:
    static void Receive(void* context, int, const char* line, int length)
    {
        auto* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> guard(self->m_mutex);
        self->m_lines.emplace_back(line, static_cast<size_t>(length));
    }

    uint32_t m_flags;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};
