// Text and URL helpers of the engine.
#pragma once

#include <cstddef>
#include <string>

namespace SLF_ChromiumEmbeddedFramework {

class CBrowserHelper {
public:
    // Percent-decoding: "%XX" (hex digits in either case) becomes that byte
    // and "+" a space, except in the last two bytes of the text, which are
    // always copied as they are. Texts shorter than three bytes come back
    // unchanged.
    static std::string UriDecode(const std::string& text);
    // Text of a file read for a text request. This build converts nothing:
    // the result is always the empty string and hasBOM is left as it is, so
    // text requests serve empty files only.
    static std::string GetUTF8StringWithBOM(const char* buffer, size_t size, bool& hasBOM);
};

} // namespace SLF_ChromiumEmbeddedFramework
