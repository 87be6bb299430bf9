// Process messages from a web process arrive as a name and a GVariant of any
// type: build the message from them as the service does, and read the same
// value as the module's initialisation data. A message that was built must
// survive being sent on and read again.
#include "engine/wpe/WpeVariantCodec.h"
#include "fuzz/FuzzSupport.h"

using namespace SLF_ChromiumEmbeddedFramework;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The decode calls: any value (a serialised variant), or none at all.
    GVariant* boxed = size ? FuzzVariant("v", data, size) : nullptr;
    GVariant* parameters = boxed ? g_variant_get_variant(boxed) : nullptr;
    std::string error;
    EngineProcessMessageRef message = ProcessMessageFromVariant("slf.fuzz", parameters, error);
    ExtensionInitData init = ExtensionInitDataFromVariant(parameters);
    (void)ForcedDeviceScaleFactor(init.switches);

    if (message) {
        GVariant* sent = ProcessMessageArgumentsToVariant(*message);
        if (sent)
            g_variant_ref_sink(sent);
        std::string again;
        FUZZ_CHECK(ProcessMessageFromVariant("slf.fuzz", sent, again) != nullptr);
        if (sent)
            g_variant_unref(sent);
    }
    if (parameters)
        g_variant_unref(parameters);
    if (boxed)
        g_variant_unref(boxed);
    return 0;
}
