// tevrolctl notify.
#include "tools/tevrolctl/commands.h"
#include "tools/tevrolctl/names.h"
#include "tools/tevrolctl/one-shot.h"

namespace tevrolctl {
namespace {

constexpr const char* kDetails =
    "DATA is text, hex: and digits, file: and a path, or - for all of standard input.\n"
    "Exit status 0 means that the bus has taken the notification; nothing tells whether the\n"
    "partner has understood it.\n\n"
    "Examples:\n"
    "  tevrolctl notify demo 'the door is open'\n"
    "  tevrolctl notify --wait 30 demo - < picture.jpg";

// A message over its limit makes the bus close the connection: an answer proves the opposite.
void RequireTaken(GDBusConnection* bus) {
    GError* error = nullptr;
    GVariant* reply =
        g_dbus_connection_call_sync(bus, kDriver, kDriverPath, kDriver, "GetId", nullptr, nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply == nullptr) {
        throw Failure(kExitFailed, "the bus did not take the notification: " + TakeMessage(error));
    }
    g_variant_unref(reply);
}

}  // namespace

int Notify(int argc, char** argv) {
    OneShot shot("notify", "Sends one notification.", kDetails, argc, argv);
    ChannelEnd& channel = shot.AwaitPartner();
    channel.Notify(shot.Payload());
    RequireTaken(SystemBus());
    return kExitOk;
}

}  // namespace tevrolctl
