// SPDX-License-Identifier: MIT
// The private bus: as an object, and as the program that runs a command with one.
#include "devkit/private-bus.h"
#include "devkit/loop.h"
#include "devkit/partner-process.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/channel-test.h"
#include "tests/support/program.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::ThrowsMessage;
using tevrol::GObjectUnref;
using tevrol::PrivateBus;

constexpr const char* kAddressVariable = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* kProgram = TEVROL_PRIVATE_BUS_PROGRAM;

pid_t DaemonOf(GDBusConnection* connection) {
    GVariant* reply = CallDriver(connection, "GetConnectionUnixProcessID",
                                 g_variant_new("(s)", "org.freedesktop.DBus"));
    guint32 pid = 0;
    g_variant_get(reply, "(u)", &pid);
    g_variant_unref(reply);
    return static_cast<pid_t>(pid);
}

// Gone, or dead and only not yet collected by whoever inherited it.
bool IsGone(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string stat{std::istreambuf_iterator<char>(file), {}};
    const std::size_t name_end = stat.rfind(')');
    return name_end == std::string::npos || stat.at(name_end + 2) == 'Z';
}

std::filesystem::path FolderOf(const std::string& address) {
    const std::string path = address.substr(std::string("unix:path=").size());
    return std::filesystem::path(path.substr(0, path.find(','))).parent_path();
}

TEST(PrivateBus, IsReadyAndNamedInTheEnvironmentAndGoneWithTheObject) {
    std::string address;
    pid_t daemon = 0;
    {
        const PrivateBus bus;
        address = bus.Address();
        daemon = bus.Pid();
        EXPECT_STREQ(getenv(kAddressVariable), address.c_str());
        const Connection connection = OpenConnection(address);
        ASSERT_NE(connection, nullptr);
        EXPECT_EQ(DaemonOf(connection.get()), daemon);
        EXPECT_TRUE(std::filesystem::exists(FolderOf(address)));
    }
    EXPECT_EQ(getenv(kAddressVariable), nullptr);
    EXPECT_TRUE(IsGone(daemon));
    EXPECT_FALSE(std::filesystem::exists(FolderOf(address)));
}

TEST(PrivateBus, ThatIsKilledIsGoneAtOnce) {
    PrivateBus bus;
    const pid_t daemon = bus.Pid();
    bus.Kill();
    EXPECT_TRUE(IsGone(daemon));
    EXPECT_EQ(OpenConnection(bus.Address()), nullptr);
}

TEST(PrivateBus, WithoutADaemonThrows) {
    setenv("PATH", "/nonexistent", 1);
    EXPECT_THAT([] { const PrivateBus bus; },
                ThrowsMessage<std::runtime_error>(
                    AllOf(StartsWith("no private bus: "), HasSubstr("dbus-daemon"))));
    EXPECT_EQ(getenv(kAddressVariable), nullptr);
}

TEST(PrivateBus, WhoseDaemonGivesNoAddressThrowsWithItsComplaints) {
    // A daemon that finds its socket's folder too long a name.
    // Not by GLib, which would remember the temporary folder that it has now.
    std::string own = (std::filesystem::temp_directory_path() / "tevrol-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(own.data()), nullptr);
    const std::string folder = own + "/" + std::string(150, 'x');
    std::filesystem::create_directory(folder);
    setenv("TMPDIR", folder.c_str(), 1);
    EXPECT_THAT(
        [] { const PrivateBus bus; },
        ThrowsMessage<std::runtime_error>(AllOf(
            StartsWith("no private bus: dbus-daemon gave no address: "), HasSubstr("too long"))));
    EXPECT_TRUE(std::filesystem::is_empty(folder));
    std::filesystem::remove_all(own);
}

// ---- The program ----

TEST(PrivateBusProgram, RunsTheCommandWithABusOfItsOwn) {
    const auto result = RunProgram({kProgram, "sh", "-c",
                                    "gdbus call --address $DBUS_SYSTEM_BUS_ADDRESS --dest "
                                    "org.freedesktop.DBus --object-path /org/freedesktop/DBus "
                                    "--method org.freedesktop.DBus.NameHasOwner "
                                    "org.freedesktop.DBus"});
    EXPECT_EQ(result.output, "(true,)\n");
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.status, 0);
}

TEST(PrivateBusProgram, HandsArgumentsAndStandardInputThrough) {
    const auto result =
        RunProgram({kProgram, "sh", "-c", "echo \"$1\"; cat", "sh", "a  b"}, "typed");
    EXPECT_EQ(result.output, "a  b\ntyped");
}

TEST(PrivateBusProgram, EndsWithTheCommandsExitStatus) {
    EXPECT_EQ(RunProgram({kProgram, "true"}).status, 0);
    EXPECT_EQ(RunProgram({kProgram, "sh", "-c", "exit 7"}).status, 7);
}

