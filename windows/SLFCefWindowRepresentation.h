// One live browser on the service side: what was asked for (URL, size, frame
// rate), the browser ID the engine gave it, the host connections that
// receive its output with the reply each open request is owed, and the
// per-browser state of frame, audio and URL-policy delivery.
//
// Made by the window manager, kept alive by its registry while the browser
// runs, and handed to the engine as the (unretained) context of the C
// callbacks below.
#pragma once

#include "platform/NplPixelBufferPool.h"
#include "windows/NSSize.h"
#include "windows/SLFCefCallbackProxy.h"

class NVKXPCAudioBufferPool;

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The reply owed to an open request; called once with the browser ID.
using SLFCefReplyBlock = std::function<void(int)>;
// Receivers in order of registration. Never changed in place: every change
// stores a fresh list, so a reader walks its snapshot without a lock.
using SLFCefReceiverList = std::vector<SLFCefCallbackProxyRef>;
using SLFCefReceiverListRef = std::shared_ptr<const SLFCefReceiverList>;
using SLFCefDataRef = std::shared_ptr<const std::vector<uint8_t>>;

class SLFCefWindowRepresentation : public std::enable_shared_from_this<SLFCefWindowRepresentation> {
public:
    SLFCefWindowRepresentation();
    virtual ~SLFCefWindowRepresentation();
    SLFCefWindowRepresentation(const SLFCefWindowRepresentation&) = delete;
    SLFCefWindowRepresentation& operator=(const SLFCefWindowRepresentation&) = delete;

    // "%@_%@@%.2f": absolute URL, size as "{w, h}", frame rate.
    static std::string lookupKeyForURL(const std::string& url, NSSize size, double framerate);
    std::string uniqueLookupKey() const;
    // "<SLFCefWindowRepresentation: 0x...> BrowserID:%d URL:%@ Size:%@ Framerate:%.2f"
    std::string debugDescription() const;

    // Receivers. A null proxy is ignored. A proxy added twice is listed
    // twice and keeps the later reply; removal removes every occurrence.
    void addReceiverProxiesObject(const SLFCefCallbackProxyRef& proxy, SLFCefReplyBlock reply);
    void removeReceiverProxiesObject(const SLFCefCallbackProxyRef& proxy);
    // An empty function when the proxy has no reply kept.
    SLFCefReplyBlock replyForReceiverProxy(const SLFCefCallbackProxyRef& proxy) const;
    // Null until the first receiver was added.
    SLFCefReceiverListRef receiverProxies() const;

    // Properties (each read and written atomically).
    int browserID() const;
    void setBrowserID(int browserID);
    std::string url() const;
    void setUrl(const std::string& url);
    double framerate() const;
    void setFramerate(double framerate);
    std::vector<std::string> permittedFileURLStrings() const;
    void setPermittedFileURLStrings(const std::vector<std::string>& strings);
    // Null = no data (as opposed to empty data).
    SLFCefDataRef settingsData() const;
    void setSettingsData(SLFCefDataRef data);
    bool updating() const;
    void setUpdating(bool updating);
    // Sets `updating` and returns its previous value, in one step.
    bool exchangeUpdating(bool updating);
    // Under the object's lock; setting the size drops the pixel-buffer pool.
    NSSize size() const;
    void setSize(NSSize size);

    // Frame delivery (SLFCefWindowRepresentationVideo.cpp).
    void browserVideoDataArrived(unsigned char* data, unsigned int bufferSize);
    int64_t numPixelBuffersArrivedSoFar() const { return m_numPixelBuffersArrivedSoFar; }
    // The pool of the current size, made on first use; none if it cannot be made.
    std::shared_ptr<CNplPixelBufferPool> pixelBufferPoolWithSize(NSSize size);
    // A buffer of the current pool (the argument is not used), or null.
    CNplPixelBuffer* createPixelBufferFromPool(const std::shared_ptr<CNplPixelBufferPool>& pool);
    std::shared_ptr<CNplPixelBufferPool> pixelBufferPool() const;

