// The partner as a program: options choose its faults, lines on standard input steer it, each event
// is a line on standard output.
#pragma once

#include <argp.h>

#include <optional>
#include <string>

#include "partner/partner.h"

namespace tevrol {

struct PartnerSettings {
    std::string channel;
    bool announce = true;
    Partner::Functions functions;
    PartnerFaults faults;
    std::optional<HandshakeStage> held;
    void* extension_input = nullptr;  // what an extension's options are parsed into
};

// Ends the process with a message when the command line is wrong (argp_err_exit_status), or after
// --help. `extension` holds further options of the calling program.
PartnerSettings ParsePartnerSettings(int argc, char** argv, const argp* extension = nullptr,
                                     void* extension_input = nullptr);

// Runs until the command "quit"; without one, for ever. Throws std::system_error when the bus
// cannot be reached or the channel name cannot be used.
void RunPartner(PartnerSettings settings);

}  // namespace tevrol
