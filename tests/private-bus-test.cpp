// The private bus: as an object, and as the program that runs a command with one.
#include "tools/private-bus.h"

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
    setenv("TMPDIR", ("/tmp/" + std::string(150, 'x')).c_str(), 1);
    std::filesystem::create_directory(g_get_tmp_dir());
    EXPECT_THAT(
        [] { const PrivateBus bus; },
        ThrowsMessage<std::runtime_error>(AllOf(
            StartsWith("no private bus: dbus-daemon gave no address: "), HasSubstr("too long"))));
    EXPECT_TRUE(std::filesystem::is_empty(g_get_tmp_dir()));
    std::filesystem::remove(g_get_tmp_dir());
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
    EXPECT_THAT(without.errors, StartsWith("Usage: tevrol-private-bus COMMAND"));

    const auto asked = RunProgram({kProgram, "--help"});
    EXPECT_EQ(asked.status, 0);
    EXPECT_EQ(asked.output, without.errors);
    EXPECT_THAT(asked.errors, IsEmpty());
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
