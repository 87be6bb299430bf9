// Which view a web process's audio belongs to. A web process says so twice
// for each of its pages, with one random token: through the page (the view
// hears it, and only the process that shows the page can speak for it) and
// over the audio socket (which names the process by its credentials, also
// across the sandbox's process namespace). A process is tied to a view only
// when both halves agree; a process that claims a token another process
// already holds is lying.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

namespace SLF_ChromiumEmbeddedFramework {

template <class View>
class WpePageClaims {
public:
    // Halves a process sent for pages that no view has named (yet) are kept
    // up to this many; beyond it a process's claims are refused.
    static constexpr size_t kMaxOpenClaims = 1024;

    // The view's half. Returns the process now tied to the view, 0 while
    // the process's half has not come. A view's newer token replaces its
    // older ones (a new page after a process swap).
    int FromView(uint64_t token, const std::shared_ptr<View>& view)
    {
        if (!token || !view)
            return 0;
        std::erase_if(m_Claims, [&](const auto& entry) {
            return entry.first != token && entry.second.named && entry.second.view.lock() == view;
        });
        Claim& claim = m_Claims[token];
        claim.view = view;
        claim.named = true;
        return claim.pid;
    }

    // The process's half, pid from the socket's credentials. False when
    // the claim is refused (the token belongs to another process, or too
    // many claims are open); else *view is the view now tied to pid, null
    // while the view's half has not come.
    bool FromProcess(uint64_t token, int pid, std::shared_ptr<View>* view)
    {
        view->reset();
        if (!token || pid <= 0)
            return false;
        auto found = m_Claims.find(token);
        if (found == m_Claims.end()) {
            if (m_Claims.size() >= kMaxOpenClaims)
                return false;
            m_Claims[token].pid = pid;
            return true;
        }
        if (found->second.pid && found->second.pid != pid)
            return false;
        found->second.pid = pid;
        if (found->second.named)
            *view = found->second.view.lock();
        return true;
    }

    // The process that holds token (0 if none): for the log line of a
    // refused claim.
    int HolderOf(uint64_t token) const
    {
        auto found = m_Claims.find(token);
        return found == m_Claims.end() ? 0 : found->second.pid;
    }

    // The process that shows the view's newest page (its claim is the one
    // both halves completed last); 0 while none is known.
    int ProcessOf(const View* view) const
    {
        for (const auto& entry : m_Claims) {
            if (entry.second.named && entry.second.pid && entry.second.view.lock().get() == view)
                return entry.second.pid;
        }
        return 0;
    }

    // The view ended: its claims go, and those of views gone before.
    void Forget(const View* view)
    {
        std::erase_if(m_Claims, [view](const auto& entry) {
            if (!entry.second.named)
                return false;
            auto known = entry.second.view.lock();
            return !known || known.get() == view;
        });
    }

    size_t Size() const { return m_Claims.size(); }

private:
    struct Claim {
        int pid = 0;
        bool named = false; // the view's half came
        std::weak_ptr<View> view;
    };
    std::map<uint64_t, Claim> m_Claims;
};

} // namespace SLF_ChromiumEmbeddedFramework
