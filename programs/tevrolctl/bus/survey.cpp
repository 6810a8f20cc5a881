// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/survey.h"

#include <unistd.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <utility>

#include "devkit/glib.h"
#include "devkit/loop.h"
#include "devkit/outside-text.h"
#include "programs/common/names.h"

namespace programs {
namespace {

constexpr std::chrono::milliseconds kPatience(1000);
constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";

using NodeInfo = std::unique_ptr<GDBusNodeInfo, decltype(&g_dbus_node_info_unref)>;

// Of the answer to Introspect. Null when there is none.
NodeInfo NodeOf(GVariant* answer) {
    const gchar* xml = "";
    if (answer != nullptr) {
        g_variant_get(answer, "(&s)", &xml);
    }
    return {g_dbus_node_info_new_for_xml(xml, nullptr), g_dbus_node_info_unref};
}

std::string SignatureOf(GDBusArgInfo** arguments) {
    std::string signature;
    for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
        signature += (*arguments)->signature;
    }
    return signature;
}

bool IsFromBytesToBytes(const GDBusMethodInfo& method) {
    return SignatureOf(method.in_args) == "ay" && SignatureOf(method.out_args) == "ay";
}

// Calls `take` with each text of an array of them.
void ForEachText(GVariant* texts, const std::function<void(const std::string&)>& take) {
    GVariantIter iterator;
    g_variant_iter_init(&iterator, texts);
    const gchar* text = nullptr;
    while (g_variant_iter_next(&iterator, "&s", &text) != FALSE) {
        take(text);
    }
}

// The value of `key` in a match rule; empty without one.
std::string ValueIn(const std::string& rule, const std::string& key) {
    const std::size_t begin = rule.find(key + "='");
    if (begin == std::string::npos) {
        return {};
    }
    const std::size_t value = begin + key.size() + 2;
    return rule.substr(value, rule.find('\'', value) - value);
}

}  // namespace

std::string Describe(const Neighbour& neighbour) {
    return neighbour.pid == 0 ? neighbour.name
                              : neighbour.name + " (" + DescribeProcess(neighbour.pid) + ")";
}

// A question to a neighbour for an object, while it is under way.
struct Survey::Question {
    int* unanswered;
    Neighbour* whom;
    std::function<void(GVariant*)> take;  // null where there is no answer
};

Survey::Survey(std::string channel)
    : m_channel(std::move(channel)), m_connection(PrivateConnection()) {
    ListNeighbours();
    AskForObjects();
    ReadListeners();
    m_clients = ReadQueue(kClient);
    m_services = ReadQueue(kService);
}

Variant Survey::Ask(const std::string& destination, const std::string& path,
                    const std::string& interface_name, const char* method,
                    GVariant* parameters) const {
    return Variant(g_dbus_connection_call_sync(
        m_connection.get(), destination.c_str(), path.c_str(), interface_name.c_str(), method,
        parameters, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<gint>(kPatience.count()),
        nullptr, nullptr));
}

void Survey::ListNeighbours() {
    const Variant names = Ask(kDriver, kDriverPath, kDriver, "ListNames", nullptr);
    if (!names) {
        return;
    }
    const Variant list(g_variant_get_child_value(names.get(), 0));
    ForEachText(list.get(), [this](const std::string& name) {
        if (name.front() != ':') {
            return;
        }
        const Variant answer = Ask(kDriver, kDriverPath, kDriver, "GetConnectionUnixProcessID",
                                   g_variant_new("(s)", name.c_str()));
        Neighbour neighbour;
        neighbour.name = name;
        if (answer) {
            guint32 pid = 0;
            g_variant_get(answer.get(), "(u)", &pid);
            neighbour.pid = static_cast<pid_t>(pid);
            neighbour.process = LookAtProcess(neighbour.pid);
        }
        if (neighbour.pid != getpid()) {
            m_all.push_back(std::move(neighbour));
        }
    });
}

// All at once: who is stopped would keep the others waiting.
void Survey::AskForObjects() {
    int unanswered = 0;
    const auto ask = [&](Neighbour& whom, const std::string& path,
                         std::function<void(GVariant*)> take) {
        ++unanswered;
        const auto on_answer = [](GObject* source, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Question> question(static_cast<Question*>(data));
            GError* error = nullptr;
            const Variant answer(
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
            question->whom->answers =
                question->whom->answers &&
                g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) == FALSE;
            g_clear_error(&error);
            question->take(answer.get());
            --*question->unanswered;
        };
        g_dbus_connection_call(m_connection.get(), whom.name.c_str(), path.c_str(), kIntrospectable,
                               "Introspect", nullptr, G_VARIANT_TYPE("(s)"),
                               G_DBUS_CALL_FLAGS_NO_AUTO_START,
                               static_cast<gint>(kPatience.count()), nullptr, on_answer,
                               new Question{&unanswered, &whom, std::move(take)});
    };
    const std::string path = ObjectPath(m_channel);
    const std::string folder = path.substr(0, path.rfind('/'));
    for (Neighbour& neighbour : m_all) {
        ask(neighbour, path, [&neighbour](GVariant* answer) {
            const NodeInfo node = NodeOf(answer);
            neighbour.exports =
                node && g_dbus_node_info_lookup_interface(node.get(), kInterface) != nullptr;
        });
        ask(neighbour, folder, [&neighbour](GVariant* answer) {
            const NodeInfo node = NodeOf(answer);
            for (GDBusNodeInfo** child = node ? node->nodes : nullptr;
                 child != nullptr && *child != nullptr; ++child) {
                neighbour.channels.insert(tevrol::Printable((*child)->path));
            }
        });
    }
    // Each question ends by itself, at the latest when its time is over.
    tevrol::IterateUntil([&] { return unanswered == 0; }, 10 * kPatience);
}

