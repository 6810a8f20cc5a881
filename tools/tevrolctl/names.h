// The names of a channel, and whether they can be used.
#pragma once

#include <optional>
#include <string>

namespace tevrolctl {

constexpr const char* kNamePrefix = "org.ulmar.Tevrol.";
constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";
constexpr const char* kMethod = "Send";
constexpr const char* kNotification = "SendSignal";
constexpr const char* kClient = "CLIENT";
constexpr const char* kService = "SERVICE";
constexpr const char* kSyn = "SYN";
constexpr const char* kSynAck = "SYN_ACK";
constexpr const char* kAck = "ACK";

constexpr const char* kDriver = "org.freedesktop.DBus";
constexpr const char* kDriverPath = "/org/freedesktop/DBus";

std::string ObjectPath(const std::string& channel);
std::string HandshakeName(const std::string& channel, const std::string& role,
                          const std::string& stage);

// A handshake name taken apart.
struct Announcement {
    std::string channel;
    std::string role;
    std::string stage;
};
// Nothing when `name` is not a handshake name.
std::optional<Announcement> ParseHandshakeName(const std::string& name);

// Why `channel` cannot be used in a bus name and as an element of an object path; empty if it can.
std::string NameProblem(const std::string& channel);
// Throws Failure when the name cannot be used.
void RequireUsableName(const std::string& channel);

}  // namespace tevrolctl