TEST(PrivateBusProgram, EndsWith128AndTheSignalThatEndedTheCommand) {
    EXPECT_EQ(RunProgram({kProgram, "sh", "-c", "kill -TERM $$"}).status, 128 + SIGTERM);
}

TEST(PrivateBusProgram, EndsWith127WhenTheCommandIsMissing) {
    const auto result = RunProgram({kProgram, "no-such-command"});
    EXPECT_EQ(result.status, 127);
    EXPECT_THAT(result.errors, StartsWith("tevrol-private-bus: "));
    EXPECT_THAT(result.errors, HasSubstr("no-such-command"));
}

TEST(PrivateBusProgram, EndsWith127WithoutADaemon) {
    setenv("PATH", "/nonexistent", 1);
    const auto result = RunProgram({kProgram, "/bin/true"});
    EXPECT_EQ(result.status, 127);
    EXPECT_THAT(result.errors, StartsWith("tevrol-private-bus: no private bus: "));
}

TEST(PrivateBusProgram, ShowsItsUsageOnErrorOutputWithoutACommandAndOnOutputWhenAsked) {
    const auto without = RunProgram({kProgram});
    EXPECT_EQ(without.status, 2);
    EXPECT_THAT(without.output, IsEmpty());
    for (const char* option : {"--help", "-h"}) {
        const auto asked = RunProgram({kProgram, option});
        EXPECT_EQ(asked.status, 0);
        EXPECT_THAT(asked.output, StartsWith("Usage: tevrol-private-bus [--] COMMAND"));
        EXPECT_EQ("tevrol-private-bus: no command\n" + asked.output + "\n", without.errors);
        EXPECT_THAT(asked.errors, IsEmpty());
    }
}

TEST(PrivateBusProgram, RefusesOptionsThatItDoesNotKnowAndTakesTwoDashesForTheirEnd) {
    const auto unknown = RunProgram({kProgram, "--bogus", "true"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_THAT(unknown.errors, StartsWith("tevrol-private-bus: unknown option: --bogus\n"));
    EXPECT_EQ(RunProgram({kProgram, "--", "echo", "--", "--help"}).output, "-- --help\n");
    EXPECT_EQ(RunProgram({kProgram, "--"}).status, 2);
}

TEST(PrivateBusProgram, EndsItsCommandAndItsBusInOrderAtASignal) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        tevrol::PartnerProcess program(
            {kProgram, "sh", "-c",
             "trap 'echo in order; exit' TERM; echo $DBUS_SYSTEM_BUS_ADDRESS; "
             "while :; do sleep 0.01; done"});
        const auto address = [&] { return program.Find("unix:path="); };
        ASSERT_TRUE(tevrol::IterateUntil([&] { return address().has_value(); }));
        const std::string socket = address()->substr(0, address()->find(','));
        EXPECT_TRUE(std::filesystem::exists(socket));
        const auto start = std::chrono::steady_clock::now();
        program.Signal(signal);
        EXPECT_EQ(program.Wait(), 128 + signal);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(socket).parent_path()));
        EXPECT_TRUE(tevrol::IterateUntil([&] { return program.Find("in order").has_value(); }));
    }
}

TEST(PrivateBusProgram, EndsACommandThatDoesNotHearTheSignal) {
    tevrol::PartnerProcess program(
        {kProgram, "sh", "-c", "trap '' TERM; echo started; while :; do sleep 0.01; done"});
    ASSERT_TRUE(tevrol::IterateUntil([&] { return program.Find("started").has_value(); }));
    program.Signal(SIGTERM);
    EXPECT_EQ(program.Wait(), 128 + SIGTERM);
}

TEST(PrivateBusProgram, ThatIsKilledTakesItsDaemonAndItsCommandWithIt) {
    const auto program = tevrol::StartDyingWithParent(
        {kProgram, "sh", "-c", "echo $DBUS_SYSTEM_BUS_ADDRESS; echo $$; exec sleep 600"},
        G_SUBPROCESS_FLAGS_STDOUT_PIPE);
    const std::unique_ptr<GDataInputStream, GObjectUnref> output(
        g_data_input_stream_new(g_subprocess_get_stdout_pipe(program.get())));
    const auto read_line = [&] {
        gchar* line = g_data_input_stream_read_line(output.get(), nullptr, nullptr, nullptr);
        std::string text = line;
        g_free(line);
        return text;
    };
    const std::string address = read_line();
    const pid_t command = std::stoi(read_line());
    const pid_t daemon = DaemonOf(OpenConnection(address).get());
    EXPECT_FALSE(IsGone(daemon));
    EXPECT_FALSE(IsGone(command));

    g_subprocess_force_exit(program.get());  // SIGKILL
    EXPECT_TRUE(IterateUntil([&] { return IsGone(daemon) && IsGone(command); }));
    std::filesystem::remove_all(FolderOf(address));  // which it could not do any more
}

}  // namespace
