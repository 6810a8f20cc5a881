// SPDX-License-Identifier: MIT
// A peer on the bus that keeps to no protocol: it announces what it likes and signals whom it
// likes.
#pragma once

#include <string>

#include "tests/support/channel-test.h"

class Stranger {
public:
    // Connects to the bus at `address`: a connection, and so a peer, of its own.
    explicit Stranger(const std::string& address);
    // Leaves the bus.
    ~Stranger();
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

    std::string UniqueName() const;

    // Own names of the bus, as a partner's announcement does in one go.
    void Acquire(const std::string& name);
    void Release(const std::string& name);
    void Pulse(const std::string& name);

    // Sends a signal to `destination`, or to all if that is null, and waits until the bus has
    // passed it on.
    void Emit(const char* destination, const char* path, const char* interface_name,
              const char* member, GVariant* body);

private:
    void Ask(const char* method, GVariant* parameters);

    const Connection m_connection;
};
