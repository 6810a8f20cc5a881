// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/commands/one-shot.h"

#include "devkit/loop.h"
#include "programs/common/command-line.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/common/payload-argument.h"
#include "programs/tevrolctl/bus/channel-end.h"
#include "programs/tevrolctl/ui/text.h"

namespace programs {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Of two that announce SYN at the same moment one is refused, and a partner that is bound hears
// nobody. So the announcement is repeated, at odd moments, until there is an answer.
class Announcer {
public:
    // Does nothing for an end that sees to it by itself.
    explicit Announcer(End& end) : m_end(dynamic_cast<ChannelEnd*>(&end)) {}

    void AnnounceAgainInTime() {
        if (m_end != nullptr && !m_end->IsBound() && steady_clock::now() >= m_next) {
            m_end->AnnounceAgain();
            m_next = NextTime();
        }
    }

private:
    static steady_clock::time_point NextTime() {
        constexpr gint32 kSoonest = 50;
        constexpr gint32 kLatest = 250;
        return steady_clock::now() + milliseconds(g_random_int_range(kSoonest, kLatest));
    }

    ChannelEnd* const m_end;
    steady_clock::time_point m_next = NextTime();
};

}  // namespace

OneShot::OneShot(const char* command, const char* summary, const char* details, int argc,
                 char** argv) {
    const std::string all = std::string(details) + "\n\n" + kEndHelp;
    CommandLine line(command, "NAME DATA|-", summary, all);
    m_options.AddTo(line);
    const auto arguments = line.Parse(argc, argv, 2, 2);
    m_channel = arguments[0];
    RequireUsableName(m_channel);
    m_options.Read();
    m_payload = arguments[1] == "-" ? ReadStandardInput() : ReadPayload(arguments[1]);
}

std::shared_ptr<End> OneShot::AwaitPartner() {
    auto end =
        m_options.Open(m_channel, {[](const tevrol::Bytes&) { return tevrol::Bytes(); },
                                   [](const tevrol::Bytes&) {}, [](bool, const std::string&) {}});
    Announcer announcer(*end);
    const auto ready = [&] {
        announcer.AnnounceAgainInTime();
        return end->IsReady();
    };
    if (!tevrol::IterateUntil(ready, m_options.Wait())) {
        throw Failure(kExitNoPartner, "no partner of \"" + m_channel + "\" within " +
                                          Duration(m_options.Wait().count() * 1000) +
                                          " (none runs, or it is bound to another process)");
    }
    return end;
}

}  // namespace programs
