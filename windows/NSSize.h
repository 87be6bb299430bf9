// A render size in pixels, and its text form as the log lines and lookup
// keys print it ("{1920, 1080}").
#pragma once

#include <string>

struct NSSize {
    double width = 0;
    double height = 0;
};

inline bool operator==(const NSSize& a, const NSSize& b)
{
    return a.width == b.width && a.height == b.height;
}

// "{width, height}", each number in its shortest exact decimal form (whole
// numbers without a fraction).
std::string NSStringFromSize(NSSize size);
