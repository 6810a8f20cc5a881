// SPDX-License-Identifier: MIT
// tevrolctl notify: one notification.
#include "programs/common/bus.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/tevrolctl/commands/commands.h"
#include "programs/tevrolctl/commands/one-shot.h"

namespace programs {
namespace {

constexpr const char* kDetails =
    "DATA is text, hex: and digits, file: and a path, text: and text as it is, or - for all of\n"
    "standard input.\n"
    "Exit status 0 means that the bus has taken the notification; nothing tells whether the\n"
    "partner has understood it.\n\n"
    "Examples:\n"
    "  tevrolctl notify demo 'the door is open'\n"
    "  tevrolctl notify --wait 30 demo - < picture.jpg";

// The bus closes the connection of a sender whose message is too large. An answer of the bus proves
// that it has not.
void RequireTaken(GDBusConnection* bus) {
    GError* error = nullptr;
    GVariant* reply =
        g_dbus_connection_call_sync(bus, kDriver, kDriverPath, kDriver, "GetId", nullptr, nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply == nullptr) {
        throw Failure(kExitFailed,
                      "the bus did not take the notification: " + tevrol::TakeMessage(error));
    }
    g_variant_unref(reply);
}

}  // namespace

int Notify(int argc, char** argv) {
    OneShot shot("tevrolctl notify", "Sends one notification.", kDetails, argc, argv);
    const auto end = shot.AwaitPartner();
    end->Notify(shot.Payload());
    end->Flush();
    RequireTaken(SystemBus());
    return kExitOk;
}

}  // namespace programs
