// SPDX-License-Identifier: MIT
// Handshakes: from the partner's SYN to ready, and from construction to ready while the partner
// waits; the channel and the bare calls in turn, each with a partner of its own.
#include <deque>
#include <memory>
#include <vector>

#include "bench/bare-end.h"
#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/subjects.h"

namespace bench {
namespace {

// "time" from the order to announce the SYN to ready, repeatedly with the same end.
template <typename End>
Group::Body Opening(End& end, Partners& partners, const std::string& channel) {
    return [&end, &partners, channel](benchmark::State& state) {
        for (auto _ : state) {
            partners.Rejoin(channel);
            WaitFor("the loss", [&] { return !end.IsReady(); });
            const auto start = Clock::now();
            partners.Open(channel);
            WaitFor("the handshake", [&] { return end.IsReady(); });
            state.SetIterationTime(SecondsSince(start));
        }
    };
}

// "time" from construction to ready, each time with a new end and the next waiting partner. The
// ends stay and their partners leave, for both contenders alike.
template <typename End>
Group::Body Constructing(std::function<std::unique_ptr<End>(const std::string&)> make,
                         Partners& partners, std::deque<std::string> channels) {
    return [make, &partners, channels = std::move(channels),
            ends = std::make_shared<std::vector<std::unique_ptr<End>>>()](
               benchmark::State& state) mutable {
        for (auto _ : state) {
            const std::string channel = channels.front();
            channels.pop_front();
            const auto start = Clock::now();
            ends->push_back(make(channel));
            End& end = *ends->back();
            WaitFor("the handshake", [&] { return end.IsReady(); });
            state.SetIterationTime(SecondsSince(start));
            partners.Leave(channel);
            WaitFor("the loss", [&] { return !end.IsReady(); });
        }
    };
}

std::deque<std::string> Names(const std::string& beginning, int count) {
    std::deque<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.push_back(beginning + std::to_string(i));
    }
    return names;
}

}  // namespace

void MeasureHandshake(Extent extent) {
    // Each construction leaves three match rules behind; a connection may have 512.
    const int rounds = extent == Extent::Quick ? 40 : 70;

    Partners partners({"channel", "bare"});
    const auto channel = MakeChannel("channel");
    BareEnd bare("bare");
    Group opening("opening", 0);
    opening.Add("channel", Opening(*channel, partners, "channel"));
    opening.Add("bare", Opening(bare, partners, "bare"));
    opening.Run(5 * rounds, 1, Group::Timing::ByBody);

    const auto channel_names = Names("channel", rounds);
    const auto bare_names = Names("bare", rounds);
    std::vector<std::string> all(channel_names.begin(), channel_names.end());
    all.insert(all.end(), bare_names.begin(), bare_names.end());
    Partners waiting(all);
    Group constructing("constructing", 0);
    constructing.Add("channel", Constructing<Channel>(MakeChannel, waiting, channel_names));
    constructing.Add("bare",
                     Constructing<BareEnd>(
                         [](const std::string& name) { return std::make_unique<BareEnd>(name); },
                         waiting, bare_names));
    constructing.Run(rounds, 1, Group::Timing::ByBody);
}

}  // namespace bench
