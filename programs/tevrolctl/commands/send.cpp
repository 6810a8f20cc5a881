// SPDX-License-Identifier: MIT
// tevrolctl send: one request and its reply.
#include <optional>

#include "devkit/loop.h"
#include "programs/common/failure.h"
#include "programs/common/output.h"
#include "programs/tevrolctl/commands/commands.h"
#include "programs/tevrolctl/commands/one-shot.h"

namespace programs {
namespace {

constexpr const char* kDetails =
    "DATA is text, hex: and digits, file: and a path, text: and text as it is, or - for all of\n"
    "standard input.\n"
    "The reply is written to standard output as it is.\n\n"
    "Examples:\n"
    "  tevrolctl send demo hello\n"
    "  tevrolctl send demo hex:00ff | xxd\n"
    "  tevrolctl send --wait 30 demo - < request.bin > reply.bin";

}  // namespace

int Send(int argc, char** argv) {
    OneShot shot("tevrolctl send", "Sends one request and writes the reply to standard output.",
                 kDetails, argc, argv);
    const auto end = shot.AwaitPartner();
    std::optional<Outcome> outcome;
    end->Request(shot.Payload(), [&](const Outcome& result) { outcome = result; });
    while (!outcome) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (!outcome->ok) {
        throw Failure(kExitNoReply, "no reply: " + outcome->error);
    }
    Print(std::string(outcome->reply.begin(), outcome->reply.end()));
    return kExitOk;
}

}  // namespace programs