    // Audio delivery (SLFCefWindowRepresentationAudio.cpp). Called on the
    // engine's audio thread only. All four of bufferSize, sampleRate,
    // channels and bitsPerSample 0 is the end of the stream.
    void browserAudioStreamIDDataArrived(int streamID, unsigned char* data, unsigned int bufferSize,
                                         unsigned int sampleRate, unsigned int channels, unsigned int bitsPerSample);
    // Stream ID to its pool; read it on the audio thread only.
    using AudioBufferPoolMap = std::map<int, std::shared_ptr<NVKXPCAudioBufferPool>>;
    const AudioBufferPoolMap& audioBufferPools() const { return m_audioBufferPools; }

    // URL policy and the settings resource (SLFCefWindowRepresentationURLPolicy.cpp).
    bool wantsToHandleBrowserURL(const std::string& url);
    bool writeStatusCode(int* statusCode, std::vector<char>* responseData, const std::string& requestURL,
                         const std::string& browserStartURL);
    // The browser is being stopped: a settings fetch that waits for its host
    // gives up now, and later ones do not wait. The engine's stop returns
    // only after every callback into this object has, so it must not wait
    // out the polls.
    void endSettingsWaits();

protected:
    // The object's own monitor lock: receivers, reply table, size and the
    // pixel-buffer pool. Lock order: taken before m_propertyLock; never held
    // across a call to a host or into the engine.
    mutable std::recursive_mutex m_lock;
    // Leaf lock that makes each property access atomic; nothing is taken
    // while it is held.
    mutable std::mutex m_propertyLock;
    // One property read or written under m_propertyLock.
    template <typename T>
    T LockedGet(const T& property) const
    {
        std::lock_guard<std::mutex> guard(m_propertyLock);
        return property;
    }
    template <typename T, typename V>
    void LockedSet(T& property, V&& value)
    {
        std::lock_guard<std::mutex> guard(m_propertyLock);
        property = std::forward<V>(value);
    }

    int m_browserID = -1;
    std::string m_url;
    NSSize m_size;
    double m_framerate = 0;
    std::vector<std::string> m_permittedFileURLStrings;
    SLFCefDataRef m_settingsData;
    SLFCefReceiverListRef m_receiverProxies;
    // Proxy (by identity) -> (proxy, reply). Replaced whole on each change.
    using ReplyTable = std::map<const SLFCefCallbackProxy*, std::pair<SLFCefCallbackProxyRef, SLFCefReplyBlock>>;
    std::shared_ptr<const ReplyTable> m_repliesByReceiverLookupTable;
    bool m_updating = false;
    // Under m_lock: the pool of the current size and the attributes every
    // buffer is taken with.
    std::shared_ptr<CNplPixelBufferPool> m_pixelBufferPool;
    std::optional<NplPixelBufferPoolAuxAttributes> m_pixelBufferCreationAuxAttributes;
    // Frames that reached the pool stage; touched by the one painting thread.
    int64_t m_numPixelBuffersArrivedSoFar = 0;
    // Lock order: a leaf lock. Guards m_settingsWaitsEnded, which
    // endSettingsWaits raises and signals to the waiting settings fetches.
    std::mutex m_settingsWaitLock;
    std::condition_variable m_settingsWaitCondition;
    bool m_settingsWaitsEnded = false;
    // One pool per audio stream, from its first data block to its end.
    // Touched only on the engine's audio thread, so it has no lock.
    AudioBufferPoolMap m_audioBufferPools;
};

using SLFCefWindowRepresentationRef = std::shared_ptr<SLFCefWindowRepresentation>;

// Engine-to-service entry points; the context is the representation given to
// StartBrowser. A null context does nothing and returns false.
bool SLFCefVideoFrameCallback(unsigned char* data, unsigned int bufferSize, void* context);
bool SLFCefAudioCallback(int streamID, unsigned char* data, unsigned int bufferSize, unsigned int sampleRate,
                         unsigned int channels, unsigned int bitsPerSample, void* context);
bool SLFCefHandleRequestURL(const std::string& url, const void* context);
bool SLFCefGetResponseHeadersForURL(const std::string& url, const std::string& startURL, std::vector<char>* data,
                                    int64_t* length, int* statusCode, const void* context);
