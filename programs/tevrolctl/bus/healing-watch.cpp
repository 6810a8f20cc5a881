// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/healing-watch.h"

#include <gio/gio.h>
#include <unistd.h>

#include <utility>

#include "programs/common/bus.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/common/process.h"

namespace programs {
namespace {

// The process that owns `name`, 0 if nobody does.
pid_t ProcessOfOwner(const std::string& name) {
    constexpr gint kPatienceMs = 1000;
    try {
        const Connection bus(SystemBus());
        const Variant reply(g_dbus_connection_call_sync(
            bus.get(), kDriver, kDriverPath, kDriver, "GetConnectionUnixProcessID",
            g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
            kPatienceMs, nullptr, nullptr));
        guint32 pid = 0;
        if (reply) {
            g_variant_get(reply.get(), "(u)", &pid);
        }
        return static_cast<pid_t>(pid);
    } catch (const Failure&) {
        return 0;  // the end itself sees to a bus that has gone
    }
}

}  // namespace

HealingWatch::HealingWatch(const End& end, std::string channel, std::string role)
    : m_end(end), m_channel(std::move(channel)), m_role(std::move(role)) {}

void HealingWatch::OnReady(bool ready, const std::string& partner) {
    m_partner = ready ? partner : "";
    m_direct = false;
    m_looks = 0;
}

std::vector<std::string> HealingWatch::Look() {
    constexpr int kBetweenQuestions = 10;
    std::vector<std::string> news;
    if (m_partner.empty() && m_looks++ % kBetweenQuestions == 0) {
        LookForTheActiveEnd(news);
    }
    if (!m_partner.empty() && !m_direct && m_end.IsDirect()) {
        m_direct = true;
        news.push_back("direct link with " + m_partner);
    }
    return news;
}

void HealingWatch::LookForTheActiveEnd(std::vector<std::string>& news) {
    const pid_t active =
        ProcessOfOwner(ActiveName(m_channel, m_role == "service" ? kService : kClient));
    const bool other = active != 0 && active != getpid();
    if (other && active != m_standing_behind) {
        news.push_back("standing by: " + DescribeProcess(active) + " is the " + m_role);
    } else if (active == getpid() && m_standing_behind != 0) {
        news.emplace_back("no longer standing by");
    }
    m_standing_behind = other ? active : 0;
}

}  // namespace programs
