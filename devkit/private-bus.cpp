// SPDX-License-Identifier: MIT
#include "devkit/private-bus.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace tevrol {
namespace {

constexpr const char* kAddressVariable = "DBUS_SYSTEM_BUS_ADDRESS";

// Where `limits` names none, the daemon's built-in ones apply: the stock system bus's.
std::string Configuration(const std::string& folder, const std::string& limits,
                          const std::string& policy) {
    return "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN'\n"
           " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
           "<busconfig>\n"
           "  <listen>unix:path=" +
           folder +
           "/socket</listen>\n"
           "  <auth>EXTERNAL</auth>\n" +
           policy + limits + "</busconfig>\n";
}

std::string MakeFolder() {
    GError* error = nullptr;
    std::string folder = TakeText(g_dir_make_tmp("tevrol-bus-XXXXXX", &error));
    if (folder.empty()) {
        throw std::runtime_error("no folder for the private bus: " + TakeMessage(error));
    }
    // It is made for its owner alone, but the daemon decides who may use the socket in it.
    std::filesystem::permissions(folder, std::filesystem::perms(0711));
    return folder;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string ReadAddress(GSubprocess* daemon) {
    const std::unique_ptr<GDataInputStream, GObjectUnref> output(
        g_data_input_stream_new(g_subprocess_get_stdout_pipe(daemon)));
    return TakeText(g_data_input_stream_read_line(output.get(), nullptr, nullptr, nullptr));
}

}  // namespace

const char* const PrivateBus::kOpenPolicy =
    "  <policy context='default'>\n"
    "    <allow own='*'/>\n"
    "    <allow send_destination='*' eavesdrop='true'/>\n"
    "    <allow receive_sender='*' eavesdrop='true'/>\n"
    "  </policy>\n";

PrivateBus::PrivateBus(const std::string& limits, const std::string& policy)
    : m_folder(MakeFolder()) {
    const std::string configuration = m_folder + "/bus.conf";
    // The daemon's complaints matter only if it fails: started by root in a container, it always
    // finds that it may not raise its limit of file descriptors.
    const std::string complaints = m_folder + "/errors";
    std::ofstream(configuration) << Configuration(m_folder, limits, policy);
    try {
        m_daemon = StartDyingWithParent({"dbus-daemon", "--config-file=" + configuration,
                                         "--nofork", "--nopidfile", "--print-address=1"},
                                        G_SUBPROCESS_FLAGS_STDOUT_PIPE, complaints);
        m_address = ReadAddress(m_daemon.get());
        if (m_address.empty()) {
            throw std::runtime_error("dbus-daemon gave no address: " + ReadFile(complaints));
        }
    } catch (const std::runtime_error& failure) {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
        throw std::runtime_error(std::string("no private bus: ") + failure.what());
    }
    setenv(kAddressVariable, m_address.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    Kill();
    unsetenv(kAddressVariable);
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

pid_t PrivateBus::Pid() const {
    return PidOf(m_daemon.get());
}

void PrivateBus::Kill() {
    g_subprocess_force_exit(m_daemon.get());
    g_subprocess_wait(m_daemon.get(), nullptr, nullptr);
}

void PrivateBus::Signal(int signal) {
    g_subprocess_send_signal(m_daemon.get(), signal);
}

void PrivateBus::Stop() {
    Signal(SIGSTOP);
    AwaitStop(m_daemon.get());
}

bool PrivateBus::IsStopped() const {
    return tevrol::IsStopped(m_daemon.get());
}

}  // namespace tevrol
