// What send and notify share: one payload, and the wait for the partner.
#pragma once

#include <string>

#include "tools/tevrolctl/channel-end.h"

namespace tevrolctl {

class OneShot {
public:
    // Reads the command line and the payload. Throws Failure.
    OneShot(const char* command, const char* summary, const char* details, int argc, char** argv);

    const tevrol::Bytes& Payload() const {
        return m_payload;
    }
    // Opens the channel and runs the loop until a partner is ready. Throws Failure.
    ChannelEnd& AwaitPartner();

private:
    std::string m_channel;
    tevrol::Bytes m_payload;
    std::chrono::milliseconds m_wait{0};
};

}  // namespace tevrolctl
