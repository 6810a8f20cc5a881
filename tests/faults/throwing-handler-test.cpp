// SPDX-License-Identifier: MIT
// Handlers that throw, which they must not: the exception passes the bus library's C code, or the
// start of the resend thread, and nobody catches it. The process ends. The same comes of an
// allocation that fails there.
#include <stdexcept>

#include "tests/support/channel-test.h"
#include "tests/support/handshake.h"

namespace {

enum class Handler { Message, Notification, Ready };

class ThrowingChannel : public TevrolDbusRemote {
public:
    explicit ThrowingChannel(Handler throwing) : TevrolDbusRemote("demo"), m_throwing(throwing) {}

    std::vector<char> HandleMessage(std::vector<char>& data) override {
        ThrowIf(Handler::Message);
        return data;
    }
    void HandleNotification(std::vector<char>& /*data*/) override {
        ThrowIf(Handler::Notification);
    }
    void HandleConnectionReady(bool /*state*/, const std::string& /*partner*/) override {
        ThrowIf(Handler::Ready);
    }

private:
    void ThrowIf(Handler handler) const {
        if (handler == m_throwing) {
            throw std::runtime_error("of the application");
        }
    }

    const Handler m_throwing;
};

constexpr const char* kUncaught = "terminate called after throwing.*\n.*of the application";

class ThrowingHandler : public ChannelTest {
protected:
    // An application whose handler throws, and which catches nothing.
    static void RunApplication(Handler throwing) noexcept {
        ThrowingChannel channel(throwing);
        TestPartner partner;
        partner.Join();
        partner.Open();
        IterateUntil([&] { return channel.IsConnectionReady() && partner.IsReady(); });
        partner.Notify(ToBytes("hello"));
        partner.Request(ToBytes("hello"));
        IterateUntil([] { return false; });
    }

    // The same, where the handshake is completed by the resend thread.
    static void RunApplicationWithRefusedAck() noexcept {
        ThrowingChannel channel(Handler::Ready);
        TestPartner partner;
        partner.Join();
        partner.HoldClientName(HandshakeStage::Ack);
        partner.Announce(HandshakeStage::SynAck);
        IterateUntil([&] { return channel.m_signal_id != 0; });
        partner.ReleaseClientName(HandshakeStage::Ack);
        IterateUntil([] { return false; });
    }
};

TEST_F(ThrowingHandler, ForRequestsEndsProcess) {
    PrepareDeath();
    EXPECT_EXIT(RunApplication(Handler::Message), testing::KilledBySignal(SIGABRT), kUncaught);
}

TEST_F(ThrowingHandler, ForNotificationsEndsProcess) {
    PrepareDeath();
    EXPECT_EXIT(RunApplication(Handler::Notification), testing::KilledBySignal(SIGABRT), kUncaught);
}

TEST_F(ThrowingHandler, ForReadinessEndsProcess) {
    PrepareDeath();
    EXPECT_EXIT(RunApplication(Handler::Ready), testing::KilledBySignal(SIGABRT), kUncaught);
}

TEST_F(ThrowingHandler, OnResendThreadEndsProcess) {
    PrepareDeath();
    EXPECT_EXIT(RunApplicationWithRefusedAck(), testing::KilledBySignal(SIGABRT), kUncaught);
}

}  // namespace
