// SPDX-License-Identifier: MIT
// The cost of a request's two log lines: the lines alone, and requests with and without them, with
// the stand-in for the device's log and with a sink that discards.
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <thread>

#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/subjects.h"
#include "platform/dlog.h"

// The stand-in, renamed by the build to live beside the sink that discards.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((format(printf, 4, 5))) int StandInDlogPrint(int log_id, int priority,
                                                                      const char* tag,
                                                                      const char* format, ...);

namespace bench {
namespace {

// Reads the lines of syslog(3) if no daemon does. Without a reader the stand-in would fail, and
// that would be measured.
class LogDaemon {
public:
    LogDaemon() : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, _PATH_LOG, sizeof address.sun_path - 1);
        const auto* target = reinterpret_cast<const sockaddr*>(&address);
        if (connect(m_socket, target, sizeof address) == 0) {
            return;  // there is one
        }
        m_bound = bind(m_socket, target, sizeof address) == 0;
        if (!m_bound) {
            Progress("log: no log daemon, the lines of the stand-in are lost");
            return;
        }
        m_reader = std::thread([this] {
            std::array<char, 4096> line{};
            while (recv(m_socket, line.data(), line.size(), 0) > 0) {
            }
        });
    }
    ~LogDaemon() {
        if (m_bound) {
            unlink(_PATH_LOG);
            shutdown(m_socket, SHUT_RDWR);
            m_reader.join();
        }
        close(m_socket);
    }
    LogDaemon(const LogDaemon&) = delete;
    LogDaemon& operator=(const LogDaemon&) = delete;

private:
    const int m_socket;
    bool m_bound = false;
    std::thread m_reader;
};

using Print = int (*)(int, int, const char*, const char*, ...);

Group::Body TwoLines(Print print, int size) {
    return [print, size](benchmark::State& state) {
        for (auto _ : state) {
            for (const char* format :
                 {"%s: %s(%d) > [%s:%d] Sending sync message with %d bytes\n\n",
                  "%s: %s(%d) > [%s:%d] Reply with %d bytes\n\n"}) {
                print(LOG_ID_MAIN, DLOG_DEBUG, "sandrel", format, "tevrol-dbus-remote.cpp",
                      "SendMessage", 100, "SendMessage", 100, size);
            }
        }
    };
}

}  // namespace

void MeasureLogCost(Extent extent) {
    constexpr std::size_t kSize = 16;
    const int rounds = extent == Extent::Quick ? 300 : 1000;
    const LogDaemon daemon;
    BoundChannels channels("log", {MakeChannel, MakeLoggingChannel});
    Group requests("log", kSize);
    requests.Add("channel", RoundTrips(channels[0], kSize));
    requests.Add("logging", RoundTrips(channels[1], kSize));
    requests.Run(rounds, 4);
    Group lines("log", kSize);
    lines.Add("lines-discarded", TwoLines(__dlog_print, kSize));
    lines.Add("lines-logged", TwoLines(StandInDlogPrint, kSize));
    lines.Run(rounds, 100);
}

}  // namespace bench
