// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/capture.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "programs/common/failure.h"

namespace programs {
namespace {

constexpr guint32 kMagic = 0xa1b2c3d4;  // microseconds, in the byte order of this machine
constexpr guint32 kVersion = G_BYTE_ORDER == G_LITTLE_ENDIAN ? 0x00040002 : 0x00020004;  // 2.4
constexpr guint32 kLargest = 128 * 1024 * 1024;  // message on any bus
constexpr guint32 kDBus = 231;                   // the type of the packets

}  // namespace

Capture::Capture(std::string path) : m_path(std::move(path)), m_file(m_path, std::ios::binary) {
    // The two zeros: times are in UTC, and their accuracy is not told.
    for (const guint32 number : {kMagic, kVersion, 0U, 0U, kLargest, kDBus}) {
        Put(number);
    }
    Flush();
}

void Capture::Put(guint32 number) {
    m_file.write(reinterpret_cast<const char*>(&number), sizeof number);
}

void Capture::Flush() {
    m_file.flush();
    if (!m_file) {
        throw Failure(kExitFailed, "cannot write " + m_path + ": " + strerror(errno));
    }
}

void Capture::Write(GDBusMessage* message, gint64 time) {
    gsize size = 0;
    const std::unique_ptr<guchar, decltype(&g_free)> bytes(
        g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr),
        g_free);
    if (!bytes) {
        return;  // what GDBus has read it can write, if there is memory
    }
    Put(static_cast<guint32>(time / G_USEC_PER_SEC));
    Put(static_cast<guint32>(time % G_USEC_PER_SEC));
    Put(static_cast<guint32>(size));
    Put(static_cast<guint32>(size));
    m_file.write(reinterpret_cast<const char*>(bytes.get()), static_cast<std::streamsize>(size));
    Flush();
}

}  // namespace programs
