// SPDX-License-Identifier: MIT
// tevrol-demo: an application built on the channel and its partner, a process of its own, find each
// other on a private bus and talk. Tells what happens as it happens, and checks it.
#include <gio/gio.h>
#include <ipc/tevrol-dbus-remote.h>
#include <platform/dlog.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "devkit/loop.h"
#include "devkit/partner-process.h"
#include "devkit/payload.h"
#include "devkit/private-bus.h"
#include "examples/demo.h"

namespace {

using tevrol::Bytes;
using tevrol::Describe;
using tevrol::IterateUntil;
using namespace demo;

constexpr const char* kChannelName = "demo";
constexpr std::size_t kWhole = std::size_t{1} << 16;  // describes payloads without leaving any out

bool g_verbose = false;

std::string Shortened(const std::string& line) {
    constexpr std::size_t kWidth = 76;
    return line.size() <= kWidth ? line : line.substr(0, kWidth - 3) + "...";
}

// ---- The application ----

class Application : public TevrolDbusRemote {
public:
    Application() : TevrolDbusRemote(kChannelName) {}

    std::vector<char> HandleMessage(std::vector<char>& data) override {
        Tell("application", "request: " + Describe(data, 8) + "; answers them reversed");
        return Reversed(data);
    }

    void HandleNotification(std::vector<char>& data) override {
        Tell("application", "notification: " + Describe(data));
        notifications.push_back(data);
    }

    void HandleConnectionReady(bool state, const std::string& partner) override {
        Tell("application", (state ? "ready: partner " : "lost: partner ") + partner);
        bound_to = state ? partner : "";
    }

    std::string bound_to;
    std::vector<Bytes> notifications;
};

// ---- The partner, a process of its own ----

class ToldPartner {
public:
    explicit ToldPartner(int number)
        : m_name("partner " + std::to_string(number)),
          m_process(TEVROL_PARTNER_PROGRAM, kChannelName) {}

    // Tells what it has printed since the last call.
    void TellNews() {
        const auto lines = m_process.Lines();
        for (; m_told < lines.size(); ++m_told) {
            Tell(m_name, Shortened(lines[m_told]));
        }
    }

    // Runs the loop until the partner has printed a line that begins with `beginning`, and returns
    // the rest of that line.
    std::string Await(const std::string& beginning) {
        std::optional<std::string> rest;
        const auto came = [&] {
            TellNews();
            rest = m_process.Find(beginning);
            return rest.has_value();
        };
        Check(IterateUntil(came, kPatience), m_name + " did not report \"" + beginning + "\"");
        return *rest;
    }

