// SPDX-License-Identifier: MIT
#include "tests/channel/ends.h"

#include <algorithm>
#include <thread>

namespace channel_test {

std::string Text(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

void Events::Add(const std::string& event) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(event);
    m_added.notify_all();
}

std::vector<std::string> Events::All() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

namespace {

std::size_t CountIn(const std::vector<std::string>& lines, const std::string& beginning) {
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.compare(0, beginning.size(), beginning) == 0;
        }));
}

}  // namespace

std::size_t Events::Count(const std::string& beginning) const {
    return CountIn(All(), beginning);
}

bool Events::Await(const std::string& beginning, std::size_t count) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_added.wait_for(lock, kLong, [&] { return CountIn(m_events, beginning) >= count; });
}

bool IsInTurn(const Events& events) {
    bool ready = false;
    for (const std::string& event : events.All()) {
        if (event == "ready" || event == "lost") {
            if (ready == (event == "ready")) {
                return false;
            }
            ready = !ready;
        }
    }
    return true;
}

Handlers Noting(Events& events) {
    Handlers handlers;
    handlers.request = [&events](const Bytes& request) {
        events.Add("request " + Text(request));
        return request;
    };
    handlers.notification = [&events](const Bytes& notification) {
        events.Add("notification " + Text(notification));
    };
    handlers.ready = [&events](const std::string& /*partner*/) { events.Add("ready"); };
    handlers.lost = [&events](const std::string& /*partner*/) { events.Add("lost"); };
    return handlers;
}

bool Await(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);  // looks again; nothing else is told to this thread
    }
    return true;
}

EndProcess::EndProcess(Role role, bool direct, const std::string& name)
    : PartnerProcess([&] {
          std::vector<std::string> arguments = {TEVROL_CHANNEL_END, name,
                                                role == Role::Client ? "client" : "service"};
          if (!direct) {
              arguments.emplace_back("bus");
          }
          return arguments;
      }()) {}

bool EndProcess::AwaitLine(const std::string& beginning, std::size_t from) const {
    return Await([&] { return Find(beginning, from).has_value(); });
}

std::size_t EndProcess::Count(const std::string& beginning) const {
    return CountIn(Lines(), beginning);
}

std::string Name(const testing::TestParamInfo<Way>& info) {
    return info.param == Way::Bus ? "Bus" : "Link";
}

Handlers ChannelTest::KeepingRequests(Events& events) {
    Handlers handlers;
    handlers.request_later = [this, &events](const Bytes& /*request*/,
                                             const tevrol::Answer& answer) {
        const std::lock_guard<std::mutex> lock(mutex);
        kept.push_back(answer);
        events.Add("asked");
    };
    return handlers;
}

Options ChannelTest::Over(Way way) {
    Options options;
    options.direct = way == Way::Link;
    return options;
}

void ChannelTest::Open(Way way, Handlers for_client, Handlers for_service) {
    Open(way, Over(way), Over(way), std::move(for_client), std::move(for_service));
}

void ChannelTest::Open(Way way, const Options& client_options, const Options& service_options,
                       Handlers for_client, Handlers for_service) {
    service =
        std::make_unique<Channel>("demo", Role::Service, std::move(for_service), service_options);
    client = std::make_unique<Channel>("demo", Role::Client, std::move(for_client), client_options);
    ASSERT_TRUE(client->WaitReady(kLong));
    ASSERT_TRUE(service->WaitReady(kLong));
    if (way == Way::Link) {
        ASSERT_TRUE(Await([&] { return client->IsDirect() && service->IsDirect(); }));
    }
}

}  // namespace channel_test
