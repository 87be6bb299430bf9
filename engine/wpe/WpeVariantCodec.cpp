#include "engine/wpe/WpeVariantCodec.h"

#include <cmath>
#include <cstdlib>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

const char kProcessTypeKey[] = "process-type";
const char kSwitchesKey[] = "switches";
const char kDeviceScaleFactorSwitch[] = "force-device-scale-factor";

// One received value as an argument; false for a type we cannot carry.
bool ValueFromVariant(GVariant* value, EngineValue& out)
{
    const GVariantClass type = g_variant_classify(value);
    switch (type) {
    case G_VARIANT_CLASS_BOOLEAN:
        out = g_variant_get_boolean(value) ? 1 : 0;
        return true;
    case G_VARIANT_CLASS_BYTE:
        out = static_cast<int>(g_variant_get_byte(value));
        return true;
    case G_VARIANT_CLASS_INT16:
        out = static_cast<int>(g_variant_get_int16(value));
        return true;
    case G_VARIANT_CLASS_UINT16:
        out = static_cast<int>(g_variant_get_uint16(value));
        return true;
    case G_VARIANT_CLASS_INT32:
        out = static_cast<int>(g_variant_get_int32(value));
        return true;
    case G_VARIANT_CLASS_UINT32:
        out = static_cast<int>(g_variant_get_uint32(value));
        return true;
    case G_VARIANT_CLASS_INT64:
        out = static_cast<int>(g_variant_get_int64(value));
        return true;
    case G_VARIANT_CLASS_UINT64:
        out = static_cast<int>(g_variant_get_uint64(value));
        return true;
    case G_VARIANT_CLASS_STRING:
    case G_VARIANT_CLASS_OBJECT_PATH:
    case G_VARIANT_CLASS_SIGNATURE:
        out = std::string(g_variant_get_string(value, nullptr));
        return true;
    case G_VARIANT_CLASS_VARIANT: {
        GVariant* inner = g_variant_get_variant(value);
        const bool ok = ValueFromVariant(inner, out);
        g_variant_unref(inner);
        return ok;
    }
    default:
        return false;
    }
}

} // namespace

GVariant* ProcessMessageArgumentsToVariant(const EngineProcessMessage& message)
{
    if (!message.HasArgumentList())
        return nullptr;
    const std::vector<EngineValue>& arguments = *message.Arguments();
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    for (const EngineValue& argument : arguments) {
        if (const int* number = std::get_if<int>(&argument))
            g_variant_builder_add(&builder, "i", static_cast<gint32>(*number));
        else
            g_variant_builder_add(&builder, "s", std::get<std::string>(argument).c_str());
    }
    return g_variant_builder_end(&builder);
}

EngineProcessMessageRef ProcessMessageFromVariant(const std::string& name, GVariant* parameters, std::string& error)
{
    auto message = EngineProcessMessage::Create(name);
    if (!parameters)
        return message;

    std::vector<EngineValue> arguments;
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE_TUPLE)) {
        const gsize count = g_variant_n_children(parameters);
        for (gsize i = 0; i < count; ++i) {
            GVariant* child = g_variant_get_child_value(parameters, i);
            EngineValue value;
            const bool ok = ValueFromVariant(child, value);
            if (!ok)
                error = "argument " + std::to_string(i) + " of message \"" + name + "\" has the unsupported type '" +
                        g_variant_get_type_string(child) + "'";
            g_variant_unref(child);
            if (!ok)
                return nullptr;
            arguments.push_back(std::move(value));
        }
    } else {
        EngineValue value;
        if (!ValueFromVariant(parameters, value)) {
            error = "the parameters of message \"" + name + "\" have the unsupported type '" +
                    g_variant_get_type_string(parameters) + "'";
            return nullptr;
        }
        arguments.push_back(std::move(value));
    }
    message->SetArguments(std::move(arguments));
    return message;
}

GVariant* ExtensionInitDataToVariant(const std::string& processType, const EngineCommandLine& switches)
{
    GVariantBuilder list;
    g_variant_builder_init(&list, G_VARIANT_TYPE("a(ss)"));
    for (const auto& entry : switches.Switches())
        g_variant_builder_add(&list, "(ss)", entry.first.c_str(), entry.second.c_str());

    GVariantBuilder data;
    g_variant_builder_init(&data, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&data, "{sv}", kProcessTypeKey, g_variant_new_string(processType.c_str()));
    g_variant_builder_add(&data, "{sv}", kSwitchesKey, g_variant_builder_end(&list));
    return g_variant_builder_end(&data);
}

ExtensionInitData ExtensionInitDataFromVariant(GVariant* data)
{
    ExtensionInitData result;
    if (!data || !g_variant_is_of_type(data, G_VARIANT_TYPE_VARDICT))
        return result;

    const gchar* processType = nullptr;
    if (g_variant_lookup(data, kProcessTypeKey, "&s", &processType))
        result.processType = processType;

    GVariant* list = g_variant_lookup_value(data, kSwitchesKey, G_VARIANT_TYPE("a(ss)"));
    if (list) {
        GVariantIter iter;
        g_variant_iter_init(&iter, list);
        const gchar* name = nullptr;
        const gchar* value = nullptr;
        while (g_variant_iter_next(&iter, "(&s&s)", &name, &value)) {
            if (*value)
                result.switches.AppendSwitchWithValue(name, value);
            else
                result.switches.AppendSwitch(name);
        }
        g_variant_unref(list);
    }
    return result;
}

std::optional<double> ForcedDeviceScaleFactor(const EngineCommandLine& switches)
{
    if (!switches.HasSwitch(kDeviceScaleFactorSwitch))
        return std::nullopt;
    const std::string text = switches.GetSwitchValue(kDeviceScaleFactorSwitch);
    if (text.empty())
        return std::nullopt;
    gchar* end = nullptr;
    const double value = g_ascii_strtod(text.c_str(), &end);
    if (!end || *end != '\0' || !std::isfinite(value) || value <= 0.0)
        return std::nullopt;
    return value;
}

} // namespace SLF_ChromiumEmbeddedFramework
