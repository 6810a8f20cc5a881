// SPDX-License-Identifier: MIT
// Compiled once for each build of the channel, which renames its class and the function below.
#include "bench/channel.h"

#include <utility>

#include "ipc/tevrol-dbus-remote.h"

namespace bench {
namespace {

class EchoChannel : public TevrolDbusRemote, public Channel {
public:
    explicit EchoChannel(const std::string& name) : TevrolDbusRemote(name) {}

    bool IsReady() override {
        return IsConnectionReady();
    }
    Bytes Request(Bytes& data) override {
        return SendMessage(data);
    }
    void Notify(Bytes& data) override {
        SendNotification(data);
    }

    std::vector<char> HandleMessage(std::vector<char>& data) override {
        return std::move(data);  // no copy but the channel's own, as in the GDBus service
    }
    void HandleNotification(std::vector<char>& /*data*/) override {}
    void HandleConnectionReady(bool /*state*/, const std::string& /*partner*/) override {}
};

}  // namespace

std::unique_ptr<Channel> MakeChannel(const std::string& name) {
    return std::make_unique<EchoChannel>(name);
}

}  // namespace bench
