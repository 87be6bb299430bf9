// Whole-text match against a POSIX extended regular expression; "\d" stands
// for a digit and "\n" for a line feed, as in the patterns of these tests.
#pragma once

#include <regex.h>
#include <string>

inline bool Matches(const std::string& text, const std::string& pattern)
{
    std::string translated = "^";
    bool inBrackets = false;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '[' && (i == 0 || pattern[i - 1] != '\\'))
            inBrackets = true;
        else if (pattern[i] == ']')
            inBrackets = false;
        if (pattern[i] == '\\' && i + 1 < pattern.size() && pattern[i + 1] == 'd') {
            translated += inBrackets ? "0-9" : "[0-9]";
            ++i;
        } else if (pattern[i] == '\\' && i + 1 < pattern.size() && pattern[i + 1] == 'n') {
            translated += '\n';
            ++i;
        } else {
            translated += pattern[i];
        }
    }
    translated += "$";
    regex_t compiled;
    if (regcomp(&compiled, translated.c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        return false;
    const bool matched = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return matched;
}
