// SPDX-License-Identifier: MIT
// tevrolctl's channel end: the outcome of each operation, which the library itself only logs.
#include "programs/tevrolctl/bus/channel-end.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "devkit/loop.h"
#include "devkit/partner.h"
#include "devkit/private-bus.h"
#include "programs/common/bus.h"
#include "programs/common/failure.h"
#include "tests/support/gio-calls.h"

namespace {

using programs::ChannelEnd;
using programs::Outcome;
using testing::HasSubstr;
using tevrol::Bytes;

class ChannelEndTest : public testing::Test {
protected:
    ChannelEndTest() {
        programs::SystemBus();
    }

    // The one of this process. Never destroyed, as its thread goes on.
    static ChannelEnd& End() {
        static auto& end =
            *new ChannelEnd("demo", {[](const Bytes& request) { return request; },
                                     [](const Bytes&) {}, [](bool, const std::string&) {}});
        return end;
    }
    ChannelEnd& ReadyEnd() {
        ChannelEnd& end = End();
        partner.Join();
        partner.Open();
        EXPECT_TRUE(tevrol::IterateUntil([&] { return end.IsConnectionReady(); }));
        return end;
    }

    static Outcome Request(ChannelEnd& end, const Bytes& request) {
        std::optional<Outcome> outcome;
        end.Request(request, [&](const Outcome& result) { outcome = result; });
        EXPECT_TRUE(tevrol::IterateUntil([&] { return outcome.has_value(); }));
        return outcome.value_or(Outcome{});
    }

    // Why the notification was not sent; empty if it was.
    static std::string NotifyProblem(ChannelEnd& end) {
        try {
            end.Notify({'x'});
            return {};
        } catch (const programs::Failure& failure) {
            EXPECT_EQ(failure.Status(), programs::kExitFailed);
            return failure.what();
        }
    }

    const tevrol::PrivateBus bus;
    tevrol::Partner partner{"demo"};
};

TEST_F(ChannelEndTest, TakesEveryReplyForASuccessTheEmptyOneToo) {
    ChannelEnd& end = ReadyEnd();
    for (const Bytes& request : {Bytes{'x'}, Bytes{}}) {
        const Outcome outcome = Request(end, request);
        EXPECT_TRUE(outcome.ok) << outcome.error;
        EXPECT_EQ(outcome.reply, request);
    }
}

TEST_F(ChannelEndTest, TellsWhatTheLibraryHasLoggedOfAFailedRequest) {
    ChannelEnd& end = ReadyEnd();
    gio_calls::Fail("g_dbus_proxy_call_sync");
    const Outcome failed = Request(end, {'x'});
    EXPECT_FALSE(failed.ok);
    EXPECT_THAT(failed.error, HasSubstr("Error while sending message"));
    EXPECT_TRUE(Request(end, {'x'}).ok) << "an earlier failure is none of this one";
}

TEST_F(ChannelEndTest, TakesARequestWithoutAConnectionForFailed) {
    const Outcome outcome = Request(End(), {'x'});
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, "no connection to the partner");
}

TEST_F(ChannelEndTest, TakesARequestWithoutAProxyForFailed) {
    gio_calls::Fail("g_dbus_proxy_new_sync");
    const Outcome outcome = Request(ReadyEnd(), {'x'});
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, "no proxy of the partner could be created");
}

TEST_F(ChannelEndTest, TakesARequestForFailedThatEndsWithNeitherReplyNorError) {
    ChannelEnd& end = ReadyEnd();
    gio_calls::Fail("g_dbus_proxy_call_sync", 1, gio_calls::Failure::WithoutError);
    EXPECT_FALSE(Request(end, {'x'}).ok);
}

TEST_F(ChannelEndTest, TellsWhyANotificationWasNotSent) {
    EXPECT_EQ(NotifyProblem(End()), "not sent: Connection not set.");
    ChannelEnd& end = ReadyEnd();
    EXPECT_EQ(NotifyProblem(end), "");
    gio_calls::Fail("g_dbus_connection_emit_signal");
    EXPECT_THAT(NotifyProblem(end), HasSubstr("not sent: Error while sending signal"));
}

}  // namespace
