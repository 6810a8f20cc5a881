// SPDX-License-Identifier: MIT
// Preloaded into the bus: it does not learn a process's groups from the kernel. Then dbus-daemon
// looks the user up in the database, as versions before 1.13.4 always do.
#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" int getsockopt(int socket, int level, int name, void* value,
                          socklen_t* length) noexcept {
    if (level == SOL_SOCKET && name == SO_PEERGROUPS) {
        errno = ENOPROTOOPT;
        return -1;
    }
    using Function = int (*)(int, int, int, void*, socklen_t*);
    static const auto original = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getsockopt"));
    return original(socket, level, name, value, length);
}
