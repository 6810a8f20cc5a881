// What a monitor sees, in the channel's own terms. A recording is a file of events, one JSON object
// a line.
#pragma once

#include <glib.h>

#include <string>

#include "partner/payload.h"

namespace tevrolctl {

struct Event {
    // "owned": a handshake name was acquired, "released": given back, which is the announcement,
    // "refused": it could not be acquired, "bound", "ready", "request", "reply", "error" (instead
    // of a reply), "notification", "malformed" (a message of another type), "lost".
    std::string kind;
    gint64 time = 0;  // microseconds since the epoch
    std::string channel;
    std::string from;     // unique name of the process that did it
    std::string to;       // the other process, where one is known
    std::string role;     // of `from`: CLIENT or SERVICE, where known
    std::string stage;    // SYN, SYN_ACK or ACK
    gint64 duration = 0;  // microseconds: a name held, a handshake made, a reply awaited
    std::string text;     // what went wrong
    tevrol::Bytes payload;
};

// "owned", "announces CLIENT_SYN", "request": what happened, without process, time and payload.
std::string Label(const Event& event);
bool HasPayload(const Event& event);

std::string ToJson(const Event& event);
// Throws Failure with the reason when `line` is no event.
Event FromJson(const std::string& line);

}  // namespace tevrolctl
