// SPDX-License-Identifier: MIT
// Messages of sd-bus, as every end on it reads them.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "tevrol/channel.h"

namespace tevrol {

struct MessageUnref {
    void operator()(sd_bus_message* message) const {
        sd_bus_message_unref(message);
    }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

// The array of bytes at the current place of a message.
inline std::optional<Bytes> ReadArray(sd_bus_message* message) {
    const void* data = nullptr;
    std::size_t size = 0;
    if (sd_bus_message_read_array(message, 'y', &data, &size) < 0) {
        return std::nullopt;
    }
    const char* bytes = static_cast<const char*>(data);
    return size == 0 ? Bytes() : Bytes(bytes, bytes + size);
}

// The payload of a message; nothing where its body is anything else.
inline std::optional<Bytes> ReadPayload(sd_bus_message* message) {
    return sd_bus_message_has_signature(message, "ay") > 0 ? ReadArray(message) : std::nullopt;
}

// What a NameOwnerChanged tells: an owner is a unique name, or empty for nobody.
struct OwnerChange {
    std::string name;
    std::string before;
    std::string now;
};
// Nothing where it cannot be read.
inline std::optional<OwnerChange> ReadOwnerChange(sd_bus_message* signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    if (sd_bus_message_read(signal, "sss", &name, &before, &now) < 0) {
        return std::nullopt;
    }
    return OwnerChange{name, before, now};
}

}  // namespace tevrol
