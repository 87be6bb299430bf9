// slfoverlaysrc in real pipelines, with the real service started on demand
// on a socket in a temporary folder.
#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <cmath>

#include "tests/support/ServiceProcess.h"

using namespace slftest;

namespace {

// Waits up to `seconds` for a message of `types` on the pipeline's bus
// (null when none came); the caller unrefs it.
GstMessage* WaitForMessage(GstElement* pipeline, GstMessageType types, int seconds)
{
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* message = gst_bus_timed_pop_filtered(bus, GstClockTime(seconds) * GST_SECOND, types);
    gst_object_unref(bus);
    return message;
}

// The next element message named `name`, skipping others; its browser-id or -1.
int WaitForBrowserMessage(GstElement* pipeline, const char* name, int seconds)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        GstMessage* message = WaitForMessage(pipeline, GstMessageType(GST_MESSAGE_ELEMENT | GST_MESSAGE_ERROR), 1);
        if (!message)
            continue;
        int id = -1;
        const GstStructure* s = gst_message_get_structure(message);
        bool match = GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT && gst_structure_has_name(s, name);
        if (match)
            gst_structure_get_int(s, "browser-id", &id);
        bool error = GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR;
        gst_message_unref(message);
        if (match)
            return id;
        if (error)
            break;
    }
    return -1;
}

struct Sample {
    int width = 0, height = 0, fpsN = 0, fpsD = 0, rate = 0, channels = 0;
    std::string format;
    GstClockTime pts = GST_CLOCK_TIME_NONE;
    std::vector<uint8_t> bytes;
};

bool Pull(GstElement* sink, Sample& out, int seconds = 30)
{
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), GstClockTime(seconds) * GST_SECOND);
    if (!sample)
        return false;
    const GstStructure* s = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
    out = {};
    gst_structure_get_int(s, "width", &out.width);
    gst_structure_get_int(s, "height", &out.height);
    gst_structure_get_fraction(s, "framerate", &out.fpsN, &out.fpsD);
    gst_structure_get_int(s, "rate", &out.rate);
    gst_structure_get_int(s, "channels", &out.channels);
    if (const char* format = gst_structure_get_string(s, "format"))
        out.format = format;
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    out.pts = GST_BUFFER_PTS(buffer);
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_READ);
    out.bytes.assign(map.data, map.data + map.size);
    gst_buffer_unmap(buffer, &map);
    gst_sample_unref(sample);
    return true;
}

class OverlaySrcTest : public ServiceTest {
protected:
    static void SetUpTestSuite()
    {
        gst_init(nullptr, nullptr);
        GError* error = nullptr;
        GstPlugin* plugin = gst_plugin_load_file(SLF_TEST_PLUGIN_PATH, &error);
        ASSERT_TRUE(plugin) << (error ? error->message : "");
        gst_object_unref(plugin);
    }

    void SetUp() override
    {
        ServiceTest::SetUp();
        setenv("SLF_OVERLAY_HELPER", kHelper.c_str(), 1);
    }

    // The pipeline first; then the service the element started, found by its
    // process ID, goes with the folder.
    void TearDown() override
    {
        if (pipeline_) {
            gst_element_set_state(pipeline_, GST_STATE_NULL);
            gst_object_unref(pipeline_);
        }
        if (auto client = streamloft::OverlayClient::Connect(Options(false)))
            services_.push_back(client->ServiceProcessID());
        ServiceTest::TearDown();
    }

    GstElement* Launch(const std::string& description)
    {
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        EXPECT_TRUE(pipeline_ && !error) << (error ? error->message : "");
        if (error)
            g_error_free(error);
        return pipeline_;
    }

    GstElement* Child(const char* name)
    {
        GstElement* child = gst_bin_get_by_name(GST_BIN(pipeline_), name);
        gst_object_unref(child); // the pipeline keeps it
        return child;
    }

    std::string Source(const std::string& page)
    {
        return "slfoverlaysrc name=src location=" + PageURL(page) + " socket=" + socket_;
    }

    GstElement* pipeline_ = nullptr;
};

