// SPDX-License-Identifier: MIT
// Each call that can fail, failed: one in each run, the next one in the next run. Whatever it is,
// the process lives, both ends are ready again soon, everything that waits gets its outcome, and
// the application hears of ready and lost in turn.
#include <iostream>
#include <optional>
#include <stdexcept>

#include "tests/channel/ends.h"
#include "tests/channel/failures.h"

namespace channel_test {
namespace {

constexpr unsigned kShares = 8;

// One of several tests that share the places among them.
struct Share {
    Failing kind;
    unsigned number;
};

// The handlers have all the memory they want.
Handlers NotingAlways(Events& events) {
    const Handlers noting = Noting(events);
    Handlers handlers;
    handlers.request = [noting](const Bytes& request) {
        const InHandler here;
        return noting.request(request);
    };
    handlers.notification = [noting](const Bytes& notification) {
        const InHandler here;
        noting.notification(notification);
    };
    handlers.ready = [noting](const std::string& partner) {
        const InHandler here;
        noting.ready(partner);
    };
    handlers.lost = [noting](const std::string& partner) {
        const InHandler here;
        noting.lost(partner);
    };
    return handlers;
}

class EachCallThatFails : public ChannelTest, public testing::WithParamInterface<Share> {
protected:
    // Without the memory for it, or a descriptor, there is no channel. The next try has both.
    static std::unique_ptr<Channel> OpenEnd(Role role, Events& events) {
        for (;;) {
            Handlers handlers = NotingAlways(events);
            const InOperation counted;
            try {
                return std::make_unique<Channel>("demo", role, std::move(handlers));
            } catch (const std::bad_alloc&) {
            } catch (const std::system_error&) {
            }
        }
    }

    // Until it has come through: the one that meets the failure may end with an error.
    static bool Requests(Channel& end) {
        const auto until = std::chrono::steady_clock::now() + kLong;
        while (std::chrono::steady_clock::now() < until && end.WaitReady(kLong)) {
            const Bytes payload = ToBytes("hello");
            const Reply reply = [&] {
                const InOperation counted;
                try {
                    return end.Request(payload, 2s);
                } catch (const std::bad_alloc&) {
                    return Reply{Error::Failed, {}, {}};
                }
            }();
            if (reply && reply.payload == payload) {
                return true;
            }
        }
        return false;
    }

    static bool RequestsLater(Channel& end) {
        const auto until = std::chrono::steady_clock::now() + kLong;
        while (std::chrono::steady_clock::now() < until && end.WaitReady(kLong)) {
            const Bytes payload = ToBytes("later");
            std::future<Reply> outcome;
            try {
                const InOperation counted;
                outcome = end.RequestLater(payload);
            } catch (const std::bad_alloc&) {
                continue;
            }
            if (outcome.wait_for(kLong) != std::future_status::ready) {
                return false;
            }
            if (outcome.get()) {
                return true;
            }
        }
        return false;
    }

    static bool Notifies(Channel& end, const Events& other) {
        const auto until = std::chrono::steady_clock::now() + kLong;
        while (std::chrono::steady_clock::now() < until && end.WaitReady(kLong)) {
            const Bytes payload = ToBytes("news");
            const auto lost = other.Count("lost");
            try {
                const InOperation counted;
                if (end.Notify(payload)) {
                    continue;
                }
            } catch (const std::bad_alloc&) {
                continue;
            }
            Await(
                [&] { return other.Count("notification news") > 0 || other.Count("lost") > lost; },
                5s);
            if (other.Count("notification news") > 0) {
                return true;
            }
        }
        return false;
    }

    // Whether a call failed.
    bool Run(Events& service_events, Events& client_events) {
        service = OpenEnd(Role::Service, service_events);
        client = OpenEnd(Role::Client, client_events);
        EXPECT_TRUE(Requests(*client));
        EXPECT_TRUE(Requests(*service));
        EXPECT_TRUE(RequestsLater(*client));
        EXPECT_TRUE(Notifies(*client, service_events));
        EXPECT_TRUE(Notifies(*service, client_events));
        EXPECT_TRUE(Requests(*client));
        service.reset();
        EXPECT_TRUE(IsInTurn(service_events));
        EXPECT_TRUE(Await([&] { return !client->IsReady(); }));
        Events next_events;
        service = OpenEnd(Role::Service, next_events);
        EXPECT_TRUE(Requests(*client));
        const bool failed = StopFailing();
        client.reset();
        service.reset();
        EXPECT_TRUE(IsInTurn(next_events));
        EXPECT_TRUE(IsInTurn(client_events));
        return failed;
    }
};

TEST_P(EachCallThatFails, IsOvercome) {
    const auto [kind, share] = GetParam();
    int places = 0;
    for (bool failed = true; failed && !HasFailure(); ++places) {
        SCOPED_TRACE("place " + std::to_string(places));
        Events service_events;
        Events client_events;
        FailAtNextPlace(kind, share, kShares);
        failed = Run(service_events, client_events);
    }
    std::cout << places << " places" << std::endl;
}

std::vector<Share> Shares(Failing kind) {
    std::vector<Share> shares;
    for (unsigned number = 0; number < kShares; ++number) {
        shares.push_back({kind, number});
    }
    return shares;
}

std::string ShareName(const testing::TestParamInfo<Share>& info) {
    return std::to_string(info.param.number);
}

INSTANTIATE_TEST_SUITE_P(Calls, EachCallThatFails, testing::ValuesIn(Shares(Failing::Calls)),
                         ShareName);
INSTANTIATE_TEST_SUITE_P(Memory, EachCallThatFails, testing::ValuesIn(Shares(Failing::Memory)),
                         ShareName);

}  // namespace
}  // namespace channel_test
