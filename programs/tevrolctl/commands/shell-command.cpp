// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/commands/shell-command.h"

#include <fcntl.h>
#include <gio/gunixinputstream.h>
#include <gio/gunixoutputstream.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>

#include "devkit/subprocess.h"
#include "programs/common/payload-argument.h"
#include "programs/common/time-limit.h"

namespace programs {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(25);  // that of a requester

// Both pipes of a child: what it is given, and what it prints.
class Pipes {
public:
    Pipes(GSubprocess* child, const tevrol::Bytes& input)
        : m_child(child),
          m_input(input),
          m_ends{{{InputOf(child), POLLOUT, 0}, {OutputOf(child), POLLIN, 0}}} {
        for (const pollfd& end : m_ends) {
            fcntl(end.fd, F_SETFL, fcntl(end.fd, F_GETFL) | O_NONBLOCK);
        }
    }

    // False when the child has not closed its output by then, or prints too much.
    bool Pump(steady_clock::time_point deadline) {
        while (m_ends[1].fd >= 0 && output.size() <= kLargestPayload) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            if (poll(m_ends.data(), m_ends.size(), static_cast<int>(left.count())) > 0) {
                Write();
                Read();
            }
        }
        return output.size() <= kLargestPayload;
    }

    tevrol::Bytes output;

private:
    static int InputOf(GSubprocess* child) {
        return g_unix_output_stream_get_fd(
            G_UNIX_OUTPUT_STREAM(g_subprocess_get_stdin_pipe(child)));
    }
    static int OutputOf(GSubprocess* child) {
        return g_unix_input_stream_get_fd(G_UNIX_INPUT_STREAM(g_subprocess_get_stdout_pipe(child)));
    }

    void Write() {
        if (m_ends[0].revents == 0) {
            return;
        }
        const ssize_t size =
            write(m_ends[0].fd, m_input.data() + m_written, m_input.size() - m_written);
        m_written += size > 0 ? static_cast<std::size_t>(size) : 0;
        // A command that does not read what it is given may answer all the same.
        const bool refused = size < 0 && errno != EAGAIN && errno != EINTR;
        if (m_written == m_input.size() || refused) {
            m_ends[0].fd = -1;
            g_output_stream_close(g_subprocess_get_stdin_pipe(m_child), nullptr, nullptr);
        }
    }

    void Read() {
        if (m_ends[1].revents == 0) {
            return;
        }
        std::array<char, 1 << 16> buffer{};
        const ssize_t size = read(m_ends[1].fd, buffer.data(), buffer.size());
        if (size > 0) {
            output.insert(output.end(), buffer.data(), buffer.data() + size);
        } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
            m_ends[1].fd = -1;
        }
    }

    GSubprocess* const m_child;
    const tevrol::Bytes& m_input;
    std::size_t m_written = 0;
    std::array<pollfd, 2> m_ends;
};

std::string HowItEnded(GSubprocess* child) {
    if (g_subprocess_get_if_signaled(child) != FALSE) {
        return "was ended by signal " + std::to_string(g_subprocess_get_term_sig(child));
    }
    const int status = g_subprocess_get_exit_status(child);
    return status == 0 ? "" : "has ended with status " + std::to_string(status);
}

}  // namespace

CommandOutcome RunShellCommand(const std::string& command, const tevrol::Bytes& input) {
    const auto deadline = steady_clock::now() + kPatience;
    tevrol::Subprocess child;
    try {
        child = tevrol::StartDyingWithParent(
            {"/bin/sh", "-c", command},
            static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                          G_SUBPROCESS_FLAGS_STDOUT_PIPE));
    } catch (const std::runtime_error& failure) {
        return {{}, std::string("cannot be started: ") + failure.what()};
    }
    Pipes pipes(child.get(), input);
    const bool ended = pipes.Pump(deadline);
    const TimeLimit limit(std::chrono::duration_cast<std::chrono::milliseconds>(
        std::max(deadline - steady_clock::now(), steady_clock::duration::zero())));
    if (!ended || g_subprocess_wait(child.get(), limit.Get(), nullptr) == FALSE) {
        g_subprocess_force_exit(child.get());
        g_subprocess_wait(child.get(), nullptr, nullptr);
        return {{},
                pipes.output.size() > kLargestPayload
                    ? "has printed more than any bus carries"
                    : "has not ended within " + std::to_string(kPatience.count()) + " s"};
    }
    return {std::move(pipes.output), HowItEnded(child.get())};
}

}  // namespace programs
