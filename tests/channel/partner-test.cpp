// SPDX-License-Identifier: MIT
// The partner comes, dies, stops and comes back.
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#include "tests/channel/ends.h"
#include "tevrol/names.h"

namespace channel_test {
namespace {

// How many processes own the name or wait for it.
std::size_t CountEnds(const char* name) {
    sd_bus* bus = nullptr;
    sd_bus_message* reply = nullptr;
    char** ends = nullptr;
    std::size_t count = 0;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    if (sd_bus_call_method(bus, tevrol::kDriver, tevrol::kDriverPath, tevrol::kDriver,
                           "ListQueuedOwners", nullptr, &reply, "s", name) >= 0 &&
        sd_bus_message_read_strv(reply, &ends) > 0) {
        for (; ends[count] != nullptr; ++count) {
            free(ends[count]);
        }
        free(ends);
    }
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return count;
}

class ChannelPartner : public ChannelByWay {
protected:
    void OpenWithProcess(Role role) {
        const bool direct = GetParam() == Way::Link;
        const Role other = role == Role::Client ? Role::Service : Role::Client;
        process = std::make_unique<EndProcess>(other, direct);
        end = std::make_unique<Channel>("demo", role, Noting(events), Over(GetParam()));
        ASSERT_TRUE(end->WaitReady(kLong));
        ASSERT_TRUE(process->AwaitLine("ready"));
        ASSERT_TRUE(Await([&] { return end->IsDirect() == direct; }));
    }
    Events events;
    std::unique_ptr<EndProcess> process;
    std::unique_ptr<Channel> end;
};
INSTANTIATE_TEST_SUITE_P(, ChannelPartner, testing::Values(Way::Bus, Way::Link), Name);

TEST_P(ChannelPartner, IsKnownByNameAndProcess) {
    OpenWithProcess(Role::Client);
    EXPECT_EQ(end->Partner().substr(0, 1), ":");
    const auto credentials = end->PartnerCredentials();
    ASSERT_TRUE(credentials.has_value());
    EXPECT_GT(credentials->pid, 1);
    EXPECT_EQ(credentials->uid, static_cast<long>(getuid()));
    process->Kill();
    ASSERT_TRUE(events.Await("lost"));
    EXPECT_EQ(end->Partner(), "");
    EXPECT_FALSE(end->PartnerCredentials().has_value());
}

TEST_P(ChannelPartner, ThatDiesEndsTheRequestAtOnce) {
    OpenWithProcess(Role::Client);
    std::future<Reply> later = end->RequestLater(ToBytes("sleep"));
    std::thread killing([&] { process->Kill(); });
    EXPECT_EQ(end->Request(ToBytes("sleep"), kLong).error, Error::PartnerLost);
    killing.join();
    EXPECT_EQ(later.get().error, Error::PartnerLost);
    ASSERT_TRUE(events.Await("lost"));
    EXPECT_EQ(end->Request({}).error, Error::NotReady);
    EXPECT_EQ(end->Notify({}), Error::NotReady);
}

TEST_P(ChannelPartner, ComesBackAsOftenAsItLikes) {
    for (const Role role : {Role::Client, Role::Service}) {
        OpenWithProcess(role);
        for (std::size_t i = 1; i <= 20; ++i) {
            process->Kill();
            process = std::make_unique<EndProcess>(
                role == Role::Client ? Role::Service : Role::Client, GetParam() == Way::Link);
            ASSERT_TRUE(process->AwaitLine("ready"));
            ASSERT_TRUE(Await([&] { return end->Request(ToBytes("echo")).operator bool(); }));
        }
        end.reset();
        process.reset();
    }
}

TEST_P(ChannelPartner, ThatIsStoppedCostsATimeoutAndNothingElse) {
    OpenWithProcess(Role::Client);
    process->Stop();
    EXPECT_EQ(end->Request({}, 50ms).error, Error::TimedOut);
    EXPECT_FALSE(end->Notify(ToBytes("meanwhile")));
    EXPECT_TRUE(end->IsReady());
    process->Signal(SIGCONT);
    EXPECT_TRUE(end->Request(ToBytes("again")));
    EXPECT_TRUE(process->AwaitLine("notification meanwhile"));
}

TEST_P(ChannelPartner, ThatIsStoppedDoesNotHoldUpTheEnd) {
    OpenWithProcess(Role::Client);
    process->Stop();
    std::future<Reply> later = end->RequestLater({});
    EXPECT_FALSE(end->Notify(Bytes(1 << 20)));
    end.reset();
    EXPECT_EQ(later.get().error, Error::Closed);
}

TEST_P(ChannelPartner, SeesAPrefixOfWhatWasSentWhenItDies) {
    OpenWithProcess(Role::Service);
    for (int round = 0; round < 10; ++round) {
        process->Command("count 100000");
        ASSERT_TRUE(events.Await("notification 10"));
        process->Kill();
        ASSERT_TRUE(events.Await("lost", static_cast<std::size_t>(round) + 1));
        int next = 0;
        for (const std::string& event : events.All()) {
            if (event.rfind("notification ", 0) == 0) {
                ASSERT_EQ(event, "notification " + std::to_string(next))
                    << "the sender lost its partner " << process->Count("lost") << " times";
                ++next;
            } else {
                next = 0;
            }
        }
        process = std::make_unique<EndProcess>(Role::Client, GetParam() == Way::Link);
        ASSERT_TRUE(events.Await("ready", static_cast<std::size_t>(round) + 2));
        ASSERT_TRUE(process->AwaitLine("ready"));
    }
}

TEST_P(ChannelPartner, IsReplacedByItsStandby) {
    OpenWithProcess(Role::Client);
    EndProcess standby(Role::Service, GetParam() == Way::Link);
    ASSERT_TRUE(end->Request(ToBytes("first")));
    ASSERT_TRUE(Await([&] { return CountEnds("org.ulmar.Tevrol.demo_SERVICE") == 2; }))
        << "the standby does not wait for the name";
    EXPECT_EQ(standby.Count("ready"), 0U);
    process->Kill();
    ASSERT_TRUE(standby.AwaitLine("ready"));
    ASSERT_TRUE(events.Await("ready", 2));
    EXPECT_TRUE(end->Request(ToBytes("second")));
    EXPECT_EQ(events.All(), (std::vector<std::string>{"ready", "lost", "ready"}));
}

// In one go: the request arrives before the bus has answered what the end asks about its sender.
TEST_F(ChannelTest, AnswersARequestThatComesWithTheAnnouncement) {
    const Channel end("demo", Role::Service, Noting(at_service));
    for (int round = 0; round < 5; ++round) {
        sd_bus* peer = nullptr;
        ASSERT_GE(sd_bus_open_system(&peer), 0);
        ASSERT_TRUE(Await([&] {
            return sd_bus_get_name_creds(peer, "org.ulmar.Tevrol.demo_SERVICE", 0, nullptr) >= 0;
        }));
        const std::string name = "org.ulmar.Tevrol.demo_CLIENT_SYN";
        for (const char* method : {"RequestName", "ReleaseName"}) {
            sd_bus_message* call = nullptr;
            sd_bus_message_new_method_call(peer, &call, "org.freedesktop.DBus",
                                           "/org/freedesktop/DBus", "org.freedesktop.DBus", method);
            sd_bus_message_append(call, "s", name.c_str());
            if (method == std::string("RequestName")) {
                sd_bus_message_append(call, "u", 4U);
            }
            sd_bus_send(peer, call, nullptr);
            sd_bus_message_unref(call);
        }
        sd_bus_message* reply = nullptr;
        EXPECT_GE(sd_bus_call_method(peer, "org.ulmar.Tevrol.demo_SERVICE",
                                     "/org/ulmar/tevrol/CommunicationChannel/demo",
                                     "org.ulmar.tevrol.DbusCommunication", "Send", nullptr, &reply,
                                     "ay", 1, 7),
                  0);
        sd_bus_message_unref(reply);
        sd_bus_flush_close_unref(peer);
    }
}

TEST_F(ChannelTest, TakesNoLinkOfAStranger) {
    const Channel end("demo", Role::Service);
    sd_bus* stranger = nullptr;
    ASSERT_GE(sd_bus_open_system(&stranger), 0);
    ASSERT_TRUE(Await([&] {
        return sd_bus_get_name_creds(stranger, "org.ulmar.Tevrol.demo_SERVICE", 0, nullptr) >= 0;
    }));
    sd_bus_error error{};
    EXPECT_LT(sd_bus_call_method(stranger, "org.ulmar.Tevrol.demo_SERVICE",
                                 "/org/ulmar/tevrol/CommunicationChannel/demo",
                                 "org.ulmar.tevrol.DirectLink", "Open", &error, nullptr, "h",
                                 STDIN_FILENO),
              0);
    EXPECT_STREQ(error.name, "org.freedesktop.DBus.Error.AccessDenied");
    sd_bus_error_free(&error);
    sd_bus_flush_close_unref(stranger);
}

TEST_P(ChannelPartner, IsTheOnlyOneToBeHeard) {
    OpenWithProcess(Role::Service);
    // A stranger calls and notifies, as it likes.
    tevrol::PartnerProcess stranger({"sh", "-c",
                                     "dbus-send --bus=" + bus->Address() +
                                         " --print-reply --dest=org.ulmar.Tevrol.demo_SERVICE "
                                         "/org/ulmar/tevrol/CommunicationChannel/demo "
                                         "org.ulmar.tevrol.DbusCommunication.Send "
                                         "array:byte:1,2 2>&1; dbus-send --bus=" +
                                         bus->Address() +
                                         " --dest=org.ulmar.Tevrol.demo_SERVICE --type=signal "
                                         "/org/ulmar/tevrol/CommunicationChannel/demo "
                                         "org.ulmar.tevrol.DbusCommunication.SendSignal "
                                         "array:byte:1,2; echo done"});
    ASSERT_TRUE(Await([&] { return stranger.Find("done").has_value(); }));
    EXPECT_THAT(stranger.Lines().front(), testing::HasSubstr("only the partner may request"));
    process->Command("notify end");
    ASSERT_TRUE(events.Await("notification end"));
    EXPECT_EQ(events.All(), (std::vector<std::string>{"ready", "notification end"}));
}

}  // namespace
}  // namespace channel_test
