// SPDX-License-Identifier: MIT
// A capture of messages as Wireshark, Bustle and tcpdump read it: pcap, with whole D-Bus messages
// as packets.
#pragma once

#include <gio/gio.h>

#include <fstream>
#include <string>

namespace programs {

class Capture {
public:
    // Throws Failure when the file cannot be written.
    explicit Capture(std::string path);
    // Adds the message that passed the bus at `time`, microseconds since the epoch.
    void Write(GDBusMessage* message, gint64 time);

private:
    void Put(guint32 number);
    void Flush();

    const std::string m_path;
    std::ofstream m_file;
};

}  // namespace programs
