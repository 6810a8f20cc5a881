// SPDX-License-Identifier: MIT
// The bus policy as it is shipped, on a bus with a device's stock policy: what it gives to members
// of the group tevrol, what it refuses to everybody else, and what each of its rules is for.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "devkit/partner-process.h"
#include "tests/support/channel-test.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

// ---- The machine: its users and groups ----

constexpr gid_t kGroupTevrol = 64100;
constexpr gid_t kOtherGroup = 64101;

struct User {
    uid_t uid;
    gid_t group;
    std::vector<gid_t> more_groups;
};
const User kApplication = {64201, kOtherGroup, {kGroupTevrol}};
const User kService = {64202, kOtherGroup, {kGroupTevrol}};
const User kServiceByPrimaryGroup = {64203, kGroupTevrol, {}};
const User kStranger = {64204, kOtherGroup, {}};
const User kRoot = {0, 0, {}};

std::string NameOf(const User& user) {
    return "user-" + std::to_string(user.uid);
}

std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// A file under a temporary name, for as long as the object lives.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& text) {
        char path[] = "/tmp/tevrol-policy-XXXXXX";
        close(mkstemp(path));
        m_path = path;
        std::ofstream(m_path) << text;
        std::filesystem::permissions(m_path, std::filesystem::perms(0644));
    }
    ~TemporaryFile() {
        std::remove(m_path.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& Path() const {
        return m_path;
    }

private:
    std::string m_path;
};

// Whether this process may have a view of the file system of its own; from then on it has.
bool EnterOwnMountNamespace() {
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// Lets this process and its children, the bus among them, find users and group on a machine that
// need not have them. The bus turns away whoever has no entry in the user database.
class Machine {
protected:
    // `members` are the users whom the database has in the group tevrol, separated by commas.
    explicit Machine(const std::string& members)
        : m_group_file(GroupEntry(members) + ReadFile("/etc/group")),
          m_user_file(UserEntries() + ReadFile("/etc/passwd")) {
        Replace("/etc/group", m_group_file.Path());
        Replace("/etc/passwd", m_user_file.Path());
    }

private:
    static std::string GroupEntry(const std::string& members) {
        return "tevrol:x:" + std::to_string(kGroupTevrol) + ":" + members + "\n";
    }

    static std::string UserEntries() {
        std::ostringstream entries;
        for (const User& user : {kApplication, kService, kServiceByPrimaryGroup, kStranger}) {
            entries << NameOf(user) << ":x:" << user.uid << ":" << user.group << "::/:\n";
        }
        return entries.str();
    }

    static void Replace(const char* path, const std::string& replacement) {
        if (mount(replacement.c_str(), path, nullptr, MS_BIND, nullptr) != 0) {
            throw std::runtime_error(std::string("cannot replace ") + path);
        }
    }

    TemporaryFile m_group_file;
    TemporaryFile m_user_file;
};

// Connections made while this lives are those of `user`.
class ConnectingAs {
public:
    explicit ConnectingAs(const User& user) {
        Check(setgroups(user.more_groups.size(), user.more_groups.data()));
        Check(setegid(user.group));
        Check(seteuid(user.uid));
    }
    ~ConnectingAs() {
        if (seteuid(0) != 0 || setegid(0) != 0 || setgroups(0, nullptr) != 0) {
            std::abort();
        }
    }
    ConnectingAs(const ConnectingAs&) = delete;
    ConnectingAs& operator=(const ConnectingAs&) = delete;

private:
    static void Check(int result) {
        if (result != 0) {
            throw std::runtime_error("cannot become another user");
        }
    }
};

// ---- The bus: stock policy, shipped policy ----

std::string ShippedPolicy() {
    return ReadFile(TEVROL_SHIPPED_POLICY);
}

// The shipped policy but for the one rule that begins with `beginning`.
std::string ShippedPolicyWithout(const std::string& beginning) {
    std::string policy = ShippedPolicy();
    const std::size_t begin = policy.find(beginning);
    const std::size_t end = policy.find("/>", begin);
    if (begin == std::string::npos || end == std::string::npos ||
        policy.find(beginning, end) != std::string::npos) {
        throw std::runtime_error("not exactly one rule: " + beginning);
    }
    return policy.erase(begin, end + 2 - begin);
}

std::string Include(const std::string& path) {
    return "<include>" + path + "</include>\n";
}

// What goes through, in both directions where there are two.
struct Permitted {
    bool handshake = false;
    bool requests = false;
    bool notifications = false;
    bool strangers_names = false;
    bool strangers_calls = false;
    bool strangers_signals = false;

    bool operator==(const Permitted& other) const {
        return ToString() == other.ToString();
    }
    std::string ToString() const {
        std::ostringstream text;
        text << "handshake " << handshake << ", requests " << requests << ", notifications "
             << notifications << ", a stranger's names " << strangers_names << ", its calls "
             << strangers_calls << ", its signals " << strangers_signals;
        return text.str();
    }
};
std::ostream& operator<<(std::ostream& out, const Permitted& permitted) {
    return out << permitted.ToString();
}

Permitted AllThatMembersNeed() {
    Permitted permitted;
    permitted.handshake = permitted.requests = permitted.notifications = true;
    return permitted;
}

class Policy : private Machine, private TemporaryFile, public ChannelTest {
protected:
    explicit Policy(const std::string& policy = ShippedPolicy(), const std::string& members = "")
        : Machine(members),
          TemporaryFile(policy),
          ChannelTest("", Include(TEVROL_STOCK_POLICY) + Include(Path()), [] {
              const ConnectingAs user(kApplication);
              return ConnectToSystemBus();
          }) {}

    static void JoinAs(const User& user, TestPartner& partner) {
        const ConnectingAs as(user);
        partner.Join();
    }

    // Tries everything, as two ends in the group and as one process outside.
    static Permitted Try(const User& service_user = kService) {
        Permitted permitted;
        TestChannel& channel = KeptChannel();
        TestPartner service;
        JoinAs(service_user, service);
        permitted.handshake = ShakeHands(channel, service);
        if (permitted.handshake) {
            TryMessages(channel, service, permitted);
        }
        TryAs(kStranger, channel, permitted);
        return permitted;
    }

    // Tries everything as a process outside the group.
    static void TryAs(const User& user, TestChannel& channel, Permitted& permitted) {
        TestPartner stranger;
        JoinAs(user, stranger);
        for (const auto stage :
             {HandshakeStage::Syn, HandshakeStage::SynAck, HandshakeStage::Ack}) {
            permitted.strangers_names |= stranger.Acquire(stage) || stranger.HoldClientName(stage);
        }
        const auto requests_before = channel.Requests().size();
        const PartnerReply reply =
            Await(stranger.RequestOf(OwnName(), tevrol::PayloadBody(ToBytes("open"))));
        permitted.strangers_calls = reply.ok || channel.Requests().size() != requests_before;
        permitted.strangers_signals = Arrives(stranger);
    }

    // Whether the policy refuses a call of `caller`. The bus refuses some by itself, in other
    // words, to all but root.
    static bool IsDenied(GDBusConnection* caller, const std::string& destination, const char* path,
                         const char* interface, const char* method, GVariant* parameters) {
        GDBusMessage* call =
            g_dbus_message_new_method_call(destination.c_str(), path, interface, method);
        if (parameters != nullptr) {
            g_dbus_message_set_body(call, parameters);
        }
        GDBusMessage* reply = g_dbus_connection_send_message_with_reply_sync(
            caller, call, G_DBUS_SEND_MESSAGE_FLAGS_NONE, G_MAXINT, nullptr, nullptr, nullptr);
        g_object_unref(call);
        const gchar* text = g_dbus_message_get_arg0(reply);
        const std::string why = text == nullptr ? "" : text;
        g_object_unref(reply);
        return why.rfind("Rejected send message", 0) == 0 ||
               why.find("due to security policies") != std::string::npos;
    }
    // The same for a method of the bus itself.
    static bool DriverDenies(GDBusConnection* caller, const char* method, GVariant* parameters,
                             const char* interface = "org.freedesktop.DBus") {
        return IsDenied(caller, "org.freedesktop.DBus", "/org/freedesktop/DBus", interface, method,
                        parameters);
    }
    Connection ConnectAs(const User& user) const {
        const ConnectingAs as(user);
        return OpenConnection(bus.Address());
    }
    // Whether a notification of `sender` passes the bus, looked at before the channel sees it.
    static bool Arrives(TestPartner& sender, const char* member = "SendSignal") {
        const Arrivals arrivals(connection, sender.UniqueName());
        sender.NotifyTo(OwnName(), tevrol::PayloadBody(ToBytes("open")), member);
        Settle(sender);
        return arrivals.Count() != 0;
    }

    // Constructed once and never destroyed: a second partner may come to it.
    static TestChannel& KeptChannel() {
        static auto& channel = *new TestChannel;
        return channel;
    }

private:
    static bool ShakeHands(TestChannel& channel, TestPartner& service) {
        service.Open();
        if (!service.Saw("announced SYN")) {
            Settle(service);
            return channel.IsConnectionReady() || service.IsReady();
        }
        return IterateUntil([&] { return channel.IsConnectionReady() && service.IsReady(); });
    }

    // Each end sends a notification and then a request, so whoever has the request, has the
    // notification before it, or will never have it.
    static void TryMessages(TestChannel& channel, TestPartner& service, Permitted& permitted) {
        Bytes payload = ToBytes("stressed");
        const std::string told = " from " + OwnName() + ": " + tevrol::Describe(payload);

        channel.SendNotification(payload);
        const bool request_there = channel.SendMessage(payload) == payload;
        const bool notified_there =
            IterateUntil([&] {
                return service.Saw("notification" + told) || service.Saw("request" + told);
            }) &&
            service.Saw("notification" + told);

        service.Notify(payload);
        const bool request_back = Await(service.Request(payload)).payload == payload;
        Settle(service);
        const bool notified_back = !channel.Notifications().empty();

        EXPECT_EQ(request_there, request_back);
        EXPECT_EQ(notified_there, notified_back);
        permitted.requests = request_there && request_back;
        permitted.notifications = notified_there && notified_back;
    }
};

// ---- What it gives and refuses ----

TEST_F(Policy, GivesTheGroupAllThatTheChannelNeedsAndNobodyElseAnything) {
    EXPECT_EQ(Try(), AllThatMembersNeed());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Policy, AdmitsAMemberByItsPrimaryGroupToo) {
    EXPECT_EQ(Try(kServiceByPrimaryGroup), AllThatMembersNeed());
}

TEST_F(Policy, RefusesRootWhoIsNotInTheGroup) {
    Permitted permitted;
    TryAs(kRoot, KeptChannel(), permitted);
    EXPECT_EQ(permitted, Permitted());
}

TEST_F(Policy, LetsMembersCallNothingButSendAndWhatSupportsIt) {
    TestChannel& channel = KeptChannel();
    TestPartner service;
    JoinAs(kService, service);
    Connect(service, channel);
    constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";
    constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";
    const auto is_denied = [&](const char* path, const char* interface, const char* method) {
        return IsDenied(connection, service.UniqueName(), path, interface, method, nullptr);
    };
    EXPECT_FALSE(is_denied(kPath, kInterface, "Send"));
    EXPECT_FALSE(is_denied("/", kInterface, "Send")) << "of paths the bus knows nothing";
    for (const char* path : {kPath, "/", "/org/ulmar/tevrol"}) {
        EXPECT_TRUE(is_denied(path, kInterface, "Other"));
        EXPECT_TRUE(is_denied(path, kInterface, "SendSignal"));
        EXPECT_TRUE(is_denied(path, "org.ulmar.tevrol.Other", "Send"));
        EXPECT_TRUE(is_denied(path, nullptr, "Send"));
        EXPECT_TRUE(is_denied(path, "org.freedesktop.DBus.Introspectable", "Introspect"));
        EXPECT_TRUE(is_denied(path, "org.freedesktop.DBus.Properties", "GetAll"));
        EXPECT_FALSE(is_denied(path, "org.freedesktop.DBus.Peer", "Ping"));
        EXPECT_TRUE(is_denied(path, "org.freedesktop.DBus.Peer", "GetMachineId"));
        EXPECT_FALSE(is_denied(path, "org.ulmar.tevrol.DirectLink", "Open"));
        EXPECT_TRUE(is_denied(path, "org.ulmar.tevrol.DirectLink", "Other"));
    }
}

TEST_F(Policy, LetsMembersSendNoSignalOfTheInterfaceButNotifications) {
    TestPartner service;
    JoinAs(kService, service);
    EXPECT_TRUE(Arrives(service));
    EXPECT_FALSE(Arrives(service, "Send"));
    EXPECT_FALSE(Arrives(service, "Other"));
}

TEST_F(Policy, LetsMembersOwnTheChannelsNamesAndNoOthers) {
    const auto is_denied = [](const char* name) {
        return DriverDenies(connection, "RequestName", g_variant_new("(su)", name, 4U));
    };
    for (const char* name : {"org.ulmar.Tevrol.demo_CLIENT_SYN",
                             "org.ulmar.Tevrol.demo_SERVICE_ACK", "org.ulmar.Tevrol.any"}) {
        EXPECT_FALSE(is_denied(name)) << name;
    }
    for (const char* name : {"org.ulmar.Tevrolx", "org.ulmar.Tevrolx.demo_CLIENT_SYN",
                             "org.ulmar.tevrol.demo", "org.ulmar.Other", "org.ulmar", "org.Tevrol",
                             "net.example.Service", "org.freedesktop.login1"}) {
        EXPECT_TRUE(is_denied(name)) << name;
    }
}

TEST_F(Policy, LetsNeitherMembersNorStrangersIntoTheWorksOfTheBus) {
    const Connection stranger = ConnectAs(kStranger);
    for (GDBusConnection* caller : {connection, stranger.get()}) {
        EXPECT_TRUE(DriverDenies(caller, "BecomeMonitor", g_variant_new("(asu)", nullptr, 0),
                                 "org.freedesktop.DBus.Monitoring"));
        EXPECT_TRUE(DriverDenies(caller, "GetStats", nullptr, "org.freedesktop.DBus.Debug.Stats"));
        EXPECT_TRUE(
            DriverDenies(caller, "UpdateActivationEnvironment", g_variant_new("(a{ss})", nullptr)));
        EXPECT_TRUE(DriverDenies(caller, "ActivationFailure", nullptr,
                                 "org.freedesktop.systemd1.Activator"));
    }
}

TEST_F(Policy, LetsStrangersCallAndOwnNothingOfAnyChannel) {
    TestPartner service;
    JoinAs(kService, service);
    const Connection stranger = ConnectAs(kStranger);
    for (const char* member : {"Send", "Other"}) {
        EXPECT_TRUE(IsDenied(stranger.get(), service.UniqueName(),
                             "/org/ulmar/tevrol/CommunicationChannel/demo",
                             "org.ulmar.tevrol.DbusCommunication", member, nullptr));
    }
    EXPECT_TRUE(IsDenied(stranger.get(), service.UniqueName(), "/", "org.ulmar.tevrol.DirectLink",
                         "Open", nullptr));
    EXPECT_TRUE(IsDenied(stranger.get(), service.UniqueName(), "/", "org.freedesktop.DBus.Peer",
                         "Ping", nullptr));
    for (const char* name : {"org.ulmar.Tevrol", "org.ulmar.Tevrol.other_CLIENT_SYN"}) {
        EXPECT_TRUE(DriverDenies(stranger.get(), "RequestName", g_variant_new("(su)", name, 4U)));
    }
}

TEST_F(Policy, LeavesTheSignalsOfOthersAlone) {
    // A stranger's, of another interface, to a member: as the stock policy has it.
    const Connection stranger = ConnectAs(kStranger);
    const Arrivals arrivals(connection, g_dbus_connection_get_unique_name(stranger.get()));
    g_dbus_connection_emit_signal(stranger.get(), OwnName().c_str(), "/a", "org.example.Other",
                                  "Something", nullptr, nullptr);
    g_variant_unref(CallDriver(stranger.get(), "GetId", nullptr));
    Receive();
    EXPECT_EQ(arrivals.Count(), 1);
}

// Another package's service that everybody may call, by a policy that the bus reads before.
class PolicyBesideAnotherService : public Policy {
protected:
    explicit PolicyBesideAnotherService(const std::string& policy = ShippedPolicy())
        : Policy(WithAnotherService(policy)) {}

    // Whether the policy refuses a stranger's call of that service. If not, the answer is there.
    bool RefusesACall(const char* interface) const {
        const Connection service = ConnectAs(kRoot);
        g_variant_unref(CallDriver(service.get(), "RequestName",
                                   g_variant_new("(su)", "org.example.Service", 4U)));
        const Connection stranger = ConnectAs(kStranger);
        return IsDenied(stranger.get(), "org.example.Service", "/a", interface, "Method", nullptr);
    }

private:
    static std::string WithAnotherService(std::string policy) {
        const std::string begin = "<busconfig>\n";
        return policy.insert(policy.find(begin) + begin.size(),
                             "<policy context='default'><allow own='org.example.Service'/>"
                             "<allow send_destination='org.example.Service'/></policy>\n");
    }
};

TEST_F(PolicyBesideAnotherService, LeavesItsCallsAloneEvenThoseWithoutAnInterface) {
    EXPECT_FALSE(RefusesACall(nullptr));
    EXPECT_FALSE(RefusesACall("org.example.Interface"));
}

// ---- Where the bus takes the groups from ----

// A bus that starts meanwhile does not learn a process's groups from the kernel.
class WithoutPeerGroups {
protected:
    WithoutPeerGroups() {
        setenv("LD_PRELOAD", TEVROL_WITHOUT_PEER_GROUPS, 1);
    }
    static void End() {
        unsetenv("LD_PRELOAD");
    }
};

class PolicyByDatabase : private WithoutPeerGroups, public Policy {
protected:
    explicit PolicyByDatabase(const std::string& members = "") : Policy(ShippedPolicy(), members) {
        End();
    }
};

TEST_F(PolicyByDatabase, RefusesMembersOfWhomTheKernelAloneKnows) {
    EXPECT_EQ(Try(), Permitted());
}

class PolicyByDatabaseWithMembers : public PolicyByDatabase {
protected:
    PolicyByDatabaseWithMembers()
        : PolicyByDatabase(NameOf(kApplication) + "," + NameOf(kService)) {}
};

TEST_F(PolicyByDatabaseWithMembers, AdmitsThem) {
    EXPECT_EQ(Try(), AllThatMembersNeed());
}

class PolicyByKernel : public Policy {
protected:
    PolicyByKernel() : Policy(ShippedPolicy(), NameOf(kStranger)) {}
};

TEST_F(PolicyByKernel, DoesNotAskTheDatabase) {
    EXPECT_EQ(Try(), AllThatMembersNeed());
}

// ---- What each rule is for ----

auto HasLineWith(const std::string& part) {
    return testing::Contains(testing::Field(&LogLine::message, HasSubstr(part)));
}

class PolicyWithoutTheNames : public Policy {
protected:
    PolicyWithoutTheNames() : Policy(ShippedPolicyWithout("<allow own_prefix")) {}
};

TEST_F(PolicyWithoutTheNames, MakesNoHandshake) {
    EXPECT_EQ(Try(), Permitted());
    EXPECT_THAT(Errors(), HasLineWith("is not allowed to own the service "
                                      "\"org.ulmar.Tevrol.demo_CLIENT_SYN\""));

    // But a member that knows the other's unique name still reaches it.
    TestPartner service;
    JoinAs(kService, service);
    EXPECT_TRUE(Await(service.RequestOf(OwnName(), tevrol::PayloadBody(ToBytes("open")))).ok);
}

class PolicyWithoutTheCalls : public Policy {
protected:
    PolicyWithoutTheCalls()
        : Policy(ShippedPolicyWithout("<allow send_type=\"method_call\" "
                                      "send_interface=\"org.ulmar.tevrol.DbusCommunication\"")) {}
};

TEST_F(PolicyWithoutTheCalls, LosesRequestsAlone) {
    Permitted expected = AllThatMembersNeed();
    expected.requests = false;
    EXPECT_EQ(Try(), expected);
    EXPECT_THAT(Errors(), HasLineWith("AccessDenied: Rejected send message"));
}

class PolicyWithoutTheSignals : public Policy {
protected:
    PolicyWithoutTheSignals()
        : Policy(ShippedPolicyWithout("<allow send_type=\"signal\" "
                                      "send_interface=\"org.ulmar.tevrol.DbusCommunication\"")) {}
};

TEST_F(PolicyWithoutTheSignals, LosesNotificationsAlone) {
    Permitted expected = AllThatMembersNeed();
    expected.notifications = false;
    EXPECT_EQ(Try(), expected);
    EXPECT_THAT(Errors(), IsEmpty());  // the bus drops them without a word to the sender
}

class PolicyWithoutTheRefusal : public Policy {
protected:
    PolicyWithoutTheRefusal()
        : Policy(ShippedPolicyWithout("<deny send_type=\"signal\" "
                                      "send_interface=\"org.ulmar.tevrol.DbusCommunication\"")) {}
};

TEST_F(PolicyWithoutTheRefusal, LetsAStrangersSignalsThroughAlone) {
    Permitted expected = AllThatMembersNeed();
    expected.strangers_signals = true;
    EXPECT_EQ(Try(), expected);
}

// The refusal for every type of message, as one may write it for short.
class PolicyThatRefusesEveryType : public PolicyBesideAnotherService {
protected:
    PolicyThatRefusesEveryType() : PolicyBesideAnotherService(WithoutTheType(ShippedPolicy())) {}

private:
    static std::string WithoutTheType(std::string policy) {
        const std::string type = "send_type=\"signal\" ";
        return policy.erase(policy.find("<deny " + type) + std::string("<deny ").size(),
                            type.size());
    }
};

TEST_F(PolicyThatRefusesEveryType, HitsTheCallsOfOtherServicesThatHaveNoInterface) {
    EXPECT_TRUE(RefusesACall(nullptr));
    EXPECT_FALSE(RefusesACall("org.example.Interface"));
}

TEST_F(PolicyThatRefusesEveryType, LetsTheRepliesToRequestsPass) {
    EXPECT_EQ(Try(), AllThatMembersNeed());
    EXPECT_THAT(Errors(), IsEmpty());
}

// ---- The same with programs, each started as a user of its own ----

// The capability is for a build folder that other users may not enter.
std::vector<std::string> RunAs(const User& user, const std::vector<std::string>& program) {
    std::vector<std::string> arguments = {
        "setpriv",
        "--reuid=" + std::to_string(user.uid),
        "--regid=" + std::to_string(user.group),
        user.more_groups.empty() ? "--clear-groups"
                                 : "--groups=" + std::to_string(user.more_groups.front()),
        "--inh-caps=+dac_read_search",
        "--ambient-caps=+dac_read_search"};
    arguments.insert(arguments.end(), program.begin(), program.end());
    return arguments;
}

TEST_F(Policy, LetsTheExampleApplicationAndItsPartnerTalkAsTwoUsers) {
    tevrol::PartnerProcess partner(RunAs(kService, {TEVROL_PARTNER_PROGRAM, "demo"}));
    ASSERT_TRUE(IterateUntil([&] { return partner.Find("announced SYN").has_value(); }));
    const tevrol::PartnerProcess application(RunAs(kApplication, {TEVROL_EXAMPLE_PROGRAM}));
    ASSERT_TRUE(IterateUntil([&] { return partner.Find("notification from ").has_value(); }));
    EXPECT_THAT(*partner.Find("notification from "), HasSubstr("\"hello\""));

    partner.Command("request stressed");
    EXPECT_TRUE(IterateUntil([&] { return partner.Find("reply: ").has_value(); }));
    EXPECT_EQ(partner.Find("reply: "), "8 bytes \"desserts\"");

    partner.Command("notify the light is on");
    EXPECT_TRUE(
        IterateUntil([&] { return application.Find("notified: the light is on").has_value(); }));
}

// Two ends of tevrol::Channel, each a process of its own user: whether they get their link.
class PolicyForTwoChannels : public Policy {
protected:
    using Policy::Policy;

    void StartAndTalk() {
        ASSERT_TRUE(IterateUntil([&] { return client.Find("ready ").has_value(); }));
        client.Command("request hello");
        ASSERT_TRUE(IterateUntil([&] { return client.Find("reply hello").has_value(); }));
    }
    // The offer is answered before the second request.
    std::string Direct() {
        client.Command("request again");
        client.Command("direct");
        EXPECT_TRUE(IterateUntil([&] { return client.Find("direct ").has_value(); }));
        return client.Find("direct ").value_or("");
    }

    tevrol::PartnerProcess service{RunAs(kService, {TEVROL_CHANNEL_END, "demo", "service"})};
    tevrol::PartnerProcess client{RunAs(kApplication, {TEVROL_CHANNEL_END, "demo", "client"})};
};

TEST_F(PolicyForTwoChannels, LetsMembersSetUpTheirLink) {
    StartAndTalk();
    EXPECT_EQ(Direct(), "yes");
}

class PolicyWithoutTheLink : public PolicyForTwoChannels {
protected:
    PolicyWithoutTheLink()
        : PolicyForTwoChannels(
              ShippedPolicyWithout("<allow send_type=\"method_call\" "
                                   "send_interface=\"org.ulmar.tevrol.DirectLink\"")) {}
};

TEST_F(PolicyWithoutTheLink, LeavesTwoChannelsOnTheBus) {
    StartAndTalk();
    EXPECT_EQ(Direct(), "no");
}

TEST_F(Policy, RefusesThePartnerProgramToAStranger) {
    const tevrol::PartnerProcess stranger(RunAs(kStranger, {TEVROL_PARTNER_PROGRAM, "demo"}));
    ASSERT_TRUE(IterateUntil([&] { return stranger.Find("refused SYN: ").has_value(); }));
    EXPECT_THAT(*stranger.Find("refused SYN: "), HasSubstr("Permission denied"));
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    constexpr int kSkipped = 77;
    if (!testing::GTEST_FLAG(list_tests) && (geteuid() != 0 || !EnterOwnMountNamespace())) {
        puts("skipped: needs root and a mount namespace, to act as several users");
        return kSkipped;
    }
    return RUN_ALL_TESTS();
}
