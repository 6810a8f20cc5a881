// SPDX-License-Identifier: MIT
#include "tevrol/channel.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>
#include <utility>

#include "tevrol/engine.h"

namespace tevrol {
namespace {

constexpr std::size_t kLongestName = 200;
// An array of D-Bus holds no more.
constexpr std::size_t kLargestArray = std::size_t{64} << 20;

bool IsNameCharacter(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

void CheckName(const std::string& name) {
    const bool usable = !name.empty() && name.size() <= kLongestName &&
                        std::isdigit(static_cast<unsigned char>(name.front())) == 0 &&
                        std::all_of(name.begin(), name.end(), IsNameCharacter);
    if (!usable) {
        throw std::invalid_argument(
            "a channel's name is letters, digits and underscores, does not begin with a digit and "
            "is not longer than 200 characters: \"" +
            name + "\"");
    }
}

class Category : public std::error_category {
public:
    const char* name() const noexcept override {
        return "tevrol";
    }
    std::string message(int value) const override {
        switch (static_cast<Error>(value)) {
            case Error::NotReady:
                return "No partner is ready.";
            case Error::TimedOut:
                return "The partner did not reply in time.";
            case Error::PartnerLost:
                return "The partner was lost before it replied.";
            case Error::Refused:
                return "The partner or the bus refuses the request.";
            case Error::TooLarge:
                return "The payload is too large.";
            case Error::BadReply:
                return "The reply is not a payload.";
            case Error::Failed:
                return "The partner failed to answer.";
            case Error::Full:
                return "The partner does not take what waits for it already.";
            case Error::Closed:
                return "The channel is being closed.";
            case Error::NoBus:
                return "The bus cannot be reached.";
        }
        return "Unknown error.";
    }
};

}  // namespace

const std::error_category& ErrorCategory() noexcept {
    static const Category category;
    return category;
}

std::error_code make_error_code(Error error) noexcept {
    return {static_cast<int>(error), ErrorCategory()};
}

Channel::Channel(std::string name, Role role, Handlers handlers, Options options) {
    CheckName(name);
    if (options.largest > kLargestArray) {
        throw std::invalid_argument(
            "Options::largest is more than an array of D-Bus holds, 64 MiB");
    }
    m_engine =
        std::make_shared<Engine>(std::move(name), role, std::move(handlers), std::move(options));
    try {
        m_engine->Start();
    } catch (...) {
        m_engine->Close();
        throw;
    }
}

Channel::~Channel() {
    m_engine->Close();
}

// Each operation holds on to the engine: the channel may be destroyed while it waits.

Reply Channel::Request(const Bytes& payload) {
    return std::shared_ptr(m_engine)->Request(payload);
}

Reply Channel::Request(const Bytes& payload, std::chrono::milliseconds timeout) {
    return std::shared_ptr(m_engine)->Request(payload, timeout);
}

// NOLINTBEGIN(performance-unnecessary-value-param): callers may hand their payload over.
std::future<Reply> Channel::RequestLater(Bytes payload) {
    return std::shared_ptr(m_engine)->RequestLater(payload);
}

void Channel::RequestLater(Bytes payload, std::function<void(Reply)> done) {
    std::shared_ptr(m_engine)->RequestLater(payload, std::move(done));
}
// NOLINTEND(performance-unnecessary-value-param)

std::error_code Channel::Notify(const Bytes& payload) {
    return std::shared_ptr(m_engine)->Notify(payload);
}

bool Channel::IsReady() const {
    return std::shared_ptr(m_engine)->IsReady();
}

bool Channel::Flush(std::chrono::milliseconds timeout) const {
    return std::shared_ptr(m_engine)->Flush(timeout);
}

bool Channel::WaitReady(std::chrono::milliseconds timeout) const {
    return std::shared_ptr(m_engine)->WaitReady(timeout);
}

std::string Channel::Partner() const {
    return std::shared_ptr(m_engine)->Partner();
}

std::optional<Credentials> Channel::PartnerCredentials() const {
    return std::shared_ptr(m_engine)->PartnerCredentials();
}

bool Channel::IsDirect() const {
    return std::shared_ptr(m_engine)->IsDirect();
}

}  // namespace tevrol
