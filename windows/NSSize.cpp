#include "windows/NSSize.h"

#include <charconv>

namespace {

std::string NumberText(double value)
{
    char text[64];
    auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

} // namespace

std::string NSStringFromSize(NSSize size)
{
    return "{" + NumberText(size.width) + ", " + NumberText(size.height) + "}";
}
