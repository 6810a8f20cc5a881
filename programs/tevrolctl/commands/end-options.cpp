// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/commands/end-options.h"

#include "programs/common/bus.h"
#include "programs/common/failure.h"
#include "programs/common/output.h"
#include "programs/tevrolctl/bus/channel-end.h"
#include "programs/tevrolctl/bus/healing-end.h"

namespace programs {

void EndOptions::AddTo(CommandLine& line) {
    const GOptionEntry entries[] = {
        {"as", 0, 0, G_OPTION_ARG_FILENAME, m_as.Place(), "Be a tevrol::Channel: service or client",
         "ROLE"},
        {"wait", 'w', 0, G_OPTION_ARG_DOUBLE, &m_wait, m_wait_help, "SECONDS"},
        {"timeout", 't', 0, G_OPTION_ARG_DOUBLE, &m_timeout,
         "Wait so long for each reply (25, and no more without --as)", "SECONDS"},
        {"verbose", 'v', 0, G_OPTION_ARG_NONE, &m_verbose, "Show the library's log", nullptr},
        {}};
    line.Add(entries);
}

void EndOptions::Read() {
    Seconds(m_wait);
    Seconds(m_timeout);
    if (m_as.Given() && m_as.Value() != "service" && m_as.Value() != "client") {
        throw Failure(kExitUsage, "--as takes service or client, not " + m_as.Value());
    }
    if (m_as.Given()) {
        m_role = m_as.Value() == "service" ? tevrol::Role::Service : tevrol::Role::Client;
    }
}

std::shared_ptr<End> EndOptions::Open(const std::string& channel,
                                      const End::Functions& functions) const {
    SystemBus();  // which the channel would wait for
    ShowLog(m_verbose != FALSE);
    KeepOutputClean();
    const auto limit = Seconds(m_timeout);
    if (m_role) {
        return std::make_shared<HealingEnd>(channel, *m_role, functions, limit);
    }
    const auto never_destroyed = [](End*) {};
    return {new ChannelEnd(channel, functions, limit), never_destroyed};
}

}  // namespace programs
