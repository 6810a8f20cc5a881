// SPDX-License-Identifier: MIT
// tevrol-bench-instructions: makes requests that do not leave the process, for callgrind to count
// what the channel itself spends on them. scripts/bench.sh --instructions runs it.
#include <gio/gio.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "bench/ends.h"
#include "bench/harness.h"
#include "devkit/private-bus.h"

namespace {

GVariant* g_reply = nullptr;

}  // namespace

// Replaces the bus library's function and answers at once.
GVariant* g_dbus_proxy_call_sync(GDBusProxy* /*proxy*/, const gchar* /*method*/,
                                 GVariant* parameters, GDBusCallFlags /*flags*/, gint /*timeout*/,
                                 GCancellable* /*cancellable*/, GError** /*error*/) {
    g_variant_unref(g_variant_ref_sink(parameters));
    return g_variant_ref(g_reply);
}

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "Usage: tevrol-bench-instructions channel|bulk BYTES REQUESTS\n";
        return 1;
    }
    try {
        const tevrol::PrivateBus bus;
        const bool bulk = std::string(argv[1]) == "bulk";
        bench::BoundChannels channels("count",
                                      {bulk ? bench::MakeBulkChannel : bench::MakeChannel});
        bench::Bytes payload = bench::Payload(std::stoul(argv[2]));
        GVariant* array =
            g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload.data(), payload.size(), 1);
        g_reply = g_variant_ref_sink(g_variant_new_tuple(&array, 1));
        const int requests = std::stoi(argv[3]);
        for (int i = 0; i < requests; ++i) {
            if (channels[0].Request(payload) != payload) {
                std::cerr << "tevrol-bench-instructions: wrong reply\n";
                return 1;
            }
        }
        // The end of the process is not counted, and the channels must not be destroyed.
        std::_Exit(0);
    } catch (const std::exception& failure) {
        std::cerr << "tevrol-bench-instructions: " << failure.what() << '\n';
        return 1;
    }
}
