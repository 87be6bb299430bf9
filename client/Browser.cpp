// The public Browser handle: every request is queued to the library thread,
// where ClientCore carries it out.
#include "client/ClientCore.h"
#include "protocol/OverlayProtocol.h"

namespace streamloft {

namespace {

// Runs `request` on the library thread of the browser's client; a client
// that has ended drops it (with its completion).
void Queue(const std::shared_ptr<Browser::State>& state,
           std::function<void(ClientCore&, const ClientCore::StatePtr&)> request)
{
    std::shared_ptr<ClientCore> core = state->core.lock();
    if (!core || core->ending)
        return;
    core->RunOnLibraryThread([weak = std::weak_ptr<ClientCore>(core), state, request = std::move(request)] {
        if (auto core = weak.lock())
            request(*core, state);
    });
}

std::vector<const char*> Strings(const std::vector<std::string>& strings)
{
    std::vector<const char*> pointers;
    for (const auto& s : strings)
        pointers.push_back(s.c_str());
    return pointers;
}

} // namespace

Browser::Browser(std::shared_ptr<State> state) : state_(std::move(state))
{
}

Browser::~Browser()
{
    Queue(state_, [](ClientCore& core, const ClientCore::StatePtr& state) { core.Drop(state); });
}

int Browser::ID() const
{
    return state_->id;
}

void Browser::Resize(double width, double height, Completion done)
{
    Queue(state_, [width, height, done = std::move(done)](ClientCore& core, const ClientCore::StatePtr& state) {
        core.Request(
            state, protocol::kMethodUpdateBrowserSize,
            [=](int id) { return g_variant_new("(idd)", id, width, height); }, done);
    });
}

void Browser::Close(Completion done)
{
    Queue(state_,
          [done = std::move(done)](ClientCore& core, const ClientCore::StatePtr& state) { core.Close(state, done); });
}

void Browser::UpdateSettingsData(std::vector<uint8_t> settingsData, Completion done)
{
    Queue(state_, [data = std::move(settingsData), done = std::move(done)](ClientCore& core,
                                                                           const ClientCore::StatePtr& state) {
        core.Request(
            state, protocol::kMethodUpdateBrowserSettingsData,
            [data](int id) {
                GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.data(), data.size(), 1);
                return g_variant_new("(i@ay)", id, bytes);
            },
            done);
    });
}

void Browser::UpdatePermittedFileURLStrings(std::vector<std::string> permittedFileURLStrings, Completion done)
{
    Queue(state_, [permitted = std::move(permittedFileURLStrings),
                   done = std::move(done)](ClientCore& core, const ClientCore::StatePtr& state) {
        core.Request(
            state, protocol::kMethodUpdateBrowserPermittedFileURLStrings,
            [permitted](int id) {
                auto strings = Strings(permitted);
                return g_variant_new("(i@as)", id, g_variant_new_strv(strings.data(), gssize(strings.size())));
            },
            done);
    });
}

} // namespace streamloft
