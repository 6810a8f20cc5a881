// SPDX-License-Identifier: MIT
// Channels on a private bus, and what their handlers have seen.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "devkit/partner-process.h"
#include "devkit/payload.h"
#include "devkit/private-bus.h"
#include "tevrol/channel.h"

namespace channel_test {

using namespace std::chrono_literals;
using tevrol::Bytes;
using tevrol::Channel;
using tevrol::Error;
using tevrol::Handlers;
using tevrol::Options;
using tevrol::Reply;
using tevrol::Role;
using tevrol::ToBytes;

// Longer than anything takes on a busy machine.
constexpr auto kLong = 30s;

std::string Text(const Bytes& bytes);

// What has happened, line by line. From any thread.
class Events {
public:
    void Add(const std::string& event);
    std::vector<std::string> All() const;
    // How many begin so.
    std::size_t Count(const std::string& beginning) const;
    // Waits until that many do; false when kLong passes first.
    bool Await(const std::string& beginning, std::size_t count = 1) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::vector<std::string> m_events;
};

// Whether "ready" and "lost" come in turn.
bool IsInTurn(const Events& events);

// Handlers that echo requests and note everything: "request TEXT", "notification TEXT", "ready",
// "lost".
Handlers Noting(Events& events);

// Waits until the condition holds.
bool Await(const std::function<bool()>& condition, std::chrono::milliseconds limit = kLong);

// One end as a process of its own; it prints "ready NAME", "lost NAME", "notification TEXT".
class EndProcess : public tevrol::PartnerProcess {
public:
    explicit EndProcess(Role role, bool direct = true, const std::string& name = "demo");
    bool AwaitLine(const std::string& beginning, std::size_t from = 0) const;
    std::size_t Count(const std::string& beginning) const;
};

// How both ends talk.
enum class Way { Bus, Link };
std::string Name(const testing::TestParamInfo<Way>& info);

class ChannelTest : public testing::Test {
protected:
    static Options Over(Way way);
    // Both ends in this process, each ready for the other.
    void Open(Way way, Handlers for_client = {}, Handlers for_service = {});
    void Open(Way way, const Options& client_options, const Options& service_options,
              Handlers for_client = {}, Handlers for_service = {});

    // Keeps the requests that come without answering them, and notes "asked".
    Handlers KeepingRequests(Events& events);

    std::unique_ptr<tevrol::PrivateBus> bus = std::make_unique<tevrol::PrivateBus>();
    // What handlers use outlives the channels.
    Events at_client;
    Events at_service;
    std::mutex mutex;
    std::vector<tevrol::Answer> kept;
    std::unique_ptr<Channel> client;
    std::unique_ptr<Channel> service;
};

// The same over the bus and by the link.
class ChannelByWay : public ChannelTest, public testing::WithParamInterface<Way> {};

}  // namespace channel_test
