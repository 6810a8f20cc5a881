// SPDX-License-Identifier: MIT
// tevrol-bench: measures one subject on a private bus and prints its figures as CSV; progress goes
// to standard error. scripts/bench.sh runs them all.
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "bench/subjects.h"
#include "devkit/private-bus.h"

namespace {

constexpr const char* kUsage =
    "Usage: tevrol-bench requests|notifications|pairs|pair-threads|handshake|threads|log "
    "quick|full\n"
    "       tevrol-bench scale CHANNELS ROUND\n"
    "       tevrol-bench peak channel|bulk|gdbus|either|direct BYTES\n"
    "       tevrol-bench growth channel|bulk|keeping|either|direct BYTES\n";

// A hundred channels need more match rules than the stock system bus grants a connection.
constexpr const char* kRoomForMatchRules =
    "  <limit name='max_match_rules_per_connection'>2000</limit>\n";

bool Measure(const std::vector<std::string>& words) {
    if (words.size() < 2) {
        return false;
    }
    const std::string& subject = words[0];
    // Before the first thread: it forks.
    const auto socket = bench::MakeSocketPeer();
    const auto pair = bench::MakeSdBusPairPeer();
    const tevrol::PrivateBus bus(subject == "scale" ? kRoomForMatchRules : "");
    const auto extent = words[1] == "quick" ? bench::Extent::Quick : bench::Extent::Full;
    if (subject == "requests") {
        bench::MeasureRequests(extent, *socket);
    } else if (subject == "notifications") {
        bench::MeasureNotifications(extent, *socket);
    } else if (subject == "pairs") {
        bench::MeasurePairs(extent, *pair);
    } else if (subject == "pair-threads") {
        bench::MeasurePairThreads(extent);
    } else if (subject == "handshake") {
        bench::MeasureHandshake(extent);
    } else if (subject == "threads") {
        bench::MeasureThreads(extent);
    } else if (subject == "log") {
        bench::MeasureLogCost(extent);
    } else if (subject == "scale" && words.size() == 3) {
        bench::MeasureScale(std::stoul(words[1]), std::stoi(words[2]));
    } else if (subject == "peak" && words.size() == 3) {
        bench::MeasurePeak(words[1], std::stoul(words[2]));
    } else if (subject == "growth" && words.size() == 3) {
        bench::MeasureGrowth(words[1], std::stoul(words[2]));
    } else {
        return false;
    }
    return true;
}

// The destructor of a channel causes GLib reports, by design.
GLogWriterOutput DropGlibReports(GLogLevelFlags, const GLogField*, gsize, gpointer) {
    return G_LOG_WRITER_HANDLED;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        g_log_set_writer_func(DropGlibReports, nullptr, nullptr);
        if (Measure({argv + 1, argv + argc})) {
            return 0;
        }
        std::cerr << kUsage;
    } catch (const std::exception& failure) {
        std::cerr << "tevrol-bench: " << failure.what() << '\n';
    }
    return 1;
}
