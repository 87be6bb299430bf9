// The resource socket between a web process and the service: one frame is a
// 4-byte length and a serialised value. Decode a frame as the service reads a
// question and as a web process reads an answer, and use the values as they
// do (the URL of a question, the identifier of an answer).
#include "engine/wpe/WpeResourceChannel.h"
#include "fuzz/FuzzSupport.h"

#include <cstring>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

// The decode call: one frame (length and value) of the given type, null when
// the frame is incomplete, too large or not such a value.
GVariant* Decode(const uint8_t* data, size_t size, const char* type)
{
    uint32_t length = 0;
    if (size < sizeof length)
        return nullptr;
    std::memcpy(&length, data, sizeof length);
    if (length > kMaxFrameBytes || length > size - sizeof length)
        return nullptr;
    return DecodeResourceFrame(data + sizeof length, length, type);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (GVariant* question = Decode(data, size, kQuestionType)) {
        guint64 pageId = 0;
        const gchar* url = nullptr;
        g_variant_get(question, "(t&s)", &pageId, &url);
        const std::string token = ResourceTokenFromUrl(url);
        FUZZ_CHECK(token.empty() || (IsResourceUrl(url) && ResourceUrlForToken(token) == url));
        g_variant_unref(question);
    }
    if (GVariant* answer = Decode(data, size, kAnswerType)) {
        guint8 verdict = 0;
        const gchar* url = nullptr;
        g_variant_get(answer, "(y&s)", &verdict, &url);
        const std::string token = ResourceTokenFromUrl(url);
        FUZZ_CHECK(token.empty() || ResourceTokenFromUrl(ResourceUrlForToken(token).c_str()) == token);
        g_variant_unref(answer);
    }
    return 0;
}
