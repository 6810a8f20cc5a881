// SPDX-License-Identifier: MIT
// The names of a channel, and whether they can be used.
#pragma once

#include <optional>
#include <string>

#include "tevrol/names.h"

namespace programs {

using tevrol::kAnsweredDirectly;
using tevrol::kDoNotQueue;
using tevrol::kDriver;
using tevrol::kDriverPath;
using tevrol::kInterface;
using tevrol::kMethod;
using tevrol::kNamePrefix;
using tevrol::kPrimaryOwner;

constexpr const char* kNotification = tevrol::kSignal;
constexpr const char* kClient = "CLIENT";
constexpr const char* kService = "SERVICE";
constexpr const char* kSyn = "SYN";
constexpr const char* kSynAck = "SYN_ACK";
constexpr const char* kAck = "ACK";

constexpr const char* kDirectInterface = tevrol::kLinkInterface;
constexpr const char* kOpenLink = tevrol::kOpen;

std::string ObjectPath(const std::string& channel);
std::string HandshakeName(const std::string& channel, const std::string& role,
                          const std::string& stage);
// The name that the active one of several ends of a role owns, where these are tevrol::Channels.
std::string ActiveName(const std::string& channel, const std::string& role);

// The parts of a handshake name.
struct Announcement {
    std::string channel;
    std::string role;
    std::string stage;
};
// Nothing when `name` is not a handshake name.
std::optional<Announcement> ParseHandshakeName(const std::string& name);

// The same, with an empty stage, for the name that the one active end of a role owns.
std::optional<Announcement> ParseRoleName(const std::string& name);

// Why `channel` cannot be used in bus names and object paths. Empty if it can.
std::string NameProblem(const std::string& channel);
// Throws Failure when the name cannot be used.
void RequireUsableName(const std::string& channel);

}  // namespace programs
