#include "engine/wpe/WebKitVariantCodec.h"

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

TEST(WebKitVariantCodec, ProcessMessageArgumentsRoundTrip)
{
    EngineProcessMessage message("SlfCef_Response_GetRenderProcessId");
    message.GetArgumentList() = {EngineValue(4242), EngineValue(std::string("text")), EngineValue(-1)};
    Variant encoded(ProcessMessageArgumentsToVariant(message));
    ASSERT_NE(encoded.value, nullptr);
    EXPECT_STREQ(g_variant_get_type_string(encoded.value), "(isi)");

    std::string error;
    auto decoded = ProcessMessageFromVariant(message.GetName(), encoded.value, error);
    ASSERT_NE(decoded, nullptr) << error;
    EXPECT_EQ(decoded->GetName(), "SlfCef_Response_GetRenderProcessId");
    ASSERT_TRUE(decoded->HasArgumentList());
    EXPECT_EQ(*decoded->Arguments(), *message.Arguments());
}

TEST(WebKitVariantCodec, MissingAndEmptyArgumentListsStayApart)
{
    EngineProcessMessage bare("SlfCef_Request_GetRenderProcessId");
    EXPECT_EQ(ProcessMessageArgumentsToVariant(bare), nullptr);
    std::string error;
    auto decodedBare = ProcessMessageFromVariant(bare.GetName(), nullptr, error);
    ASSERT_NE(decodedBare, nullptr);
    EXPECT_FALSE(decodedBare->HasArgumentList());

    EngineProcessMessage empty("empty");
    empty.GetArgumentList();
    Variant encoded(ProcessMessageArgumentsToVariant(empty));
    ASSERT_NE(encoded.value, nullptr);
    auto decodedEmpty = ProcessMessageFromVariant("empty", encoded.value, error);
    ASSERT_NE(decodedEmpty, nullptr);
    EXPECT_TRUE(decodedEmpty->HasArgumentList());
    EXPECT_TRUE(decodedEmpty->Arguments()->empty());
}

TEST(WebKitVariantCodec, ForeignParametersAreReadOrRefused)
{
    std::string error;
    // A bare value is a one-element list; other integer types become int.
    Variant single(g_variant_new_uint32(7));
    auto message = ProcessMessageFromVariant("m", single.value, error);
    ASSERT_NE(message, nullptr);
    ASSERT_EQ(message->Arguments()->size(), 1u);
    EXPECT_EQ(std::get<int>(message->Arguments()->at(0)), 7);

    Variant boxed(g_variant_new("(bv)", TRUE, g_variant_new_string("inner")));
    message = ProcessMessageFromVariant("m", boxed.value, error);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(std::get<int>(message->Arguments()->at(0)), 1);
    EXPECT_EQ(std::get<std::string>(message->Arguments()->at(1)), "inner");

    // A type without a counterpart makes the message unreadable, with a reason.
    Variant unsupported(g_variant_new("(id)", 1, 2.5));
    message = ProcessMessageFromVariant("m", unsupported.value, error);
    EXPECT_EQ(message, nullptr);
    EXPECT_NE(error.find("argument 1"), std::string::npos) << error;
}

TEST(WebKitVariantCodec, InitDataCarriesTheCommandLine)
{
    EngineCommandLine switches;
    switches.AppendSwitchWithValue("force-device-scale-factor", "1");
    switches.AppendSwitch("no-sandbox");
    Variant data(ExtensionInitDataToVariant("renderer", switches));

    ExtensionInitData read = ExtensionInitDataFromVariant(data.value);
    EXPECT_EQ(read.processType, "renderer");
    EXPECT_EQ(read.switches.Switches(), switches.Switches());
    EXPECT_EQ(ForcedDeviceScaleFactor(read.switches), 1.0);

    // Malformed data gives empty data, not a crash.
    Variant wrong(g_variant_new_string("nonsense"));
    EXPECT_TRUE(ExtensionInitDataFromVariant(wrong.value).switches.Switches().empty());
    EXPECT_TRUE(ExtensionInitDataFromVariant(nullptr).processType.empty());
}

TEST(WebKitVariantCodec, DeviceScaleFactorMustBeAPositiveNumber)
{
    auto factor = [](const char* value) {
        EngineCommandLine switches;
        switches.AppendSwitchWithValue("force-device-scale-factor", value);
        return ForcedDeviceScaleFactor(switches);
    };
    EXPECT_EQ(factor("2.5"), 2.5);
    EXPECT_FALSE(factor("0").has_value());
    EXPECT_FALSE(factor("-1").has_value());
    EXPECT_FALSE(factor("two").has_value());
    EXPECT_FALSE(factor("1x").has_value());
    EXPECT_FALSE(ForcedDeviceScaleFactor(EngineCommandLine()).has_value());
}

} // namespace
