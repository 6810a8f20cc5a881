// A client end by hand: every step of the protocol by itself, also the wrong ones, which the
// library never takes.
#pragma once

#include <gio/gio.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "partner/payload.h"
#include "tools/subprocess.h"

namespace tevrolctl {

constexpr guint32 kPrimaryOwner = 1;

struct VariantUnref {
    void operator()(GVariant* value) const {
        g_variant_unref(value);
    }
};
using Variant = std::unique_ptr<GVariant, VariantUnref>;

// The answer to a call.
struct Answer {
    Variant value;           // null when it failed
    std::string error_name;  // of the D-Bus error, where it was one
    std::string error;
};

// The floating body "(ay)" of a message.
GVariant* PayloadBody(const tevrol::Bytes& payload);

class RawEnd {
public:
    // On a connection of its own. Throws Failure.
    explicit RawEnd(std::string channel);
    ~RawEnd();
    RawEnd(const RawEnd&) = delete;
    RawEnd& operator=(const RawEnd&) = delete;

    std::string UniqueName() const;
    // Leaves the bus as a process does that ends.
    void Leave();

    Answer CallDriver(const char* method, GVariant* parameters);
    // RequestName of its own name of that stage, without queueing. The code, 0 when it failed.
    guint32 Acquire(const char* stage);
    void Release(const char* stage);
    // Both: the announcement. False when the name could not be acquired.
    bool Announce(const char* stage);

    Answer Call(const std::string& destination, const char* method, GVariant* body,
                std::chrono::milliseconds limit);
    void Notify(const std::string& destination, GVariant* body);

    // The announcements of the service end, from the beginning.
    struct Heard {
        std::string stage;
        std::string announcer;
    };
    const std::vector<Heard>& All() const {
        return m_heard;
    }
    // Runs the loop until the service end announces `stage`, counting from the `since`th
    // announcement on; the announcer.
    std::optional<std::string> Await(const char* stage, std::size_t since,
                                     std::chrono::milliseconds limit);
    // Runs the loop until `process` has left the bus.
    bool AwaitLoss(const std::string& process, std::chrono::milliseconds limit);
    // Takes in what the bus has delivered so far.
    void Settle();

private:
    static void OnOwnerChange(GDBusConnection* connection, const gchar* sender, const gchar* path,
                              const gchar* interface_name, const gchar* signal,
                              GVariant* parameters, gpointer self);

    const std::string m_channel;
    std::unique_ptr<GDBusConnection, tevrol::GObjectUnref> m_connection;
    guint m_subscription = 0;
    std::vector<Heard> m_heard;
    std::vector<std::string> m_left;
};

}  // namespace tevrolctl
