#include "engine/wpe/WpeResourceChannel.h"

#include <errno.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

constexpr size_t kResourceTokenBytes = 16;

bool WriteAll(int fd, const void* data, size_t size)
{
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const ssize_t written = send(fd, bytes, size, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

} // namespace

bool ReadAll(int fd, void* data, size_t size)
{
    auto* bytes = static_cast<uint8_t*>(data);
    while (size > 0) {
        const ssize_t got = read(fd, bytes, size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

bool WriteFrame(int fd, const void* head, size_t headSize, const void* body, size_t bodySize)
{
    if (headSize + bodySize > UINT32_MAX)
        return false;
    const uint32_t length = static_cast<uint32_t>(headSize + bodySize);
    return WriteAll(fd, &length, sizeof(length)) && (!headSize || WriteAll(fd, head, headSize)) &&
           (!bodySize || WriteAll(fd, body, bodySize));
}

bool WriteResourceFrame(int fd, GVariant* value)
{
    g_variant_ref_sink(value);
    // The serialised form, taken as it is (storing it behind the length
    // would misalign it); one write, so that a non-blocking peer gets the
    // frame whole or not at all when its buffer is full.
    const gsize size = g_variant_get_size(value);
    std::vector<uint8_t> frame(sizeof(uint32_t) + size);
    const uint32_t length = static_cast<uint32_t>(size);
    std::memcpy(frame.data(), &length, sizeof(length));
    if (size)
        std::memcpy(frame.data() + sizeof(length), g_variant_get_data(value), size);
    g_variant_unref(value);
    return WriteAll(fd, frame.data(), frame.size());
}

GVariant* ReadResourceFrame(int fd, const char* type)
{
    uint32_t length = 0;
    if (!ReadAll(fd, &length, sizeof(length)) || length > kMaxFrameBytes)
        return nullptr;
    std::vector<uint8_t> data(length);
    if (length && !ReadAll(fd, data.data(), length))
        return nullptr;
    return DecodeResourceFrame(data.data(), data.size(), type);
}

GVariant* DecodeResourceFrame(const void* data, size_t size, const char* type)
{
    GBytes* bytes = g_bytes_new(size ? data : nullptr, size);
    GVariant* value = g_variant_new_from_bytes(G_VARIANT_TYPE(type), bytes, FALSE);
    g_bytes_unref(bytes);
    g_variant_ref_sink(value);
    // Untrusted bytes: only a value in normal form is taken as it is.
    if (!g_variant_is_normal_form(value)) {
        g_variant_unref(value);
        return nullptr;
    }
    return value;
}

socklen_t UnixSocketAddress(const std::string& name, struct sockaddr_un& address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof(address.sun_path))
        return 0;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@')
        address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + name.size() + (name[0] == '@' ? 0 : 1));
}

int ListenOnUnixSocket(const std::string& name)
{
    struct sockaddr_un address;
    const socklen_t length = UnixSocketAddress(name, address);
    if (!length) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 16) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

int ConnectToUnixSocket(const std::string& name)
{
    struct sockaddr_un address;
    const socklen_t length = UnixSocketAddress(name, address);
    if (!length)
        return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool PeerIsSameUser(int fd, int* pid)
{
    struct ucred credentials = {};
    socklen_t size = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 || credentials.uid != getuid())
        return false;
    if (pid)
        *pid = credentials.pid;
    return true;
}

std::string NewResourceToken()
{
    uint8_t bytes[kResourceTokenBytes];
    size_t filled = 0;
    while (filled < sizeof(bytes)) {
        const ssize_t got = getrandom(bytes + filled, sizeof(bytes) - filled, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return std::string();
        filled += static_cast<size_t>(got);
    }
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    token.reserve(2 * sizeof(bytes));
    for (uint8_t byte : bytes) {
        token.push_back(kHex[byte >> 4]);
        token.push_back(kHex[byte & 0xF]);
    }
    return token;
}

bool IsResourceUrl(const char* url)
{
    const size_t schemeLength = std::strlen(kResourceScheme);
    return url && g_ascii_strncasecmp(url, kResourceScheme, schemeLength) == 0 && url[schemeLength] == ':';
}

std::string ResourceUrlForToken(const std::string& token)
{
    return std::string(kResourceScheme) + ":" + token;
}

std::string ResourceTokenFromUrl(const char* url)
{
    if (!IsResourceUrl(url))
        return std::string();
    const std::string token = url + std::strlen(kResourceScheme) + 1;
    if (token.size() != 2 * kResourceTokenBytes)
        return std::string();
    for (char c : token) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return std::string();
    }
    return token;
}

} // namespace SLF_ChromiumEmbeddedFramework
