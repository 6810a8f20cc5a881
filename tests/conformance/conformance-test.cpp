// SPDX-License-Identifier: MIT
#include "tests/conformance/conformance-test.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

// A hang is a failure too.
constexpr unsigned kSecondsPerTest = 30;

// The lines below "== NAME" up to the next such line; nothing where there is none.
std::string Section(const std::string& file, const std::string& name) {
    std::ifstream lines(file);
    std::string section;
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 3, "== ") == 0) {
            inside = line == "== " + name;
        } else if (inside && !line.empty()) {
            section += line + "\n";
        }
    }
    return section;
}

// Released even if the channel throws.
struct Release {
    void operator()(GVariant* value) const {
        Unref(value);
    }
};
using Held = std::unique_ptr<GVariant, Release>;

std::string Text(const std::vector<char>& bytes) {
    return Quoted(std::string(bytes.begin(), bytes.end()).c_str());
}

}  // namespace

// ---- StubChannel ----

StubChannel::~StubChannel() {
    const StubWorld::Outside outside;
    StubWorld::Current()->Handler("~StubChannel", "");
}

void* StubChannel::operator new(std::size_t size) {
    const StubWorld::Outside outside;
    void* storage = ::operator new(size);
    StubWorld::Current()->BeginChannel(static_cast<StubChannel*>(storage), size);
    return storage;
}

void StubChannel::operator delete(void* storage) {
    StubWorld::Current()->Handler("operator delete", StubWorld::Current()->Of(storage));
    ::operator delete(storage);
}

std::vector<char> StubChannel::HandleMessage(std::vector<char>& data) {
    if (m_handlers == Handlers::Default) {
        return TevrolDbusRemote::HandleMessage(data);
    }
    const StubWorld::Outside outside;
    StubWorld::Current()->Handler("HandleMessage", Text(data));
    return {'o', 'k'};
}

void StubChannel::HandleNotification(std::vector<char>& data) {
    if (m_handlers == Handlers::Default) {
        TevrolDbusRemote::HandleNotification(data);
        return;
    }
    const StubWorld::Outside outside;
    StubWorld::Current()->Handler("HandleNotification", Text(data));
}

void StubChannel::HandleConnectionReady(bool state, const std::string& partner) {
    if (m_handlers == Handlers::Default) {
        TevrolDbusRemote::HandleConnectionReady(state, partner);
        return;
    }
    const StubWorld::Outside outside;
    StubWorld::Current()->Handler("HandleConnectionReady",
                                  (state ? "true, " : "false, ") + Quoted(partner.c_str()));
}

// ---- ChannelLife ----

ChannelLife::~ChannelLife() {
    world.Record(false);
}

std::vector<char> ToBytes(const std::string& text) {
    const StubWorld::Outside outside;
    return {text.begin(), text.end()};
}

void ChannelLife::Construct(Handlers handlers) {
    channel = std::make_unique<StubChannel>("demo", handlers);
}

void ChannelLife::Hear(NameOwnerChanged stage, const std::string& old_owner,
                       const std::string& new_owner) {
    Deliver(stage, g_variant_new_parsed("('a.name', %s, %s)", old_owner.c_str(), new_owner.c_str()),
            StubWorld::Connection(), channel.get());
}

void ChannelLife::Deliver(NameOwnerChanged stage, GVariant* body, GDBusConnection* connection,
                          gpointer user_data) {
    const Held held(g_variant_ref_sink(body));
    stage(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
          "NameOwnerChanged", body, user_data);
}

void ChannelLife::Lose(const std::string& name) {
    TevrolDbusRemote::cb_PartnerNameVanished(StubWorld::Connection(), name.c_str(), channel.get());
}

void ChannelLife::Receive(GVariant* body) {
    const Held held(g_variant_ref_sink(body));
    TevrolDbusRemote::cb_MethodCall(StubWorld::Connection(), ":1.5", channel->m_object_name.c_str(),
                                    "an.interface", "AMethod", body, StubWorld::Invocation(),
                                    channel.get());
}

void ChannelLife::ReceiveSignal(GVariant* body, const char* member) {
    const Held held(g_variant_ref_sink(body));
    TevrolDbusRemote::cb_SignalCall(StubWorld::Connection(), ":1.5", channel->m_object_name.c_str(),
                                    "an.interface", member, body, channel.get());
}

void ChannelLife::ConstructBound() {
    Construct();
    Hear(&TevrolDbusRemote::cb_SynNameOwnerChanged, ":1.5");
}

void ChannelLife::ConstructReady(Handlers handlers) {
    Construct(handlers);
    Hear(&TevrolDbusRemote::cb_SynAckNameOwnerChanged, ":1.5");
}

void ChannelLife::Record() {
    world.NoteState();  // what is the case already is no event
    world.Record(true);
}

void ChannelLife::Stop() {
    world.NoteState();
    world.Record(false);
}

// ---- ConformanceTest ----

ConformanceTest::ConformanceTest() {
    alarm(kSecondsPerTest);
}

ConformanceTest::~ConformanceTest() {
    alarm(0);
}

void ConformanceTest::Matches() {
    Stop();
    EXPECT_EQ(world.Misuses(), std::vector<std::string>());
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    std::string suite = test.test_suite_name();
    suite.erase(0, suite.find('/') + 1);  // npos + 1 is 0
    const std::string expected =
        Section(std::string(TEVROL_RECORDINGS) + "/" + suite + ".txt", test.name());
    EXPECT_EQ(expected, world.Text());
    if (expected != world.Text()) {
        std::ofstream(suite + ".made", std::ios::app) << "== " << test.name() << "\n"
                                                      << world.Text() << "\n";
    }
}