    void Command(const std::string& line) {
        m_process.Command(line);
    }
    void Kill() {
        m_process.Kill();
    }
    const std::string& Name() const {
        return m_name;
    }

private:
    const std::string m_name;
    tevrol::PartnerProcess m_process;
    std::size_t m_told = 0;
};

// ---- The scenes ----

void AwaitHandshake(Application& application, ToldPartner& partner, Totals& totals) {
    const std::string unique_name = partner.Await("joined ");
    partner.Await("ready ");
    Check(IterateUntil([&] { return application.IsConnectionReady(); }, kPatience),
          "the application did not become ready");
    Check(application.bound_to == unique_name, "the application is bound to somebody else");
    ++totals.handshakes;
}

void RequestBothWays(Application& application, ToldPartner& partner, Totals& totals) {
    Bytes request = tevrol::AllByteValues();
    Tell("application", "requests an echo of all 256 byte values");
    const Bytes reply = application.SendMessage(request);
    partner.Await("request from ");
    Check(reply == request, "the partner's reply differs from the request");
    Tell("application", "reply: " + Describe(reply, 8) + ": all equal");
    ++totals.requests;

    Tell(partner.Name(), "requests the reverse of all 256 byte values");
    partner.Command("request hex:" + tevrol::ToHex(request));
    Check(partner.Await("reply: ") == Describe(Reversed(request), kWhole),
          "the application's reply differs from the request reversed");
    Tell(partner.Name(), "all equal");
    ++totals.requests;
}

void NotifyBothWays(Application& application, ToldPartner& partner, Totals& totals) {
    Bytes note = tevrol::ToBytes("the door is open");
    Tell("application", "notifies: " + Describe(note));
    application.SendNotification(note);
    const std::string heard = partner.Await("notification from ");
    Check(heard.find(Describe(note)) != std::string::npos, "the partner heard something else");
    ++totals.notifications;

    application.notifications.clear();
    partner.Command("notify the light is on");
    Check(IterateUntil([&] { return !application.notifications.empty(); }, kPatience),
          "the application heard no notification");
    Check(application.notifications.front() == tevrol::ToBytes("the light is on"),
          "the application heard something else");
    partner.TellNews();
    ++totals.notifications;
}

void LosePartner(Application& application, ToldPartner& partner, Totals& totals) {
    Tell(partner.Name(), "is killed by SIGKILL");
    partner.Kill();
    Check(IterateUntil([&] { return !application.IsConnectionReady(); }, kPatience),
          "the loss of the partner was not noticed");
    Check(application.bound_to.empty(), "the application was not told of the loss");
    ++totals.losses;
}

Totals Play() {
    Totals totals;
    const tevrol::PrivateBus bus;
    Tell("bus", "a private system bus is up");

    Headline("The partner is running when the application starts: SYN, SYN_ACK, ACK");
    auto partner = std::make_unique<ToldPartner>(1);
    partner->Await("announced SYN");
    Tell("application", "starts and announces its SYN");
    // Never destroyed, as its registrations at the bus outlive it: it ends with the process.
    auto& application = *new Application;
    AwaitHandshake(application, *partner, totals);

    Headline("Requests and notifications, both ways");
    RequestBothWays(application, *partner, totals);
    NotifyBothWays(application, *partner, totals);

    Headline("The partner dies");
    LosePartner(application, *partner, totals);

    Headline("A new partner starts second: it opens with SYN, and the answer is SYN_ACK");
    partner = std::make_unique<ToldPartner>(2);
    AwaitHandshake(application, *partner, totals);
    RequestBothWays(application, *partner, totals);
    NotifyBothWays(application, *partner, totals);

    PlayChannels(totals);
    return totals;
}

}  // namespace

// The channel's log lines come here instead of to the device's log.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int /*log_id*/, int priority, const char* /*tag*/, const char* format,
                            ...) {
    if (!g_verbose) {
        return 0;
    }
    va_list args;
    va_start(args, format);
    gchar* text = g_strdup_vprintf(format, args);
    va_end(args);
    TellLog((priority == DLOG_ERROR ? "E " : "D ") + std::string(g_strchomp(text)));
    g_free(text);
    return 0;
}

int main(int argc, char** argv) {
    gboolean verbose = FALSE;
    const GOptionEntry options[] = {{"verbose", 'v', 0, G_OPTION_ARG_NONE, &verbose,
                                     "Show the channel's own log lines", nullptr},
                                    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
    const std::unique_ptr<GOptionContext, decltype(&g_option_context_free)> context(
        g_option_context_new("- two processes find each other on a bus and talk"),
        g_option_context_free);
    g_option_context_add_main_entries(context.get(), options, nullptr);
    GError* error = nullptr;
    if (g_option_context_parse(context.get(), &argc, &argv, &error) == FALSE) {
        fprintf(stderr, "tevrol-demo: %s\n", error->message);
        g_error_free(error);
        return 2;
    }
    g_verbose = verbose != FALSE;

    try {
        const Totals totals = Play();
        printf(
            "\ndemo: %d handshakes, %d requests, %d notifications, %d losses, all as expected, in "
            "%.2f s\n",
            totals.handshakes, totals.requests, totals.notifications, totals.losses, Seconds());
        return 0;
    } catch (const std::runtime_error& failure) {
        fprintf(stderr, "\ndemo failed: %s\n", failure.what());
        return 1;
    }
}
