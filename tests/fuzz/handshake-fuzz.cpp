// SPDX-License-Identifier: MIT
// The handshake of tevrol::Channel as a state machine, with any events in any order, also those
// that no bus would bring.
#include <optional>

#include "tests/fuzz/choices.h"
#include "tevrol/handshake.h"

namespace {

using tevrol::Action;
using tevrol::Actions;
using tevrol::Handshake;
using tevrol::Stage;

// Does what the actions say, and holds them against what must hold.
class Owner {
public:
    void Take(const Actions& actions, bool on_the_bus) {
        for (const Action& action : actions) {
            Take(action, on_the_bus);
        }
        Require(machine.IsReady() == told_ready.has_value(), "ready is what the application heard");
        Require(!machine.IsReady() || machine.Partner() == *told_ready, "ready with its partner");
    }

    Handshake machine;
    std::optional<Stage> announcing;
    std::optional<std::string> watching;

private:
    void Take(const Action& action, bool on_the_bus) {
        switch (action.kind) {
            case Action::Kind::Announce:
                Require(on_the_bus, "nothing is announced without a bus");
                Require(!announcing, "one announcement at a time");
                announcing = action.stage;
                break;
            case Action::Kind::Watch:
                Require(!action.peer.empty(), "somebody is watched");
                Require(!watching, "one partner is watched at a time");
                watching = action.peer;
                break;
            case Action::Kind::Unwatch:
                Require(watching == action.peer, "who is watched is watched no more");
                watching.reset();
                break;
            case Action::Kind::TellReady:
                Require(!told_ready, "ready is told once");
                told_ready = action.peer;
                break;
            case Action::Kind::TellLost:
                Require(told_ready == action.peer, "lost is told of who was ready");
                told_ready.reset();
                break;
            case Action::Kind::SetTimer:
                Require(action.attempt <= 8, "pauses are bounded");
                break;
            case Action::Kind::StopTimer:
            case Action::Kind::Rejoin:
                break;
        }
    }

    std::optional<std::string> told_ready;
};

constexpr Stage kStages[] = {Stage::Syn, Stage::SynAck, Stage::Ack};
const char* const kPeers[] = {":1.2", ":1.3", ":1.4"};

void Step(Owner& owner, Choices& choices, bool& on_the_bus) {
    Handshake& machine = owner.machine;
    const Stage stage = kStages[choices.Below(3)];
    const std::string peer = kPeers[choices.Below(3)];
    const bool yes = choices.OneIn(2);
    switch (choices.Below(9)) {
        case 0:
            if (!on_the_bus) {
                on_the_bus = true;
                owner.Take(machine.Connected(":1.1"), true);
            }
            break;
        case 1:
            if (on_the_bus) {
                on_the_bus = false;
                owner.announcing.reset();
                owner.watching.reset();
                owner.Take(machine.Disconnected(), false);
                owner.watching.reset();
            }
            break;
        case 2:
            owner.Take(machine.Active(yes), on_the_bus);
            break;
        case 3:
            owner.Take(machine.Released(stage, peer), on_the_bus);
            break;
        case 4:
            if (const auto announced = owner.announcing) {
                owner.announcing.reset();
                owner.Take(machine.Announced(*announced, yes), on_the_bus);
            }
            break;
        case 5:
            if (const auto watched = owner.watching) {
                owner.Take(machine.Watched(*watched, yes), on_the_bus);
            }
            break;
        case 6:
            owner.Take(machine.Vanished(peer), on_the_bus);
            break;
        case 7:
            owner.Take(machine.Heard(), on_the_bus);
            break;
        default:
            owner.Take(machine.TimedOut(), on_the_bus);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Choices choices(data, size);
    Owner owner;
    bool on_the_bus = false;
    while (choices.AreLeft()) {
        Step(owner, choices, on_the_bus);
    }
    return 0;
}
