// SPDX-License-Identifier: MIT
// Stands in for dbus-daemon where a test starts a private bus: takes the same arguments, prints the
// address, and serves the bus by dbus-broker. Of the configuration it takes the address alone: the
// policy is open, and the limits are dbus-broker's own.
//
//   dbus-daemon --config-file=FILE ...
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

namespace {

// Whether one may connect; who may own, send and receive what.
const std::string kBatch = "bta(btbs)a(btssssuutt)a(btssssuutt)";
const std::string kPolicy = "a(u(" + kBatch + "))a(buu(" + kBatch + "))a(ss)bs";

void Require(bool holds, const std::string& what, int error = errno) {
    if (!holds) {
        fprintf(stderr, "dbus-broker: %s: %s\n", what.c_str(), strerror(error));
        exit(1);
    }
}

std::string ConfigurationFile(int argc, char** argv) {
    const std::string option = "--config-file=";
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.compare(0, option.size(), option) == 0) {
            return argument.substr(option.size());
        }
    }
    Require(false, "no --config-file", EINVAL);
    return "";
}

std::string SocketPath(const std::string& file) {
    std::ifstream text(file);
    const std::string configuration(std::istreambuf_iterator<char>(text), {});
    const std::string begin = "<listen>unix:path=";
    const auto at = configuration.find(begin);
    Require(at != std::string::npos, "no address in " + file, EINVAL);
    const auto from = at + begin.size();
    return configuration.substr(from, configuration.find("</listen>", from) - from);
}

int Listen(const std::string& path) {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    Require(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, path);
    Require(listen(listener, SOMAXCONN) == 0, path);
    return listener;
}

// Starts dbus-broker, which ends with this process; the connection by which it is controlled.
sd_bus* StartBroker() {
    int ends[2] = {};
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "a socket pair");
    const pid_t broker = fork();
    Require(broker >= 0, "a process");
    if (broker == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[0]);
        execlp("dbus-broker", "dbus-broker", "--controller", std::to_string(ends[1]).c_str(),
               "--machine-id", "0123456789abcdef0123456789abcdef", nullptr);
        Require(false, "not started");
    }
    close(ends[1]);
    sd_bus* controller = nullptr;
    Require(sd_bus_new(&controller) >= 0 && sd_bus_set_fd(controller, ends[0], ends[0]) >= 0 &&
                sd_bus_start(controller) >= 0,
            "the controller's connection");
    return controller;
}

// Everybody may do everything.
int AppendOpenPolicy(sd_bus_message* message) {
    constexpr std::uint64_t kPriority = 1;
    sd_bus_message_open_container(message, 'v', ("(" + kPolicy + ")").c_str());
    sd_bus_message_open_container(message, 'r', kPolicy.c_str());
    return sd_bus_message_append(
        message, kPolicy.c_str(), 1, UINT32_MAX,  // for each user
        1, kPriority, 1, 1, kPriority, 1, "",  // connects, and owns each name that begins with ""
        1, 1, kPriority, "", "", "", "", 0, 0, std::uint64_t{0}, UINT64_MAX,  // sends
        1, 1, kPriority, "", "", "", "", 0, 0, std::uint64_t{0}, UINT64_MAX,  // receives
        0, 0, 0, "system");
}

void Serve(sd_bus* controller, int listener) {
    sd_bus_message* message = nullptr;
    Require(sd_bus_message_new_method_call(controller, &message, nullptr, "/org/bus1/DBus/Broker",
                                           "org.bus1.DBus.Broker", "AddListener") >= 0 &&
                sd_bus_message_append(message, "oh", "/org/bus1/DBus/Listener/0", listener) >= 0 &&
                AppendOpenPolicy(message) >= 0 && sd_bus_message_close_container(message) >= 0 &&
                sd_bus_message_close_container(message) >= 0,
            "the request to listen");
    sd_bus_error error{};
    const int result = sd_bus_call(controller, message, 0, &error, nullptr);
    Require(result >= 0, std::string("listening: ") + (error.message ? error.message : ""),
            -result);
    sd_bus_message_unref(message);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string path = SocketPath(ConfigurationFile(argc, argv));
    const int listener = Listen(path);
    sd_bus* controller = StartBroker();
    Serve(controller, listener);
    printf("unix:path=%s\n", path.c_str());
    fflush(stdout);
    while (sd_bus_process(controller, nullptr) >= 0 && sd_bus_wait(controller, UINT64_MAX) >= 0) {
    }
    return 0;
}
