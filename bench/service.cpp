// SPDX-License-Identifier: MIT
// tevrol-bench-service: the echo service of one kind, as a process of its own.
#include <glib.h>

#include <exception>
#include <iostream>
#include <string>

#include "bench/channel.h"

namespace {

void PrintReady(const std::string& unique_name) {
    std::cout << "ready " << unique_name << std::endl;
}

// A channel can be called before any handshake, so its bus name is all that the caller needs.
void ServeChannel(std::unique_ptr<bench::Channel> (*make)(const std::string&),
                  const std::string& name, const bench::Ready& ready) {
    const auto channel = make(name);
    ready(bench::ProcessUniqueName());
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

bool Serve(const std::string& kind, const std::string& caller) {
    if (kind == "channel") {
        ServeChannel(bench::MakeChannel, kind, PrintReady);
    } else if (kind == "bulk") {
        ServeChannel(bench::MakeBulkChannel, kind, PrintReady);
    } else if (kind == "gdbus") {
        bench::ServeGDBus(kind, caller, bench::Conversion::Bulk, PrintReady);
    } else if (kind == "loop") {
        bench::ServeGDBus(kind, caller, bench::Conversion::PerByte, PrintReady);
    } else if (kind == "sdbus") {
        bench::ServeSdBus(kind, caller, PrintReady);
    } else if (kind == "sdbuscpp") {
        bench::ServeSdbusCpp(kind, caller, PrintReady);
    } else if (kind == "either" || kind == "direct") {
        bench::ServeEitherEnd(kind, kind == "direct", PrintReady);
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc == 3 && Serve(argv[1], argv[2])) {
            return 0;
        }
        std::cerr
            << "Usage: tevrol-bench-service channel|bulk|gdbus|loop|sdbus|sdbuscpp|either|direct "
               "CALLER\n";
    } catch (const std::exception& failure) {
        std::cerr << "tevrol-bench-service: " << failure.what() << '\n';
    }
    return 1;
}
