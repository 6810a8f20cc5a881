// SPDX-License-Identifier: MIT
// The partner, or the bus, is killed or stopped before each call that the partner makes from its
// beginning to its end. This end is told, goes on, and finds the next partner.
#include <csignal>
#include <iostream>

#include "tests/channel/ends.h"

namespace channel_test {
namespace {

struct Cells {
    const char* name;
    Role victim;
    bool bus;
    int signal;
};

class ChannelKillAndStop : public ChannelTest, public testing::WithParamInterface<Cells> {
protected:
    ChannelKillAndStop() {
        end = std::make_unique<Channel>("demo", Other(), Noting(events));
    }

    Role Other() const {
        return GetParam().victim == Role::Client ? Role::Service : Role::Client;
    }

    std::unique_ptr<tevrol::PartnerProcess> StartVictim(int call) const {
        const Cells& cells = GetParam();
        return std::make_unique<tevrol::PartnerProcess>(std::vector<std::string>{
            TEVROL_CHANNEL_VICTIM, cells.victim == Role::Client ? "client" : "service",
            std::to_string(call), std::to_string(cells.signal),
            std::to_string(cells.bus ? bus->Pid() : 0)});
    }

    // Whether the victim has come to the call; false where it makes fewer.
    bool HitsAt(int call) {
        const auto victim = StartVictim(call);
        bool over = false;
        const bool hit = Await([&] {
            over = victim->Find("no such call").has_value();
            return over || HasHit(*victim);
        });
        EXPECT_TRUE(hit);
        if (!over && GetParam().signal == SIGKILL) {
            Bury(*victim);
        } else if (!over) {
            GoOn(*victim);
        }
        return !over;
    }

    bool HasHit(const tevrol::PartnerProcess& victim) const {
        if (GetParam().signal == SIGKILL) {
            return GetParam().bus ? bus->Pid() == 0 : victim.HasEnded();
        }
        return GetParam().bus ? bus->IsStopped() : victim.IsStopped();
    }

    // The victim of a bus that is killed knows no other.
    void Bury(tevrol::PartnerProcess& victim) {
        if (GetParam().bus) {
            EXPECT_TRUE(Await([&] { return !end->IsReady(); }));
            victim.Kill();
            bus = nullptr;
            bus = std::make_unique<tevrol::PrivateBus>();
        } else {
            EXPECT_EQ(victim.Wait(), -1);
        }
    }

    // A request meanwhile costs its timeout at most.
    void GoOn(tevrol::PartnerProcess& victim) {
        const Reply reply = end->Request(ToBytes("meanwhile"), 1ms);
        EXPECT_TRUE(!reply.error || reply.error == Error::TimedOut ||
                    reply.error == Error::NotReady || reply.error == Error::PartnerLost ||
                    reply.error == Error::NoBus)
            << reply.error.message();
        if (GetParam().bus) {
            bus->Signal(SIGCONT);
        } else {
            victim.Signal(SIGCONT);
        }
        EXPECT_TRUE(Await([&] { return victim.Find("left").has_value(); }));
        EXPECT_TRUE(victim.Find("done").has_value());
    }

    void ExpectAnotherPartnerIsFound() {
        const auto other = std::make_unique<Channel>("demo", GetParam().victim, Noting(at_service));
        EXPECT_TRUE(other->WaitReady(kLong));
        EXPECT_TRUE(Await([&] { return end->Request(ToBytes("next")).operator bool(); }));
        EXPECT_TRUE(Await([&] { return other->Request(ToBytes("next")).operator bool(); }));
    }

    Events events;
    std::unique_ptr<Channel> end;
};

INSTANTIATE_TEST_SUITE_P(At, ChannelKillAndStop,
                         testing::Values(Cells{"ClientKilled", Role::Client, false, SIGKILL},
                                         Cells{"ServiceKilled", Role::Service, false, SIGKILL},
                                         Cells{"ClientStopped", Role::Client, false, SIGSTOP},
                                         Cells{"ServiceStopped", Role::Service, false, SIGSTOP},
                                         Cells{"BusKilledByClient", Role::Client, true, SIGKILL},
                                         Cells{"BusKilledByService", Role::Service, true, SIGKILL},
                                         Cells{"BusStoppedByClient", Role::Client, true, SIGSTOP},
                                         Cells{"BusStoppedByService", Role::Service, true,
                                               SIGSTOP}),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(ChannelKillAndStop, EndsWellAtEachCall) {
    int call = 0;
    for (bool hit = true; hit && !HasFailure(); ++call) {
        SCOPED_TRACE("call " + std::to_string(call));
        hit = HitsAt(call);
        ExpectAnotherPartnerIsFound();
    }
    std::cout << call - 1 << " calls" << std::endl;
    EXPECT_GT(call, 50);
    EXPECT_TRUE(IsInTurn(events));
}

}  // namespace
}  // namespace channel_test
