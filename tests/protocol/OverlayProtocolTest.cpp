// The names the code uses agree with the interfaces the XML declares: a
// method renamed on one side only would be refused as unknown at run time.
#include "protocol/OverlayProtocol.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

using namespace streamloft;

namespace {

std::set<std::string> MethodNames(GDBusInterfaceInfo* info)
{
    std::set<std::string> names;
    for (GDBusMethodInfo** method = info->methods; method && *method; ++method)
        names.insert((*method)->name);
    return names;
}

TEST(OverlayProtocol, EveryMethodNameIsDeclaredInItsInterfaceAndNoneIsMissing)
{
    GDBusInterfaceInfo* requests = protocol::RequestInterfaceInfo();
    GDBusInterfaceInfo* callbacks = protocol::CallbacksInterfaceInfo();
    EXPECT_STREQ(requests->name, protocol::kServiceInterface);
    EXPECT_STREQ(callbacks->name, protocol::kCallbacksInterface);
    EXPECT_EQ(MethodNames(requests),
              (std::set<std::string>{protocol::kMethodOpenBrowser, protocol::kMethodUpdateBrowserSize,
                                     protocol::kMethodCloseBrowser, protocol::kMethodUpdateBrowserSettingsData,
                                     protocol::kMethodUpdateBrowserPermittedFileURLStrings}));
    EXPECT_EQ(MethodNames(callbacks),
              (std::set<std::string>{protocol::kMethodBrowserDidStart, protocol::kMethodBrowserReceivedVideoFrame,
                                     protocol::kMethodBrowserWillStartAudioStream,
                                     protocol::kMethodBrowserDidReceiveAudioStream,
                                     protocol::kMethodBrowserWillStopAudioStream,
                                     protocol::kMethodRequestSettingsDataForBrowser}));
    // The frame's dictionary is the a{sv} next to the surface's descriptor.
    GDBusMethodInfo* frame =
        g_dbus_interface_info_lookup_method(callbacks, protocol::kMethodBrowserReceivedVideoFrame);
    ASSERT_TRUE(frame && frame->in_args[0] && frame->in_args[1] && frame->in_args[2]);
    EXPECT_STREQ(frame->in_args[1]->signature, "h");
    EXPECT_STREQ(frame->in_args[2]->signature, "a{sv}");
    EXPECT_TRUE(g_dbus_is_interface_name(protocol::kErrorInvalidURL));
    EXPECT_TRUE(g_dbus_is_interface_name(protocol::kErrorInvalidArgument));
    EXPECT_TRUE(g_variant_is_object_path(protocol::kServiceObjectPath));
    EXPECT_TRUE(g_variant_is_object_path(protocol::kCallbacksObjectPath));
}

} // namespace
