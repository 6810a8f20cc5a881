// SPDX-License-Identifier: MIT
// tevrolctl: one tool for people who build on a channel. Runs a subcommand.
#include <array>
#include <string>
#include <utility>

#include "programs/common/failure.h"
#include "programs/common/output.h"
#include "programs/common/run.h"
#include "programs/partner/front-end.h"
#include "programs/tevrolctl/commands/commands.h"

namespace {

int Partner(int argc, char** argv) {
    return programs::RunPartner("tevrolctl partner", argc, argv);
}

constexpr std::array<std::pair<const char*, programs::Command>, 7> kCommands = {{
    {"open", programs::Open},
    {"send", programs::Send},
    {"notify", programs::Notify},
    {"partner", Partner},
    {"monitor", programs::Monitor},
    {"check", programs::Check},
    {"verify", programs::Verify},
}};

constexpr const char* kUsage =
    "Usage: tevrolctl COMMAND [OPTION...] [ARGUMENT...]\n"
    "\n"
    "  open NAME            a channel end at the terminal\n"
    "  send NAME DATA|-     send one request and write its reply to standard output\n"
    "  notify NAME DATA|-   send one notification\n"
    "  partner NAME         the service end, with faults to rehearse\n"
    "  monitor [NAME...]    show what happens on the bus, record it, draw it\n"
    "  check [NAME]         find out why a channel does not connect\n"
    "  verify NAME          test whether the other end is a correct partner\n"
    "\n"
    "tevrolctl COMMAND --help tells the options of each, with examples.\n";

// Prints the help, or throws because there is no such command.
int ShowUsage(int argc, char** argv) {
    const std::string name = argc < 2 ? "" : argv[1];
    if (name == "--help" || name == "-h") {
        programs::Print(kUsage);
        return programs::kExitOk;
    }
    throw programs::Failure(
        programs::kExitUsage,
        (name.empty() ? "no command" : "unknown command: " + name) + "\n" + kUsage);
}

}  // namespace

int main(int argc, char** argv) {
    for (const auto& [name, command] : kCommands) {
        if (argc > 1 && std::string(argv[1]) == name) {
            programs::RunToTheEnd(command, argc - 1, argv + 1);
        }
    }
    programs::RunToTheEnd(ShowUsage, argc, argv);
}
