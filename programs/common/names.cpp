// SPDX-License-Identifier: MIT
#include "programs/common/names.h"

#include <array>

#include "programs/common/failure.h"

namespace programs {
namespace {

constexpr std::size_t kLongestBusName = 255;
constexpr const char* kUsableCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// What stands between the prefix of all names and `suffix`.
std::optional<std::string> ChannelOf(const std::string& name, const std::string& suffix) {
    const std::string prefix = kNamePrefix;
    if (name.compare(0, prefix.size(), prefix) != 0 || !EndsWith(name, suffix) ||
        name.size() <= prefix.size() + suffix.size()) {
        return std::nullopt;
    }
    return name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
}

}  // namespace

std::string ObjectPath(const std::string& channel) {
    return tevrol::kPathPrefix + channel;
}

std::string HandshakeName(const std::string& channel, const std::string& role,
                          const std::string& stage) {
    return kNamePrefix + channel + "_" + role + "_" + stage;
}

std::string ActiveName(const std::string& channel, const std::string& role) {
    return kNamePrefix + channel + "_" + role;
}

std::optional<Announcement> ParseHandshakeName(const std::string& name) {
    for (const char* role : {kClient, kService}) {
        for (const char* stage : {kSyn, kSynAck, kAck}) {
            if (const auto channel = ChannelOf(name, std::string("_") + role + "_" + stage)) {
                return Announcement{*channel, role, stage};
            }
        }
    }
    return std::nullopt;
}

std::optional<Announcement> ParseRoleName(const std::string& name) {
    for (const char* role : {kClient, kService}) {
        if (const auto channel = ChannelOf(name, std::string("_") + role)) {
            return Announcement{*channel, role, ""};
        }
    }
    return std::nullopt;
}

std::string NameProblem(const std::string& channel) {
    if (channel.empty()) {
        return "it is empty";
    }
    const std::size_t bad = channel.find_first_not_of(kUsableCharacters);
    if (bad != std::string::npos) {
        return "byte " + std::to_string(bad + 1) + " is not a letter, digit or underscore";
    }
    if (channel.front() >= '0' && channel.front() <= '9') {
        return "it begins with a digit, which a bus name may not after a dot";
    }
    const std::size_t length = HandshakeName(channel, kService, kSynAck).size();
    if (length > kLongestBusName) {
        return "its longest handshake name has " + std::to_string(length) + " characters of " +
               std::to_string(kLongestBusName) + " allowed";
    }
    return {};
}

void RequireUsableName(const std::string& channel) {
    const std::string problem = NameProblem(channel);
    if (!problem.empty()) {
        throw Failure(kExitUsage, "channel name \"" + channel + "\" refused: " + problem);
    }
}

}  // namespace programs