TEST_F(OverlaySrcTest, NegotiatesTheSizeStampsIncreasingTimesFollowsACapsChangeAndClosesOnEndOfStream)
{
    ASSERT_TRUE(Launch(Source("client_overlay.html") +
                       " ! capsfilter name=filter caps=video/x-raw,width=400,height=300,framerate=30/1"
                       " ! appsink name=sink sync=false max-buffers=4 drop=true wait-on-eos=false"));
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    int browser = WaitForBrowserMessage(pipeline_, "slf-browser-started", 60);
    ASSERT_GT(browser, 0);

    GstElement* sink = Child("sink");
    GstClockTime last = GST_CLOCK_TIME_NONE;
    for (int i = 0; i < 10; ++i) {
        Sample frame;
        ASSERT_TRUE(Pull(sink, frame)) << "frame " << i;
        EXPECT_EQ(frame.format, "BGRA");
        EXPECT_EQ(frame.width, 400);
        EXPECT_EQ(frame.height, 300);
        EXPECT_EQ(frame.fpsN, 30);
        EXPECT_EQ(frame.fpsD, 1);
        EXPECT_EQ(frame.bytes.size(), 400u * 300u * 4u);
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(frame.pts));
        if (GST_CLOCK_TIME_IS_VALID(last)) {
            EXPECT_GT(frame.pts, last);
        }
        last = frame.pts;
    }

    // New caps downstream resize the browser: frames of the new size follow.
    GstCaps* smaller = gst_caps_from_string("video/x-raw,width=200,height=150,framerate=30/1");
    g_object_set(Child("filter"), "caps", smaller, nullptr);
    gst_caps_unref(smaller);
    bool resized = false;
    for (int i = 0; i < 200 && !resized; ++i) {
        Sample frame;
        ASSERT_TRUE(Pull(sink, frame));
        resized = frame.width == 200 && frame.height == 150 && frame.bytes.size() == 200u * 150u * 4u;
    }
    EXPECT_TRUE(resized);

    // End of stream closes the browser and reaches the sink.
    gst_element_send_event(pipeline_, gst_event_new_eos());
    EXPECT_EQ(WaitForBrowserMessage(pipeline_, "slf-browser-closed", 30), browser);
    // The sink holds end of stream behind the frames still queued in it.
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
         !gst_app_sink_is_eos(GST_APP_SINK(sink)) && std::chrono::steady_clock::now() < deadline;) {
        if (GstSample* queued = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), GST_SECOND / 10))
            gst_sample_unref(queued);
    }
    EXPECT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(sink)));
    GstMessage* eos = WaitForMessage(pipeline_, GST_MESSAGE_EOS, 30);
    EXPECT_TRUE(eos);
    if (eos)
        gst_message_unref(eos);
}

TEST_F(OverlaySrcTest, AStaticPageKeepsTheNegotiatedRateWithRepeatedFrames)
{
    // The page paints once (and again only on damage): the element repeats its
    // last frame for every slot of 30/1 that passes without one.
    ASSERT_TRUE(Launch(Source("frames_colours.html") + " ! video/x-raw,width=64,height=64,framerate=30/1"
                                                       " ! appsink name=sink sync=false max-buffers=100 drop=false"));
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    ASSERT_GT(WaitForBrowserMessage(pipeline_, "slf-browser-started", 60), 0);

    GstElement* sink = Child("sink");
    Sample first;
    ASSERT_TRUE(Pull(sink, first, 60));
    ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(first.pts));
    // 90 more buffers: three seconds of the pipeline's time. Without repeats a
    // static page gives a handful and the pulls time out.
    constexpr int kBuffers = 90;
    GstClockTime last = first.pts;
    for (int i = 0; i < kBuffers; ++i) {
        Sample frame;
        ASSERT_TRUE(Pull(sink, frame, 10)) << "buffer " << i;
        ASSERT_EQ(frame.bytes.size(), 64u * 64u * 4u);
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(frame.pts));
        ASSERT_GT(frame.pts, last) << "buffer " << i;
        last = frame.pts;
    }
    // About one buffer per 1/30 s of running time: not a burst (far fewer than
    // the slots that passed) and not far more than the slots that passed. The
    // bounds leave room for a busy machine that skipped slots.
    const double span = double(last - first.pts) / GST_SECOND;
    EXPECT_GT(span, kBuffers / 30.0 * 0.8) << "repeats come faster than the rate";
    EXPECT_LT(span, kBuffers / 30.0 * 4) << "most slots stayed empty";
}

