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

#include "tests/support/channel-test.h"
#include "tools/partner-process.h"

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
    Machine()
        : m_group_file(GroupEntry() + ReadFile("/etc/group")),
          m_user_file(UserEntries() + ReadFile("/etc/passwd")) {
        Replace("/etc/group", m_group_file.Path());
        Replace("/etc/passwd", m_user_file.Path());
    }

private:
    static std::string GroupEntry() {
        return "tevrol:x:" + std::to_string(kGroupTevrol) + ":\n";
    }

    static std::string UserEntries() {
        std::ostringstream entries;
        for (const User& user : {kApplication, kService, kServiceByPrimaryGroup, kStranger}) {
            entries << "user-" << user.uid << ":x:" << user.uid << ":" << user.group << "::/:\n";
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
    explicit Policy(const std::string& policy = ShippedPolicy())
        : TemporaryFile(policy),
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

    // Whether the bus refuses this process, a member, a call.
    static bool IsDenied(const std::string& destination, const char* path, const char* interface,
                         const char* method, GVariant* parameters) {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(connection, destination.c_str(), path,
                                                      interface, method, parameters, nullptr,
                                                      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
        const bool denied = g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) != 0;
        g_clear_pointer(&reply, g_variant_unref);
        g_clear_error(&error);
        return denied;
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

    // Whether a notification of `sender` passes the bus, looked at before the channel sees it.
    static bool Arrives(TestPartner& sender) {
        const Arrivals arrivals(connection, sender.UniqueName());
        sender.NotifyTo(OwnName(), tevrol::PayloadBody(ToBytes("open")));
        Settle(sender);
        return arrivals.Count() != 0;
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

TEST_F(Policy, LetsMembersCallNothingButSend) {
    TestChannel& channel = KeptChannel();
    TestPartner service;
    JoinAs(kService, service);
    Connect(service, channel);
    EXPECT_TRUE(IsDenied(service.UniqueName(), "/org/ulmar/tevrol/CommunicationChannel/demo",
                         "org.freedesktop.DBus.Introspectable", "Introspect", nullptr));
}

TEST_F(Policy, LetsMembersOwnNoNameBesideTheChannels) {
    EXPECT_TRUE(IsDenied("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "RequestName", g_variant_new("(su)", "org.ulmar.Tevrolx", 4U)));
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
    PolicyWithoutTheCalls() : Policy(ShippedPolicyWithout("<allow send_type=\"method_call\"")) {}
};

TEST_F(PolicyWithoutTheCalls, LosesRequestsAlone) {
    Permitted expected = AllThatMembersNeed();
    expected.requests = false;
    EXPECT_EQ(Try(), expected);
    EXPECT_THAT(Errors(), HasLineWith("AccessDenied: Rejected send message"));
}

class PolicyWithoutTheSignals : public Policy {
protected:
    PolicyWithoutTheSignals() : Policy(ShippedPolicyWithout("<allow send_type=\"signal\"")) {}
};

TEST_F(PolicyWithoutTheSignals, LosesNotificationsAlone) {
    Permitted expected = AllThatMembersNeed();
    expected.notifications = false;
    EXPECT_EQ(Try(), expected);
    EXPECT_THAT(Errors(), IsEmpty());  // the bus drops them without a word to the sender
}

class PolicyWithoutTheRefusal : public Policy {
protected:
    PolicyWithoutTheRefusal() : Policy(ShippedPolicyWithout("<deny")) {}
};

TEST_F(PolicyWithoutTheRefusal, LetsAStrangersSignalsThroughAlone) {
    Permitted expected = AllThatMembersNeed();
    expected.strangers_signals = true;
    EXPECT_EQ(Try(), expected);
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
