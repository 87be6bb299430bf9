// URLs of a page's requests, as the web process reports them: the
// identifier of a taken-over request, the file of a text request
// ("http://streamloft/requestText?filePath=..."), and the URL policy that
// decides which files a page may load. A file URL the policy lets through
// must lie under a permitted prefix and must not climb out of it, however
// its path is escaped.
#include "engine/CBrowserClient.h"
#include "engine/CBrowserHelper.h"
#include "engine/wpe/WpeResourceChannel.h"
#include "fuzz/FuzzSupport.h"
#include "windows/SLFCefWindowRepresentation.h"

#include <algorithm>
#include <cstring>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

constexpr const char* kPermitted = "file:///srv/overlay/";

class Request : public EngineRequest {
public:
    explicit Request(std::string url) : m_url(std::move(url)) {}
    uint64_t GetIdentifier() override { return 1; }
    std::string GetURL() override { return m_url; }

private:
    std::string m_url;
};

int Hex(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The path of a file URL with every valid escape decoded, NUL included:
// what a file system would be asked for.
std::string DecodedFilePath(const std::string& url)
{
    std::string path = url.substr(std::strlen("file://"));
    path.resize(std::min(path.find_first_of("?#"), path.size()));
    std::string decoded;
    for (size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '%' && i + 2 < path.size() && Hex(path[i + 1]) >= 0 && Hex(path[i + 2]) >= 0) {
            decoded.push_back(static_cast<char>(Hex(path[i + 1]) * 16 + Hex(path[i + 2])));
            i += 2;
        } else {
            decoded.push_back(path[i]);
        }
    }
    return decoded;
}

bool IsCanonicalText(const std::string& url)
{
    return std::all_of(url.begin(), url.end(), [](char c) { return c > ' ' && c < 127; });
}

bool ClimbsOut(const std::string& path)
{
    return path.find("/../") != std::string::npos || (path.size() >= 3 && path.compare(path.size() - 3, 3, "/..") == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static auto* client = new CBrowserClient;
    static auto* representation = [] {
        auto* rep = new SLFCefWindowRepresentationRef(std::make_shared<SLFCefWindowRepresentation>());
        (*rep)->setBrowserID(1);
        (*rep)->setPermittedFileURLStrings({kPermitted});
        return rep;
    }();

    const std::string url = FuzzText(data, size);

    // The decode calls.
    const std::string token = ResourceTokenFromUrl(url.c_str());
    FUZZ_CHECK(token.empty() || IsResourceUrl(url.c_str()));
    auto request = std::make_shared<Request>(url);
    const std::string fileName = client->GetFilenameFromTextRequest(request);
    FUZZ_CHECK(fileName.empty() || client->IsTextRequest(request));
    (void)client->GetFilenameFromRequest(request);
    FUZZ_CHECK(CBrowserHelper::UriDecode(url).size() <= url.size());
    const bool takenOver = SLFCefHandleRequestURL(url, representation->get());

    // WebKit hands the policy canonical URLs: the scheme in lower case,
    // printable ASCII, escapes for the rest. Text that is not a URL at all
    // is left to the engine, which cannot load it either.
    if (!takenOver && url.compare(0, 8, "file:///") == 0 && IsCanonicalText(url)) {
        FUZZ_CHECK(url.compare(0, std::strlen(kPermitted), kPermitted) == 0);
        FUZZ_CHECK(!ClimbsOut(DecodedFilePath(url)));
    }
    return 0;
}
