// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/healing-end.h"

#include <thread>
#include <utility>

#include "devkit/outside-text.h"
#include "programs/common/failure.h"

namespace programs {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(25);  // with a partner that takes nothing
constexpr std::chrono::milliseconds kLookAgain(2);

tevrol::Handlers HandlersOf(const End::Functions& functions) {
    tevrol::Handlers handlers;
    handlers.request_later = [answer = functions.answer](const tevrol::Bytes& request,
                                                         const tevrol::Answer& reply) {
        const RequestAnswer answered = answer(request);
        if (answered.problem.empty()) {
            reply(answered.payload);
        } else {
            reply.Fail(answered.problem);
        }
    };
    handlers.notification = functions.notification;
    handlers.ready = [ready = functions.ready](const std::string& partner) {
        ready(true, partner);
    };
    handlers.lost = [ready = functions.ready](const std::string& partner) {
        ready(false, partner);
    };
    return handlers;
}

tevrol::Options OptionsWith(std::chrono::milliseconds limit) {
    tevrol::Options options;
    options.timeout = limit;
    options.run = Post;
    return options;
}

std::string Explain(const std::error_code& error, const std::string& text) {
    return error.message() + (text.empty() ? "" : " (" + tevrol::Printable(text) + ")");
}

}  // namespace

HealingEnd::HealingEnd(const std::string& name, tevrol::Role role, const Functions& functions,
                       std::chrono::milliseconds limit)
    : m_channel(name, role, HandlersOf(functions), OptionsWith(limit)) {}

void HealingEnd::Request(tevrol::Bytes request, std::function<void(const Outcome&)> done) {
    const gint64 start = g_get_monotonic_time();
    m_channel.RequestLater(
        std::move(request), [done = std::move(done), start](tevrol::Reply reply) {
            done({static_cast<bool>(reply), std::move(reply.payload),
                  reply ? "" : Explain(reply.error, reply.text), g_get_monotonic_time() - start});
        });
}

void HealingEnd::Notify(tevrol::Bytes payload) {
    const auto deadline = steady_clock::now() + kPatience;
    std::error_code error = m_channel.Notify(payload);
    while (error == tevrol::Error::Full && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kLookAgain);
        error = m_channel.Notify(payload);
    }
    if (error) {
        throw Failure(kExitFailed, "not sent: " + error.message());
    }
}

void HealingEnd::Flush() {
    m_channel.Flush(kPatience);
}

bool HealingEnd::IsReady() {
    return m_channel.IsReady();
}

bool HealingEnd::IsDirect() const {
    return m_channel.IsDirect();
}

}  // namespace programs
