#include "tools/tevrolctl/names.h"

#include <array>

#include "tools/tevrolctl/command-line.h"

namespace tevrolctl {
namespace {

constexpr std::size_t kLongestBusName = 255;
constexpr const char* kUsableCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

std::string ObjectPath(const std::string& channel) {
    return "/org/ulmar/tevrol/CommunicationChannel/" + channel;
}

std::string HandshakeName(const std::string& channel, const std::string& role,
                          const std::string& stage) {
    return kNamePrefix + channel + "_" + role + "_" + stage;
}

std::optional<Announcement> ParseHandshakeName(const std::string& name) {
    const std::string prefix = kNamePrefix;
    if (name.compare(0, prefix.size(), prefix) != 0) {
        return std::nullopt;
    }
    for (const char* role : {kClient, kService}) {
        for (const char* stage : {kSyn, kSynAck, kAck}) {
            const std::string suffix = std::string("_") + role + "_" + stage;
            if (EndsWith(name, suffix) && name.size() > prefix.size() + suffix.size()) {
                const std::size_t length = name.size() - prefix.size() - suffix.size();
                return Announcement{name.substr(prefix.size(), length), role, stage};
            }
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

}  // namespace tevrolctl
