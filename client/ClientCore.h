// What a client shares with its browser handles and its connection thread:
// the library's context and thread-confined state, the event queue, and the
// browsers' life cycle (open, start, requests, close, failure).
//
// Threads: "the library thread" runs the client's own GMainContext; every
// D-Bus object of the client lives there. Members marked "library thread"
// are touched there only; the public entry points (RunOnLibraryThread, Post,
// Report, Complete) may be called from any thread.
//
// Connections: the service binds one browser to one connection (a close
// leaves the connection without a receiver). So the first browser uses the
// client's own connection, and every later browser a connection of its own
// that closes with it; events never need to be sorted by browser ID.
#pragma once

#include <gio/gio.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/EventQueue.h"
#include "streamloft/Browser.h"
#include "streamloft/Error.h"
#include "streamloft/OverlayClient.h"

namespace streamloft {

class BrowserChannel;
class ClientCore;

// An Error from a failed D-Bus call or connection: the D-Bus error name
// sorted into a kind.
Error ErrorFromGError(const GError* error);
Error MakeError(ErrorKind kind, std::string message);

// The record behind a Browser handle.
class Browser::State {
public:
    enum class Phase { Opening, Started, Closing, Closed, Failed };

    State(std::weak_ptr<ClientCore> core, BrowserOptions options, std::shared_ptr<BrowserEvents> events)
        : core(std::move(core)),
          options(std::move(options)),
          events(std::move(events))
    {
    }

    const std::weak_ptr<ClientCore> core;
    const BrowserOptions options;
    const std::shared_ptr<BrowserEvents> events;
    std::weak_ptr<Browser> handle; // set before the open request is queued, then read only
    std::atomic<int> id {-1};
    // Library thread:
    Phase phase = Phase::Opening;
    std::optional<Error> failure; // why it failed
    bool dropped = false;         // the last handle is gone: close once started, deliver nothing
    BrowserChannel* channel = nullptr;
    std::vector<std::function<void()>> waiting; // requests made before the start, in order
    int inFlight = 0;                           // requests sent and not answered
    bool releasePending = false;                // the connection is let go once they are
};

class ClientCore : public std::enable_shared_from_this<ClientCore> {
public:
    using StatePtr = std::shared_ptr<Browser::State>;

    explicit ClientCore(const ConnectOptions& options);
    ~ClientCore();

    // Any thread. Runs `task` on the library thread (always later, never
    // inside this call); dropped when the client has ended.
    void RunOnLibraryThread(std::function<void()> task);
    void Post(EventQueue::Event event) { events_->Post(std::move(event)); }
    // The host's diagnostics callback, as an event.
    void Report(std::string message);
    void Complete(const Completion& done, std::optional<Error> error);
    // Runs `deliver` with the handle and events of `state` as an event,
    // unless the handle has been dropped by then.
    void Deliver(const StatePtr& state, std::function<void(Browser&, BrowserEvents&)> deliver);

    // Library thread.
    void Open(const StatePtr& state);
    // A request's arguments, made when it is sent (a floating GVariant), from
    // the browser's ID.
    using Arguments = std::function<GVariant*(int browserID)>;
    void Request(const StatePtr& state, const char* method, Arguments arguments, Completion done);
    void Close(const StatePtr& state, Completion done);
    void Drop(const StatePtr& state);
    void Fail(const StatePtr& state, const Error& error);
    // From the channels.
    void BrowserStarted(BrowserChannel& channel, int browserID);
    // Unbinds the browser from its connection (closing a connection of its
    // own), once its requests have been answered.
    void ReleaseChannel(const StatePtr& state);
    void ChannelClosed(BrowserChannel& channel);
    // Closes every connection; the failures and connectionClosed are queued
    // before this returns.
    void CloseAll();
    // At the end of the library thread: releases every connection.
    void Teardown();

    // Set up by OverlayClient on the library thread before Connect returns.
    void AdoptMainChannel(std::unique_ptr<BrowserChannel> channel);
    // Marks the library thread as this client's (for the audio transport log).
    void EnterLibraryThread();

    GMainContext* context() const { return context_; }
    EventQueue& events() { return *events_; }
    const ConnectOptions& options() const { return options_; }
    const std::string& socketPath() const { return socketPath_; }
    bool connected() const { return connected_; }
    // Set when the client is being destroyed: nothing new is started.
    std::atomic<bool> ending {false};

private:
    void SendOpen(BrowserChannel& channel, const StatePtr& state);
    void OpenOnNewChannel(const StatePtr& state);
    // Sends a request of a started browser (consumes the floating
    // `arguments`), or completes it with the reason it cannot be sent.
    void Send(const StatePtr& state, const char* method, GVariant* arguments, Completion done);

    const ConnectOptions options_;
    std::string socketPath_;
    GMainContext* context_; // the library's own, referenced
    std::shared_ptr<EventQueue> events_;
    std::atomic<bool> connected_ {false};
    // Library thread:
    std::unique_ptr<BrowserChannel> main_;
    std::list<std::unique_ptr<BrowserChannel>> others_;
    bool reportedClose_ = false;
};

} // namespace streamloft
