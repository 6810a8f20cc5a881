// SPDX-License-Identifier: MIT
// The names of the protocol. The one list of them for all that is not the class on GDBus.
#pragma once

#include <string>

namespace tevrol {

constexpr const char* kNamePrefix = "org.ulmar.Tevrol.";
constexpr const char* kPathPrefix = "/org/ulmar/tevrol/CommunicationChannel/";
constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";
constexpr const char* kMethod = "Send";
constexpr const char* kSignal = "SendSignal";
constexpr const char* kClientRole = "_CLIENT";
constexpr const char* kServiceRole = "_SERVICE";
constexpr const char* kSynSuffix = "_SYN";
constexpr const char* kSynAckSuffix = "_SYN_ACK";
constexpr const char* kAckSuffix = "_ACK";

// The interface of what two ends of this library say to each other besides the protocol: "Open"
// hands over a socket (by the bus), "Switched" ends what is sent by the bus, "Answered" replies
// over the socket to a request that came by the bus.
constexpr const char* kLinkInterface = "org.ulmar.tevrol.DirectLink";
constexpr const char* kOpen = "Open";
constexpr const char* kSwitched = "Switched";
constexpr const char* kAnswered = "Answered";
// The formal reply by the bus to what is answered by the link. It tells the requester nothing.
constexpr const char* kAnsweredDirectly = "org.ulmar.tevrol.Error.AnsweredDirectly";

// The bus driver.
constexpr const char* kDriver = "org.freedesktop.DBus";
constexpr const char* kDriverPath = "/org/freedesktop/DBus";
// For RequestName: whoever owns the name keeps it, and nobody waits for it.
constexpr unsigned kDoNotQueue = 4;
// The reply of RequestName to who owns the name now.
constexpr unsigned kPrimaryOwner = 1;
constexpr unsigned kAlreadyOwner = 4;

inline std::string OwnerChangeMatch(const std::string& name) {
    return std::string("type='signal',sender='") + kDriver + "',path='" + kDriverPath +
           "',interface='" + kDriver + "',member='NameOwnerChanged',arg0='" + name + "'";
}

}  // namespace tevrol
