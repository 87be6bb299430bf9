// Writes the seed corpus of the fuzz targets: one folder per target, a few
// small well-formed inputs each, made with the same encoders the senders
// use. Usage: slf-fuzz-seeds <corpus folder>
#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCRecord.h"
#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeResourceChannel.h"
#include "engine/wpe/WpeVariantCodec.h"
#include "protocol/SurfaceDictionary.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

std::string g_root;

void Write(const char* target, const char* name, const void* data, size_t size)
{
    const std::string folder = g_root + "/" + target;
    mkdir(folder.c_str(), 0755);
    const std::string path = folder + "/" + name;
    FILE* file = fopen(path.c_str(), "wb");
    if (!file || fwrite(data, 1, size, file) != size) {
        perror(path.c_str());
        exit(1);
    }
    fclose(file);
}

void WriteText(const char* target, const char* name, const std::string& text)
{
    Write(target, name, text.data(), text.size());
}

// A value's serialised bytes; the value is consumed.
void WriteVariant(const char* target, const char* name, GVariant* value)
{
    g_variant_ref_sink(value);
    Write(target, name, g_variant_get_data(value), g_variant_get_size(value));
    g_variant_unref(value);
}

std::vector<uint8_t> Frame(GVariant* value)
{
    g_variant_ref_sink(value);
    const uint32_t length = static_cast<uint32_t>(g_variant_get_size(value));
    std::vector<uint8_t> frame(sizeof length + length);
    std::memcpy(frame.data(), &length, sizeof length);
    std::memcpy(frame.data() + sizeof length, g_variant_get_data(value), length);
    g_variant_unref(value);
    return frame;
}

void AppendAudioFrame(std::vector<uint8_t>& out, uint32_t kind, uint32_t length, int rate, int channels, int bits)
{
    const AudioFrameHeader header = {kind, rate, channels, bits};
    const uint32_t total = static_cast<uint32_t>(sizeof header + length);
    const auto* lengthBytes = reinterpret_cast<const uint8_t*>(&total);
    out.insert(out.end(), lengthBytes, lengthBytes + sizeof total);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&header);
    out.insert(out.end(), bytes, bytes + sizeof header);
    out.insert(out.end(), length, 0x11);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
        return 2;
    }
    g_root = argv[1];
    mkdir(g_root.c_str(), 0755);

    // Audio buffer records: a filled slot, the empty "no buffer" record.
    auto buffer = NVKXPCAudioBuffer::initWithBuffer(nullptr, 256, 256);
    buffer->setLength(200);
    buffer->setSampleRate(48000);
    buffer->setChannelCount(2);
    buffer->setBitsPerSample(16);
    WriteVariant("fuzz_audio_buffer_record", "slot1", buffer->encodeRecord());
    WriteVariant("fuzz_audio_buffer_record", "none", g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0));

    // A pool record naming a segment that does not exist.
    NVKXPCRecordWriter pool;
    pool.addSigned("NVKBufferBitsPerSample", 16);
    pool.addSigned("NVKBufferChannelCount", 2);
    pool.addSigned("NVKBufferSampleRate", 48000);
    pool.addUnsigned("NVKBufferCapacity", 3840);
    pool.addUnsigned("NVKMaxNumBuffers", 200);
    pool.addString("NVKShmemName", "NVKXPCABN_0xffff00000000");
    WriteVariant("fuzz_audio_pool_record", "pool", pool.finish());

    // Surface properties of a 64 x 32 surface with padded rows, alone and
    // with a frame's timing.
    streamloft::SurfaceProperties surface;
    surface.width = 64;
    surface.height = 32;
    surface.bytesPerRow = 320;
    surface.bytesPerElement = streamloft::kBytesPerPixelBGRA;
    surface.pixelFormat = streamloft::kPixelFormatBGRA;
    surface.surfaceID = 5;
    surface.allocSize = 320 * 32;
    WriteVariant("fuzz_surface_properties", "frame", streamloft::protocol::BuildSurfaceProperties(surface));
    surface.frameSequence = 12;
    surface.framePresentationTime = 1234567890;
    WriteVariant("fuzz_surface_properties", "frame_timed", streamloft::protocol::BuildSurfaceProperties(surface));

    // Resource frames: a question and an answer.
    auto question = Frame(g_variant_new(kQuestionType, guint64(3), "http://streamloft/settings"));
    Write("fuzz_resource_frame", "question", question.data(), question.size());
    auto answer = Frame(g_variant_new(kAnswerType, guint8(kTakenOver),
                                      ResourceUrlForToken("0123456789abcdef0123456789abcdef").c_str()));
    Write("fuzz_resource_frame", "answer", answer.data(), answer.size());

    // An audio stream: start, two packets, stop.
    std::vector<uint8_t> audio;
    AppendAudioFrame(audio, AUDIO_FRAME_START, 0, 48000, 2, 16);
    AppendAudioFrame(audio, AUDIO_FRAME_PACKET, 16, 48000, 2, 16);
    AppendAudioFrame(audio, AUDIO_FRAME_PACKET, 8, 48000, 2, 16);
    AppendAudioFrame(audio, AUDIO_FRAME_STOP, 0, 48000, 2, 16);
    Write("fuzz_audio_frames", "stream", audio.data(), audio.size());

    // Process message arguments and initialisation data, boxed in a variant.
    WriteVariant("fuzz_process_message", "arguments", g_variant_new_variant(g_variant_new("(isb)", 7, "text", TRUE)));
    EngineCommandLine switches;
    switches.AppendSwitchWithValue("force-device-scale-factor", "2");
    WriteVariant("fuzz_process_message", "init",
                 g_variant_new_variant(ExtensionInitDataToVariant("renderer", switches)));

    // Log commands.
    WriteText("fuzz_dbg_command", "module", "engine ERR:1 WRN:1 INF:0 custom");
    WriteText("fuzz_dbg_command", "filter", "filter_debug \"a b\"");
    WriteText("fuzz_dbg_command", "syslog", "syslog 127.0.0.1 RFC5424");
    WriteText("fuzz_dbg_command", "logfile", "logfile ~_overlay.log");
    WriteText("fuzz_dbg_command", "switches", "time nothreadid deltatime functionnamefilter Browser");

    // Request URLs.
    WriteText("fuzz_resource_url", "resource", "slfcef-resource:17");
    WriteText("fuzz_resource_url", "text", "http://streamloft/requestText?filePath=%2Fsrv%2Foverlay%2Fa+b.txt");
    WriteText("fuzz_resource_url", "permitted", "file:///srv/overlay/img/a%20b.png?x=1");
    WriteText("fuzz_resource_url", "climb", "file:///srv/overlay/%2e%2E/secret");
    WriteText("fuzz_resource_url", "settings", "http://streamloft/settings?x=1#top");
    return 0;
}
