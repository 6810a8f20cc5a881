// SPDX-License-Identifier: MIT
// What a monitor sees, in the channel's own terms. A recording is a file of events, one JSON object
// a line.
#pragma once

#include <glib.h>

#include <string>

#include "devkit/payload.h"

namespace programs {

struct Event {
    enum class Kind {
        Owned,     // a handshake name was acquired
        Released,  // and given back, which is the announcement
        Refused,   // it could not be acquired
        Bound,
        Ready,
        Request,
        Reply,
        Error,  // instead of a reply
        Notification,
        Malformed,  // a message of another type or name
        Lost,
        Present,  // was on the bus when the monitor started
        Active,   // owns the name of the one active end of its role
        Standby,  // waits for that name
        Direct,   // what becomes of the link beside the bus
        Waiting,  // is bound and not ready
    };
    Kind kind = Kind::Owned;
    gint64 time = 0;  // microseconds since the epoch
    std::string channel;
    std::string from;       // unique name of the process that did it
    std::string to;         // the other process, where one is known
    std::string role;       // of `from`: CLIENT or SERVICE, where known
    std::string stage;      // SYN, SYN_ACK or ACK
    gint64 duration = 0;    // microseconds: a name held, a handshake made, a reply awaited
    gint64 serial = 0;      // of the request, as its caller has numbered it
    std::string text;       // what went wrong, or what there is to say
    tevrol::Bytes payload;  // or its beginning
    std::size_t size = 0;   // of the whole payload
};

// "owned", as in a recording.
const char* ToString(Event::Kind kind);
bool IsKind(const std::string& text);
// "owns CLIENT_SYN", "announces CLIENT_SYN", "request": what happened, without process, time and
// payload.
std::string Label(const Event& event);
bool HasPayload(const Event& event);

std::string ToJson(const Event& event);
// Throws Failure with the reason when `line` is no event.
Event FromJson(const std::string& line);

}  // namespace programs
