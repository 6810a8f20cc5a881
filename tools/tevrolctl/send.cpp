// tevrolctl send and what it shares with notify: one message to the partner, and the end.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "tools/loop.h"
#include "tools/tevrolctl/commands.h"
#include "tools/tevrolctl/one-shot.h"

namespace tevrolctl {
namespace {

constexpr const char* kDetails =
    "DATA is text, hex: and digits, file: and a path, or - for all of standard input.\n"
    "The reply is written to standard output as it is.\n\n"
    "Examples:\n"
    "  tevrolctl send demo hello\n"
    "  tevrolctl send demo hex:00ff | xxd\n"
    "  tevrolctl send --wait 30 demo - < request.bin > reply.bin";

}  // namespace

int Send(int argc, char** argv) {
    OneShot shot("send", "Sends one request and writes the reply to standard output.", kDetails,
                 argc, argv);
    ChannelEnd& channel = shot.AwaitPartner();
    std::optional<Outcome> outcome;
    channel.Request(shot.Payload(), [&](const Outcome& result) { outcome = result; });
    while (!outcome) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (!outcome->ok) {
        throw Failure(kExitNoReply, "no reply: " + outcome->error);
    }
    Print(std::string(outcome->reply.begin(), outcome->reply.end()));
    return kExitOk;
}

}  // namespace tevrolctl
