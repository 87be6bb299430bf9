#include "engine/CBrowserHelper.h"

namespace SLF_ChromiumEmbeddedFramework {

namespace {
int HexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}
} // namespace

std::string CBrowserHelper::UriDecode(const std::string& text)
{
    const size_t length = text.size();
    if (length < 3)
        return text;

    std::string result;
    result.reserve(length);
    size_t pos = 0;
    // Only positions with at least two bytes after them are decoded; the
    // last two bytes are copied unchanged below.
    while (pos < length - 2) {
        const char c = text[pos];
        if (c == '%') {
            const int high = HexValue(text[pos + 1]);
            const int low = HexValue(text[pos + 2]);
            if (high >= 0 && low >= 0) {
                result.push_back(static_cast<char>(high * 16 + low));
                pos += 3;
                continue;
            }
            result.push_back(c);
        } else if (c == '+') {
            result.push_back(' ');
        } else {
            result.push_back(c);
        }
        ++pos;
    }
    result.append(text, pos, std::string::npos);
    return result;
}

std::string CBrowserHelper::GetUTF8StringWithBOM(const char* buffer, size_t size, bool& hasBOM)
{
    (void)buffer;
    (void)size;
    (void)hasBOM;
    return std::string();
}

} // namespace SLF_ChromiumEmbeddedFramework
