// tevrolctl partner: the service end, the same program as tevrol-partner.
#include <cstdlib>
#include <system_error>
#include <thread>

#include "partner/program.h"
#include "tools/tevrolctl/command-line.h"
#include "tools/tevrolctl/commands.h"
#include "tools/tevrolctl/names.h"

namespace tevrolctl {
namespace {

enum Option { kAddress = 1000, kPrivateBus };

constexpr argp_option kBusOptions[] = {{"address", kAddress, "ADDRESS", 0, kAddressHelp, 0},
                                       {"private-bus", kPrivateBus, nullptr, 0, kPrivateBusHelp, 0},
                                       {}};

error_t ParseBusOption(int key, char* argument, argp_state* state) {
    auto& bus = *static_cast<BusOptions*>(state->input);
    switch (key) {
        case kAddress:
            bus.address = argument;
            return 0;
        case kPrivateBus:
            bus.private_bus = TRUE;
            return 0;
        default:
            return ARGP_ERR_UNKNOWN;
    }
}

constexpr const char* kExamples =
    "Examples:\n"
    "  tevrolctl partner demo\n"
    "  tevrolctl partner --fault=late --lateness=3000 demo\n"
    "  echo 'notify hello' | tevrolctl partner --private-bus demo";

}  // namespace

int Partner(int argc, char** argv) {
    char name[] = "tevrolctl partner";
    argv[0] = name;
    argp_err_exit_status = kExitUsage;
    BusOptions bus;
    const std::string help = std::string("\v") + kExamples + "\n\n" + kExitStatuses;
    const argp bus_parser = {kBusOptions, ParseBusOption, nullptr, help.c_str(),
                             nullptr,     nullptr,        nullptr};
    const auto settings = tevrol::ParsePartnerSettings(argc, argv, &bus_parser, &bus);
    RequireUsableName(settings.channel);
    ChooseBus(bus);
    EndOnSignals();
    // The main thread is there for the signals, so that a private bus is cleared away.
    std::thread([settings] {
        int status = kExitOk;
        try {
            tevrol::RunPartner(settings);
        } catch (const std::system_error& failure) {
            fprintf(stderr, "tevrolctl: %s\n", failure.what());
            status = kExitNoBus;
        }
        std::exit(status);
    }).detach();
    for (;;) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

}  // namespace tevrolctl
