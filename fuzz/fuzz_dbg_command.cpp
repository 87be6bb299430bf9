// Log commands come from the service's command line and environment, which a
// host that starts the service writes: run the text as a command and as a
// query. Files go to a folder of this run only: the text's "/" are taken as
// "_", so a log file path is always relative to the home folder set here,
// and syslog datagrams are not sent.
#include "dbg/DbgState.h"
#include "dbg/dbg.h"
#include "fuzz/FuzzSupport.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

ssize_t DropDatagram(int, const void*, size_t length, int, const struct sockaddr*, socklen_t)
{
    return static_cast<ssize_t>(length);
}

bool SetUp()
{
    const char* tmp = getenv("TMPDIR");
    std::string folder = std::string(tmp && tmp[0] ? tmp : "/tmp") + "/slf-fuzz-dbg-XXXXXX";
    FUZZ_CHECK(mkdtemp(folder.data()));
    DbgSetHomeFolderOverride(folder.c_str());
    DbgSetSendFunction(DropDatagram);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool ready = SetUp();
    (void)ready;
    std::string text = FuzzText(data, size);
    for (char& c : text) {
        if (c == '/')
            c = '_';
    }
    // The decode calls.
    (void)dbgcommand(text.c_str());
    (void)dbgquery(text.c_str());
    // Back to no sinks, so that one input's log file or socket does not
    // slow down (or write for) the next.
    DbgGetSettings().sinkMask.store(0, std::memory_order_relaxed);
    DbgResetLogFile();
    DbgSyslogCloseUdp();
    return 0;
}
