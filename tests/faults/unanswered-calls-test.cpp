// SPDX-License-Identifier: MIT
// The bus lets a connection wait for 128 answers at a time. All channels of a process share one
// connection, and the bus does not know when a caller has given up.
#include "devkit/partner-process.h"
#include "tests/support/channel-test.h"

namespace {

using testing::AllOf;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t kMostUnanswered = 128;
constexpr int kDefaultTimeout = -1;
constexpr int kGivesUpAtOnce = 1;  // milliseconds

class UnansweredCalls : public ChannelTest {
protected:
    // The errors that the log has of one request that fails.
    static std::vector<std::string> FailedRequest(TestChannel& channel,
                                                  int timeout = kDefaultTimeout) {
        g_dbus_proxy_set_default_timeout(channel.m_proxy, timeout);
        ClearLog();
        Bytes request = ToBytes("hello");
        EXPECT_THAT(channel.SendMessage(request), IsEmpty());
        std::vector<std::string> messages;
        for (const LogLine& error : Errors()) {
            messages.push_back(error.message);
        }
        return messages;
    }
    static auto IsRefused() {
        return AllOf(SizeIs(1), Each(HasSubstr("DBus.Error.LimitsExceeded")));
    }

    // Requests that time out, up to the limit of the bus.
    static void UseUp(TestChannel& channel) {
        for (std::size_t i = 0; i < kMostUnanswered; ++i) {
            EXPECT_THAT(FailedRequest(channel, kGivesUpAtOnce),
                        AllOf(SizeIs(1), Each(HasSubstr("[24] Timeout was reached"))));
        }
    }

    static void ExpectEcho(TestChannel& channel) {
        g_dbus_proxy_set_default_timeout(channel.m_proxy, kDefaultTimeout);
        Bytes request = ToBytes("hello");
        EXPECT_EQ(channel.SendMessage(request), request);
    }
};

class UnansweredCallsOfTwo : public UnansweredCalls {
protected:
    // All requests to the silent partner have gone unanswered, up to the limit.
    UnansweredCallsOfTwo() {
        Connect(m_silent, m_channel);
        Connect(m_healthy, m_other_channel);
        PartnerFaults faults;
        faults.reply = PartnerFaults::Reply::Never;
        m_silent.SetFaults(faults);
        UseUp(m_channel);
    }

    TestChannel m_channel;
    TestChannel m_other_channel{"other"};
    TestPartner m_silent;
    TestPartner m_healthy{"other"};
};

TEST_F(UnansweredCallsOfTwo, FurtherRequestsToEitherPartnerFail) {
    EXPECT_THAT(FailedRequest(m_channel), IsRefused());
    EXPECT_THAT(FailedRequest(m_other_channel), IsRefused());
}

TEST_F(UnansweredCallsOfTwo, NotificationsAndPartnersRequestsPass) {
    Bytes notification = ToBytes("no answer needed");
    m_other_channel.SendNotification(notification);
    EXPECT_TRUE(IterateUntil([&] { return !m_healthy.Notifications().empty(); }));
    EXPECT_TRUE(Await(m_healthy.Request(ToBytes("a request of the partner's"))).ok);
}

TEST_F(UnansweredCallsOfTwo, AreForgottenWhenPartnerLeaves) {
    EXPECT_THAT(FailedRequest(m_other_channel), IsRefused());
    m_silent.Leave();
    ASSERT_TRUE(IterateUntil([&] { return !m_channel.IsConnectionReady(); }));
    ExpectEcho(m_other_channel);
}

TEST_F(UnansweredCalls, AreForgottenWhenPartnerAnswers) {
    TestChannel channel;
    tevrol::PartnerProcess partner(TEVROL_PARTNER_PROGRAM, "demo");
    ASSERT_TRUE(IterateUntil(
        [&] { return channel.IsConnectionReady() && partner.Find("ready ").has_value(); }));
    partner.Stop();
    UseUp(channel);
    EXPECT_THAT(FailedRequest(channel), IsRefused());
    partner.Signal(SIGCONT);
    ASSERT_TRUE(IterateUntil([&] {
        Bytes request = ToBytes("hello");
        return channel.SendMessage(request) == request;
    }));
}

}  // namespace
