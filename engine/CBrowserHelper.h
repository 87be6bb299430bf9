// Text and URL helpers of the engine.
#pragma once

#include <string>

namespace SLF_ChromiumEmbeddedFramework {

class CBrowserHelper {
public:
    // Percent-decoding: "%XX" (hex digits in either case) becomes that byte
    // and "+" a space, except in the last two bytes of the text, which are
    // always copied as they are. Texts shorter than three bytes come back
    // unchanged.
    static std::string UriDecode(const std::string& text);
};

} // namespace SLF_ChromiumEmbeddedFramework