void LinkAudioPad(GstElement*, GstPad* pad, gpointer sink)
{
    if (g_str_has_prefix(GST_PAD_NAME(pad), "audio_")) {
        GstPad* sinkPad = gst_element_get_static_pad(GST_ELEMENT(sink), "sink");
        if (!gst_pad_is_linked(sinkPad))
            gst_pad_link(pad, sinkPad);
        gst_object_unref(sinkPad);
    }
}

TEST_F(OverlaySrcTest, AToneGivesAnAudioPadWithTheStreamsFormatAndTheTone)
{
    ASSERT_TRUE(Launch(Source("audio_tone.html") + " ! video/x-raw,width=64,height=64 ! fakesink sync=false"
                                                   "  appsink name=audio sync=false"));
    GstElement* audio = Child("audio");
    g_signal_connect(Child("src"), "pad-added", G_CALLBACK(LinkAudioPad), audio);
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);

    // Blocks of a 440 Hz tone at half volume: well above silence.
    GstClockTime last = GST_CLOCK_TIME_NONE;
    int loud = 0;
    Sample block;
    for (int i = 0; i < 30; ++i) {
        ASSERT_TRUE(Pull(audio, block, 60)) << "block " << i;
        EXPECT_EQ(block.format, "S16LE");
        EXPECT_TRUE(block.rate == 44100 || block.rate == 48000) << block.rate;
        EXPECT_GE(block.channels, 1);
        EXPECT_EQ(block.bytes.size() % (2 * std::max(block.channels, 1)), 0u);
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(block.pts));
        if (GST_CLOCK_TIME_IS_VALID(last)) {
            EXPECT_GT(block.pts, last);
        }
        last = block.pts;
        int peak = 0;
        for (size_t k = 0; k + 1 < block.bytes.size(); k += 2)
            peak = std::max(peak, std::abs(int(int16_t(block.bytes[k] | (block.bytes[k + 1] << 8)))));
        if (peak > 8000)
            ++loud;
    }
    EXPECT_GT(loud, 10);
    GstPad* pad = gst_element_get_static_pad(Child("src"), "audio_0");
    EXPECT_TRUE(pad) << "the first stream's pad is audio_0";
    if (pad)
        gst_object_unref(pad);
}

// The error message of a pipeline that failed, with its "slf-error" kind.
std::string ErrorKind(GstElement* pipeline, int seconds)
{
    GstMessage* message = WaitForMessage(pipeline, GST_MESSAGE_ERROR, seconds);
    if (!message)
        return "";
    const GstStructure* details = nullptr;
    gst_message_parse_error_details(message, &details);
    std::string kind = details && gst_structure_get_string(details, "slf-error")
                           ? gst_structure_get_string(details, "slf-error")
                           : "(no kind)";
    gst_message_unref(message);
    return kind;
}

TEST_F(OverlaySrcTest, ABadLocationOrNoServicePostsAnErrorOfItsKind)
{
    ASSERT_TRUE(Launch("slfoverlaysrc location=\"http://[bad\" socket=" + socket_ + " ! fakesink"));
    gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    EXPECT_EQ(ErrorKind(pipeline_, 60), "invalid-url");
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
    pipeline_ = nullptr;

    // Nothing answers and the service cannot be started: the start fails.
    setenv("SLF_OVERLAY_HELPER", "/nonexistent/StreamloftCEFOverlayHelper", 1);
    ASSERT_TRUE(Launch("slfoverlaysrc location=" + PageURL("client_overlay.html") + " socket=" + dir_ +
                       "/none.sock ! fakesink"));
    EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(ErrorKind(pipeline_, 30), "service-unreachable");
}

} // namespace
