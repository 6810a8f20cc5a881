#include "tools/tevrolctl/one-shot.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/loop.h"
#include "tools/tevrolctl/names.h"

namespace tevrolctl {
namespace {

tevrol::Bytes ReadStandardInput() {
    tevrol::Bytes bytes;
    char buffer[1 << 16];
    for (;;) {
        const ssize_t size = read(STDIN_FILENO, buffer, sizeof buffer);
        if (size == 0) {
            return bytes;
        }
        if (size < 0 && errno != EINTR) {
            throw Failure(kExitUsage,
                          std::string("cannot read standard input: ") + strerror(errno));
        }
        bytes.insert(bytes.end(), buffer, buffer + (size < 0 ? 0 : size));
    }
}

}  // namespace

OneShot::OneShot(const char* command, const char* summary, const char* details, int argc,
                 char** argv) {
    double wait = 5;
    gboolean verbose = FALSE;
    const GOptionEntry entries[] = {
        {"wait", 'w', 0, G_OPTION_ARG_DOUBLE, &wait, "Wait so long for the partner (5)", "SECONDS"},
        {"verbose", 'v', 0, G_OPTION_ARG_NONE, &verbose, "Show the library's log", nullptr},
        {}};
    CommandLine line(command, "NAME DATA|-", summary, details);
    line.Add(entries);
    const auto arguments = line.Parse(argc, argv, 2, 2);
    m_channel = arguments[0];
    RequireUsableName(m_channel);
    m_wait = Seconds(wait);
    m_payload = arguments[1] == "-" ? ReadStandardInput() : ReadPayload(arguments[1]);
    ShowLog(verbose != FALSE);
}

ChannelEnd& OneShot::AwaitPartner() {
    SystemBus();
    KeepOutputClean();
    EndOnSignals();
    auto& channel =
        *new ChannelEnd(m_channel, {[](const tevrol::Bytes&) { return tevrol::Bytes(); },
                                    [](const tevrol::Bytes&) {}, [](bool, const std::string&) {}});
    if (!tevrol::IterateUntil([&] { return channel.IsConnectionReady(); }, m_wait)) {
        throw Failure(kExitNoPartner, "no partner of \"" + m_channel + "\" within " +
                                          Duration(m_wait.count() * 1000) +
                                          " (none runs, or it is bound to another process)");
    }
    return channel;
}

}  // namespace tevrolctl
