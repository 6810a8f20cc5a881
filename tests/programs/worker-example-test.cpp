// SPDX-License-Identifier: MIT
// The example with a channel on a worker thread, as a process: every handler runs on that thread.
#include <gtest/gtest.h>

#include <csignal>

#include "devkit/loop.h"
#include "devkit/partner-process.h"
#include "devkit/private-bus.h"

namespace {

using tevrol::IterateUntil;
using tevrol::PartnerProcess;

class WorkerExample : public testing::Test {
protected:
    static bool Await(const PartnerProcess& process, const std::string& line) {
        return IterateUntil([&] { return process.Find(line).has_value(); });
    }

    WorkerExample() {
        EXPECT_TRUE(Await(application, "channel: waiting"));
    }

    tevrol::PrivateBus bus;
    PartnerProcess application{std::vector<std::string>{TEVROL_WORKER_EXAMPLE}};
};

TEST_F(WorkerExample, HandlesEverythingOnTheThreadOfItsChannel) {
    for (const std::string note : {"first", "second"}) {
        SCOPED_TRACE(note + " partner");
        PartnerProcess partner(TEVROL_PARTNER_PROGRAM, "demo", {"--answer=fixed"});
        ASSERT_TRUE(Await(partner, "joined "));
        const std::string name = *partner.Find("joined ");
        ASSERT_TRUE(Await(application, "channel: ready: " + name));
        EXPECT_TRUE(Await(partner, "notification from "));
        partner.Command("notify " + note);
        EXPECT_TRUE(Await(application, "channel: notified: " + note));
        partner.Command("request " + note);
        EXPECT_TRUE(Await(application, "channel: request: " + note));
        EXPECT_TRUE(Await(partner, "reply: "));
        partner.Kill();
        EXPECT_TRUE(Await(application, "channel: lost: " + name));
    }
    application.Signal(SIGTERM);
    EXPECT_EQ(application.Wait(), 0);
}

TEST_F(WorkerExample, EndsInOrderWhenTheBusGoes) {
    PartnerProcess partner(TEVROL_PARTNER_PROGRAM, "demo");
    ASSERT_TRUE(Await(application, "channel: ready: "));
    bus.Kill();
    EXPECT_EQ(application.Wait(), 0);
    EXPECT_TRUE(Await(application, "worker: stopped"));
}

}  // namespace
