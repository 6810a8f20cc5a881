// SPDX-License-Identifier: MIT
// Every order of events between the ends of one channel. In all states that can be reached:
//   - An end is ready with a partner that is alive, or whose loss is on its way to it.
//   - It is never its own partner.
//   - Of the tevrol ends of one role only the owner of the active name announces and binds.
//   - Ready and lost are told in turn, and no loss is told of a partner that is alive and has been
//     bound to this end all the time.
//   - From every state in which each role has a process, whatever happens next without a fault ends
//     up with both ends ready, bound to each other, and stays so. (So ready can be reached from
//     every state: a process that is missing may always start.)
// A timer ends when all else has come to rest, and a few times (hasty_timers) before.
//
// The state machine does not know its role, so a plain client with a tevrol service and a tevrol
// client with a plain service are the same search.
#include "tests/handshake/search.h"

#include <gtest/gtest.h>

#include <iostream>

namespace tevrol::model {
namespace {

using Ends = std::vector<std::pair<Role, Kind>>;
const Ends kPlainAndTevrol = {{Role::Left, Kind::Plain}, {Role::Right, Kind::Tevrol}};
const Ends kTevrolAndTevrol = {{Role::Left, Kind::Tevrol}, {Role::Right, Kind::Tevrol}};
const Ends kPlainAndTwoTevrol = {
    {Role::Left, Kind::Plain}, {Role::Right, Kind::Tevrol}, {Role::Right, Kind::Tevrol}};
const Ends kTevrolAndTwoTevrol = {
    {Role::Left, Kind::Tevrol}, {Role::Right, Kind::Tevrol}, {Role::Right, Kind::Tevrol}};
const Ends kTwoPlainAndTevrol = {
    {Role::Left, Kind::Plain}, {Role::Left, Kind::Plain}, {Role::Right, Kind::Tevrol}};

struct Case {
    const char* name;
    const Ends& ends;
    Faults faults;
    unsigned timeouts;  // at most, until paired
};

Faults None() {
    return {};
}

Faults Crashes(std::uint8_t number) {
    Faults faults;
    faults.crashes = number;
    return faults;
}

template <typename... Members>
Faults Once(Faults faults, Members... members) {
    ((faults.*members = 1), ...);
    return faults;
}

Faults Refusals(std::uint8_t number, Faults faults = {}) {
    faults.refusals = number;
    return faults;
}

class HandshakeSearch : public testing::TestWithParam<Case> {};

std::string Lines(const std::vector<std::string>& run) {
    std::string text;
    for (const std::string& line : run) {
        text += "  " + line + "\n";
    }
    return text;
}

TEST_P(HandshakeSearch, EndsUpPaired) {
    const Case& tried = GetParam();
    const Finding finding = Search(World(tried.ends, tried.faults));
    std::cout << finding.states << " states, at most " << finding.timeouts
              << " timeouts until paired\n";
    EXPECT_EQ(finding.refuted, "") << "the shortest run, ends counted from 0:\n"
                                   << Lines(finding.run);
    EXPECT_LE(finding.timeouts, tried.timeouts) << "from the end of this run on:\n"
                                                << Lines(finding.slowest);
}

using F = Faults;
const Case kCases[] = {
    {"PlainAndTevrolWithoutAFault", kPlainAndTevrol, None(), 0},
    {"PlainAndTevrolCrash", kPlainAndTevrol, Crashes(3), 3},
    {"PlainAndTevrolCrashAndAreRefused", kPlainAndTevrol, Refusals(2, Crashes(2)), 6},
    {"PlainEndIsMadeAgain", kPlainAndTevrol,
     Refusals(2, Once(Crashes(1), &F::renewals, &F::messages)), 6},
    {"PlainAndTevrolWithHastyTimers", kPlainAndTevrol,
     Refusals(1, Once(Crashes(1), &F::hasty_timers, &F::cuts)), 6},
    // Without refusals: an ACK that is made and not confirmed is made again, and if a SYN that
    // means nothing came in between, that is not to be told from a new beginning.
    {"PlainEndRepeatsItsSyn", kPlainAndTevrol, Once(Crashes(1), &F::repeated_syns, &F::messages),
     6},
    {"PlainEndsSynComesLate", kPlainAndTevrol, Once(None(), &F::repeated_syns), 0},
    {"OwnProcessUsesThePartnersNames", kPlainAndTevrol,
     Refusals(1, Once(None(), &F::own_names, &F::hasty_timers)), 6},
    {"TevrolAndTevrolWithoutAFault", kTevrolAndTevrol, None(), 0},
    {"TevrolAndTevrolCrash", kTevrolAndTevrol, Crashes(3), 0},
    {"TevrolAndTevrolCrashAndAreRefused", kTevrolAndTevrol, Refusals(1, Crashes(1)), 3},
    {"TevrolAndTevrolAreRefused", kTevrolAndTevrol, Refusals(2), 1},
    {"TevrolAndTevrolAreCutOff", kTevrolAndTevrol, Once(None(), &F::cuts, &F::refusals), 3},
    {"TevrolAndTevrolLoseTheLink", kTevrolAndTevrol,
     Once(None(), &F::link_losses, &F::hasty_timers, &F::messages), 0},
    {"TevrolTakesOverFromTevrolBesideAPlainEnd", kPlainAndTwoTevrol, Refusals(1, Crashes(1)), 6},
    {"TevrolTakesOverFromTevrolThatIsCutOff", kPlainAndTwoTevrol, Once(None(), &F::cuts), 1},
    {"TevrolTakesOverFromTevrol", kTevrolAndTwoTevrol, Crashes(1), 0},
    {"TwoPlainEndsBesideATevrolEnd", kTwoPlainAndTevrol, Crashes(1), 6},
    {"TwoPlainEndsAreRefused", kTwoPlainAndTevrol, Refusals(1), 6},
};

INSTANTIATE_TEST_SUITE_P(All, HandshakeSearch, testing::ValuesIn(kCases),
                         [](const auto& tried) { return tried.param.name; });

}  // namespace
}  // namespace tevrol::model
