#include "engine/wpe/WpeVariantCodec.h"

#include <gtest/gtest.h>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

// Takes ownership of a floating or new variant.
struct Variant {
    explicit Variant(GVariant* v) : value(v ? g_variant_ref_sink(v) : nullptr) {}
    ~Variant()
    {
        if (value)
            g_variant_unref(value);
    }
    GVariant* value;
};

// A missing argument list and an empty one must stay apart.
TEST(WpeVariantCodec, ProcessMessagesRoundTrip)
{
    EngineProcessMessage message("m");
    message.GetArgumentList() = {EngineValue(4242), EngineValue(std::string("text")), EngineValue(-1)};
    Variant encoded(ProcessMessageArgumentsToVariant(message));
    std::string error;
    auto decoded = ProcessMessageFromVariant("m", encoded.value, error);
    ASSERT_NE(decoded, nullptr) << error;
    EXPECT_EQ(*decoded->Arguments(), *message.Arguments());

    EngineProcessMessage bare("bare");
    EXPECT_EQ(ProcessMessageArgumentsToVariant(bare), nullptr);
    EXPECT_FALSE(ProcessMessageFromVariant("bare", nullptr, error)->HasArgumentList());
    EngineProcessMessage empty("empty");
    empty.GetArgumentList();
    Variant emptyEncoded(ProcessMessageArgumentsToVariant(empty));
    decoded = ProcessMessageFromVariant("empty", emptyEncoded.value, error);
    ASSERT_NE(decoded, nullptr);
    EXPECT_TRUE(decoded->HasArgumentList());
    EXPECT_TRUE(decoded->Arguments()->empty());
}

TEST(WpeVariantCodec, ForeignParametersAreReadOrRefused)
{
    std::string error;
    Variant boxed(g_variant_new("(uv)", 7u, g_variant_new_string("inner")));
    auto message = ProcessMessageFromVariant("m", boxed.value, error);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(*message->Arguments(), (std::vector<EngineValue> {7, std::string("inner")}));
    Variant bare(g_variant_new_boolean(TRUE)); // a one-element list
    EXPECT_EQ(*ProcessMessageFromVariant("m", bare.value, error)->Arguments(), std::vector<EngineValue> {1});

    Variant unsupported(g_variant_new("(id)", 1, 2.5));
    EXPECT_EQ(ProcessMessageFromVariant("m", unsupported.value, error), nullptr);
    EXPECT_NE(error.find("argument 1"), std::string::npos) << error;
}

TEST(WpeVariantCodec, InitDataCarriesTheCommandLineAndTheScaleFactorMustBePositive)
{
    EngineCommandLine switches;
    switches.AppendSwitchWithValue("force-device-scale-factor", "1");
    switches.AppendSwitch("no-sandbox");
    Variant data(ExtensionInitDataToVariant("renderer", switches));
    ExtensionInitData read = ExtensionInitDataFromVariant(data.value);
    EXPECT_EQ(read.processType, "renderer");
    EXPECT_EQ(read.switches.Switches(), switches.Switches());
    EXPECT_EQ(ForcedDeviceScaleFactor(read.switches), 1.0);
    Variant wrong(g_variant_new_string("nonsense"));
    EXPECT_TRUE(ExtensionInitDataFromVariant(wrong.value).switches.Switches().empty());

    for (const char* bad : {"0", "-1", "two", "1x"}) {
        EngineCommandLine line;
        line.AppendSwitchWithValue("force-device-scale-factor", bad);
        EXPECT_FALSE(ForcedDeviceScaleFactor(line).has_value()) << bad;
    }
}

} // namespace
