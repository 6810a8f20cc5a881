// SPDX-License-Identifier: MIT
// The channel as one of the peers, in three builds that live in one program: as it is by default,
// with TEVROL_BULK_PAYLOADS, and by default with its log lines going to the syslog stand-in. The
// log lines of the first two are discarded.
#pragma once

#include <memory>
#include <string>

#include "bench/peer.h"

namespace bench {

// Requests are answered with an echo, notifications dropped. Never destroy one before the process
// ends, as any channel.
class Channel : public Peer {
public:
    virtual bool IsReady() = 0;
};

std::unique_ptr<Channel> MakeChannel(const std::string& name);
std::unique_ptr<Channel> MakeBulkChannel(const std::string& name);
std::unique_ptr<Channel> MakeLoggingChannel(const std::string& name);

}  // namespace bench
