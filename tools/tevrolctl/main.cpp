// tevrolctl: one tool for people who build on a channel. Hands over to a subcommand.
#include <array>
#include <csignal>
#include <iostream>
#include <string>
#include <utility>

#include "tools/tevrolctl/command-line.h"
#include "tools/tevrolctl/commands.h"

namespace {

using Command = int (*)(int, char**);

constexpr std::array<std::pair<const char*, Command>, 7> kCommands = {{
    {"open", tevrolctl::Open},
    {"send", tevrolctl::Send},
    {"notify", tevrolctl::Notify},
    {"partner", tevrolctl::Partner},
    {"monitor", tevrolctl::Monitor},
    {"check", tevrolctl::Check},
    {"verify", tevrolctl::Verify},
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

int Run(Command command, int argc, char** argv) {
    try {
        return command(argc, argv);
    } catch (const tevrolctl::Failure& failure) {
        std::cerr << "tevrolctl: " << failure.what() << std::endl;
        return failure.Status();
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is an error like others
    const std::string name = argc < 2 ? "" : argv[1];
    if (name == "--help" || name == "-h") {
        tevrolctl::Print(kUsage);
        return tevrolctl::kExitOk;
    }
    for (const auto& [known, command] : kCommands) {
        if (name == known) {
            // Not a return: threads of the library may still run, and what is static goes in order.
            std::exit(Run(command, argc - 1, argv + 1));
        }
    }
    std::cerr << (name.empty() ? "" : "tevrolctl: unknown command: " + name + "\n") << kUsage;
    return tevrolctl::kExitUsage;
}