void Survey::ReadListeners() {
    const Variant answer =
        Ask(kDriver, kDriverPath, "org.freedesktop.DBus.Debug.Stats", "GetAllMatchRules", nullptr);
    if (!answer || g_variant_is_of_type(answer.get(), G_VARIANT_TYPE("(a{sas})")) == FALSE) {
        return;
    }
    m_knows_listeners = true;
    const Variant all(g_variant_get_child_value(answer.get(), 0));
    for (Neighbour& neighbour : m_all) {
        const Variant rules(
            g_variant_lookup_value(all.get(), neighbour.name.c_str(), G_VARIANT_TYPE("as")));
        if (!rules) {
            continue;
        }
        ForEachText(rules.get(), [&](const std::string& rule) {
            const std::string name = ValueIn(rule, "arg0");
            neighbour.is_service |= name == HandshakeName(m_channel, kClient, kSyn);
            neighbour.is_client |= name == HandshakeName(m_channel, kService, kSyn);
            if (name.rfind(':', 0) == 0) {
                neighbour.watched.insert(name);
            }
        });
    }
}

std::vector<std::string> Survey::ReadQueue(const char* role) const {
    std::vector<std::string> queue;
    const Variant answer = Ask(kDriver, kDriverPath, kDriver, "ListQueuedOwners",
                               g_variant_new("(s)", ActiveName(m_channel, role).c_str()));
    if (answer) {
        const Variant list(g_variant_get_child_value(answer.get(), 0));
        ForEachText(list.get(), [&](const std::string& name) { queue.push_back(name); });
    }
    return queue;
}

const Neighbour* Survey::Find(const std::string& unique_name) const {
    const auto found = std::find_if(m_all.begin(), m_all.end(), [&](const Neighbour& neighbour) {
        return neighbour.name == unique_name;
    });
    return found == m_all.end() ? nullptr : &*found;
}

const std::vector<std::string>& Survey::Queue(const std::string& role) const {
    return role == kClient ? m_clients : m_services;
}

std::vector<const Neighbour*> Survey::Ends(const std::string& role) const {
    const auto& queue = Queue(role);
    std::vector<const Neighbour*> ends;
    for (const Neighbour& neighbour : m_all) {
        const bool listens = role == kClient ? neighbour.is_client : neighbour.is_service;
        if (listens || std::find(queue.begin(), queue.end(), neighbour.name) != queue.end()) {
            ends.push_back(&neighbour);
        }
    }
    return ends;
}

std::vector<const Neighbour*> Survey::Exporters() const {
    std::vector<const Neighbour*> exporters;
    for (const Neighbour& neighbour : m_all) {
        if (neighbour.exports) {
            exporters.push_back(&neighbour);
        }
    }
    return exporters;
}

std::vector<std::string> Survey::LooksLikeAnEnd(const std::string& unique_name) const {
    constexpr std::size_t kMostObjects = 64;
    std::vector<std::string> found;
    std::deque<std::string> paths = {"/"};
    for (std::size_t asked = 0; asked < kMostObjects && !paths.empty(); ++asked) {
        const std::string path = paths.front();
        paths.pop_front();
        const Variant answer = Ask(unique_name, path, kIntrospectable, "Introspect", nullptr);
        if (!answer || g_variant_is_of_type(answer.get(), G_VARIANT_TYPE("(s)")) == FALSE) {
            break;
        }
        const NodeInfo node = NodeOf(answer.get());
        for (GDBusInterfaceInfo** each = node ? node->interfaces : nullptr;
             each != nullptr && *each != nullptr; ++each) {
            for (GDBusMethodInfo** method = (*each)->methods;
                 method != nullptr && *method != nullptr; ++method) {
                if (IsFromBytesToBytes(**method)) {
                    found.push_back(tevrol::Printable(std::string((*method)->name) + " of " +
                                                      (*each)->name + " at " + path));
                }
            }
        }
        for (GDBusNodeInfo** child = node ? node->nodes : nullptr;
             child != nullptr && *child != nullptr; ++child) {
            paths.push_back((path == "/" ? path : path + "/") + (*child)->path);
        }
    }
    return found;
}

}  // namespace programs
