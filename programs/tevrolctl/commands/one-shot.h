// SPDX-License-Identifier: MIT
// What send and notify share: one payload, and the wait for the partner.
#pragma once

#include <memory>
#include <string>

#include "programs/tevrolctl/commands/end-options.h"

namespace programs {

class OneShot {
public:
    // Reads the command line and the payload. Throws Failure.
    OneShot(const char* command, const char* summary, const char* details, int argc, char** argv);

    const tevrol::Bytes& Payload() const {
        return m_payload;
    }
    // Opens the channel and runs the loop until a partner is ready. Throws Failure.
    std::shared_ptr<End> AwaitPartner();

private:
    EndOptions m_options{5, "Wait so long for the partner (5)"};
    std::string m_channel;
    tevrol::Bytes m_payload;
};

}  // namespace programs
