// SPDX-License-Identifier: MIT
// Who is on the bus, and what each has to do with a channel, as far as it can be looked at: the
// objects that a process exports, the state of the process and, where the bus tells them, the
// signals that it listens for.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

#include "programs/common/bus.h"
#include "programs/common/process.h"

namespace programs {

// A connection to the bus, another process's.
struct Neighbour {
    std::string name;  // unique
    pid_t pid = 0;
    Process process;
    bool answers = true;             // to a question for its objects
    bool exports = false;            // the channel's object, with its interface
    std::set<std::string> channels;  // of which it exports objects, whatever their names
    // By what it listens for; unknown where the bus does not tell.
    bool is_service = false;
    bool is_client = false;
    std::set<std::string> watched;  // the unique names whose loss it would hear of
};

// "NAME (PROCESS, process PID)", or the name alone where the process is not known.
std::string Describe(const Neighbour& neighbour);

class Survey {
public:
    // Asks everybody, for a second at most. Throws Failure.
    explicit Survey(std::string channel);

    const std::vector<Neighbour>& All() const {
        return m_all;
    }
    // Whether the bus tells who listens for what. It does so to root, where it is built for it.
    bool KnowsListeners() const {
        return m_knows_listeners;
    }
    // Null when there is none of that name.
    const Neighbour* Find(const std::string& unique_name) const;
    // The ends of that role ("SERVICE" or "CLIENT"), as they listen, or own the active name.
    std::vector<const Neighbour*> Ends(const std::string& role) const;
    // Those that export the channel's object.
    std::vector<const Neighbour*> Exporters() const;
    // The owner of the active name of a role and whoever waits for it, in order.
    const std::vector<std::string>& Queue(const std::string& role) const;
    // Where `unique_name` exports what looks like an end of a channel: "METHOD of INTERFACE at
    // PATH" for each method from bytes to bytes.
    std::vector<std::string> LooksLikeAnEnd(const std::string& unique_name) const;

private:
    struct Question;

    Variant Ask(const std::string& destination, const std::string& path,
                const std::string& interface_name, const char* method, GVariant* parameters) const;
    void ListNeighbours();
    void AskForObjects();
    void ReadListeners();
    std::vector<std::string> ReadQueue(const char* role) const;

    const std::string m_channel;
    const Connection m_connection;
    std::vector<Neighbour> m_all;
    bool m_knows_listeners = false;
    std::vector<std::string> m_clients;
    std::vector<std::string> m_services;
};

}  // namespace programs
