// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/census.h"

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

#include "devkit/loop.h"
#include "devkit/outside-text.h"
#include "programs/common/bus.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"

namespace programs {
namespace {

constexpr gint kBusLimitMs = 5000;
constexpr gint kProcessLimitMs = 500;

using Value = std::unique_ptr<GVariant, tevrol::GVariantUnref>;

class Census {
public:
    std::vector<Event> Take() {
        const auto names = Texts("ListNames", "");
        for (const std::string& name : names) {
            if (name.front() != ':') {
                TakeName(name);
            } else if (name != g_dbus_connection_get_unique_name(m_connection.get())) {
                AskForObjects(name);
            }
        }
        tevrol::IterateUntil([this] { return m_asked == 0; },
                             std::chrono::milliseconds(2 * kProcessLimitMs));
        g_cancellable_cancel(m_cancellable.get());
        tevrol::IterateUntil([this] { return m_asked == 0; });
        return std::move(m_events);
    }

private:
    struct Question {
        Census* census;
        std::string process;
    };

    // What a method of the driver answers; null where it answers with an error.
    Value Call(const char* method, const std::string& name) {
        GError* error = nullptr;
        Value value(g_dbus_connection_call_sync(
            m_connection.get(), kDriver, kDriverPath, kDriver, method,
            name.empty() ? nullptr : g_variant_new("(s)", name.c_str()), nullptr,
            G_DBUS_CALL_FLAGS_NONE, kBusLimitMs, nullptr, &error));
        const bool silent = error != nullptr && g_dbus_error_is_remote_error(error) == FALSE;
        const std::string reason = error == nullptr ? "" : tevrol::TakeMessage(error);
        if (silent) {
            throw Failure(kExitNoBus, "the bus does not answer: " + tevrol::Printable(reason));
        }
        return value;
    }

    std::vector<std::string> Texts(const char* method, const std::string& name) {
        std::vector<std::string> texts;
        const Value answer = Call(method, name);
        if (answer) {
            const Value list(g_variant_get_child_value(answer.get(), 0));
            for (gsize i = 0; i < g_variant_n_children(list.get()); ++i) {
                const gchar* text = nullptr;
                g_variant_get_child(list.get(), i, "&s", &text);
                texts.emplace_back(text);
            }
        }
        return texts;
    }

    void TakeName(const std::string& name) {
        const auto handshake = ParseHandshakeName(name);
        const auto role = handshake ? handshake : ParseRoleName(name);
        if (!role) {
            return;
        }
        bool first = true;
        for (const std::string& process : Texts("ListQueuedOwners", name)) {
            Add(handshake ? Event::Kind::Owned
                : first   ? Event::Kind::Active
                          : Event::Kind::Standby,
                process, *role);
            first = false;
        }
    }

    void Add(Event::Kind kind, const std::string& process, const Announcement& where) {
        Event event;
        event.kind = kind;
        event.time = g_get_real_time();
        event.channel = where.channel;
        event.from = process;
        event.role = where.role;
        event.stage = where.stage;
        event.text = Describe(process);
        m_events.push_back(event);
    }

    // "minimal, process 17"
    std::string Describe(const std::string& process) {
        const Value answer = Call("GetConnectionUnixProcessID", process);
        if (!answer) {
            return {};
        }
        guint32 pid = 0;
        g_variant_get(answer.get(), "(u)", &pid);
        std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
        std::string command;
        std::getline(file, command);
        return command + (command.empty() ? "process " : ", process ") + std::to_string(pid);
    }

    // The objects below the path of all channels are called after them.
    void AskForObjects(const std::string& process) {
        std::string path = ObjectPath("");
        path.pop_back();
        ++m_asked;
        g_dbus_connection_call(m_connection.get(), process.c_str(), path.c_str(),
                               "org.freedesktop.DBus.Introspectable", "Introspect", nullptr,
                               G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                               kProcessLimitMs, m_cancellable.get(), OnObjects,
                               new Question{this, process});
    }

    static void OnObjects(GObject* connection, GAsyncResult* result, gpointer data) {
        const std::unique_ptr<Question> question(static_cast<Question*>(data));
        const Value answer(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr));
        --question->census->m_asked;
        if (answer) {
            const gchar* xml = nullptr;
            g_variant_get(answer.get(), "(&s)", &xml);
            question->census->TakeObjects(question->process, xml);
        }
    }

    void TakeObjects(const std::string& process, const gchar* xml) {
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, nullptr);
        if (node == nullptr) {
            return;
        }
        for (GDBusNodeInfo** child = node->nodes; child != nullptr && *child != nullptr; ++child) {
            const std::string channel = (*child)->path == nullptr ? "" : (*child)->path;
            if (NameProblem(channel).empty() && !IsListed(process, channel)) {
                Add(Event::Kind::Present, process, {channel, "", ""});
            }
        }
        g_dbus_node_info_unref(node);
    }

    // As an active or standing-by end, which tells more.
    bool IsListed(const std::string& process, const std::string& channel) const {
        return std::any_of(m_events.begin(), m_events.end(), [&](const Event& event) {
            return event.from == process && event.channel == channel &&
                   event.kind != Event::Kind::Owned;
        });
    }

    const Connection m_connection = PrivateConnection();
    const std::unique_ptr<GCancellable, tevrol::GObjectUnref> m_cancellable{g_cancellable_new()};
    int m_asked = 0;
    std::vector<Event> m_events;
};

}  // namespace

std::vector<Event> TakeCensus() {
    return Census().Take();
}

}  // namespace programs
