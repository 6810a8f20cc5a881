// SPDX-License-Identifier: MIT
#include "devkit/partner-process.h"

#include <csignal>

namespace tevrol {

namespace {

std::vector<std::string> Joined(std::vector<std::string> first,
                                const std::vector<std::string>& rest) {
    first.insert(first.end(), rest.begin(), rest.end());
    return first;
}

}  // namespace

PartnerProcess::PartnerProcess(const std::string& program, const std::string& channel,
                               const std::vector<std::string>& options)
    : PartnerProcess(Joined({program, channel}, options)) {}

PartnerProcess::PartnerProcess(const std::vector<std::string>& arguments)
    : m_process(StartDyingWithParent(
          arguments, static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                                   G_SUBPROCESS_FLAGS_STDOUT_PIPE))) {
    m_reader = std::thread([this] { ReadLines(); });
}

PartnerProcess::~PartnerProcess() {
    Kill();
    m_reader.join();
}

void PartnerProcess::Command(const std::string& line) {
    const std::string text = line + "\n";
    g_output_stream_write_all(g_subprocess_get_stdin_pipe(m_process.get()), text.data(),
                              text.size(), nullptr, nullptr, nullptr);
}

void PartnerProcess::Signal(int signal) {
    g_subprocess_send_signal(m_process.get(), signal);
}

int PartnerProcess::Wait() {
    g_subprocess_wait(m_process.get(), nullptr, nullptr);
    return g_subprocess_get_if_exited(m_process.get()) != FALSE
               ? g_subprocess_get_exit_status(m_process.get())
               : -1;
}

void PartnerProcess::Kill() {
    Signal(SIGKILL);
    g_subprocess_wait(m_process.get(), nullptr, nullptr);
}

void PartnerProcess::Stop() {
    Signal(SIGSTOP);
    AwaitStop(m_process.get());
}

bool PartnerProcess::HasEnded() const {
    return PidOf(m_process.get()) == 0;
}

bool PartnerProcess::IsStopped() const {
    return tevrol::IsStopped(m_process.get());
}

void PartnerProcess::ReadLines() {
    const std::unique_ptr<GDataInputStream, GObjectUnref> output(
        g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_process.get())));
    while (gchar* line = g_data_input_stream_read_line(output.get(), nullptr, nullptr, nullptr)) {
        const Lock lock(m_mutex);
        m_lines.emplace_back(line);
        g_free(line);
    }
}

std::vector<std::string> PartnerProcess::Lines() const {
    const Lock lock(m_mutex);
    return m_lines;
}

std::optional<std::string> PartnerProcess::Find(const std::string& beginning,
                                                std::size_t from) const {
    const Lock lock(m_mutex);
    for (std::size_t i = from; i < m_lines.size(); ++i) {
        if (m_lines[i].compare(0, beginning.size(), beginning) == 0) {
            return m_lines[i].substr(beginning.size());
        }
    }
    return std::nullopt;
}

}  // namespace tevrol
