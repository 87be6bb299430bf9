// The plugin "slfoverlay": registers the element slfoverlaysrc (see
// SlfOverlaySrc.h). Runs once, on the thread that loads the plugin.
#include "gst/SlfOverlaySrc.h"

static gboolean plugin_init(GstPlugin* plugin)
{
    return gst_element_register(plugin, "slfoverlaysrc", GST_RANK_NONE, SLF_TYPE_OVERLAY_SRC);
}

#define PACKAGE "streamloft"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, slfoverlay, "Web pages of the Streamloft overlay service",
                  plugin_init, SLF_VERSION, "Proprietary", "Streamloft overlay helper", "Streamloft")
