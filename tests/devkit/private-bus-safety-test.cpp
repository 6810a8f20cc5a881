// SPDX-License-Identifier: MIT
// The private bus towards other users and other programs: who may come in, and what stays behind.
#include <gio/gunixsocketaddress.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "devkit/private-bus.h"
#include "tests/support/channel-test.h"
#include "tests/support/program.h"

namespace {

using tevrol::PrivateBus;

constexpr const char* kProgram = TEVROL_PRIVATE_BUS_PROGRAM;
constexpr uid_t kSomebody = 65534;

// Of a client that offers `mechanism`: what the daemon answers to "AUTH mechanism".
std::string Offer(const std::string& address, const std::string& mechanism) {
    GSocketClient* client = g_socket_client_new();
    const std::string path = address.substr(std::string("unix:path=").size());
    GSocketAddress* place = g_unix_socket_address_new(path.substr(0, path.find(',')).c_str());
    GSocketConnection* connection =
        g_socket_client_connect(client, G_SOCKET_CONNECTABLE(place), nullptr, nullptr);
    EXPECT_NE(connection, nullptr);
    const std::string hello = std::string("\0", 1) + "AUTH " + mechanism + "\r\n";
    g_output_stream_write_all(g_io_stream_get_output_stream(G_IO_STREAM(connection)), hello.data(),
                              hello.size(), nullptr, nullptr, nullptr);
    GDataInputStream* input =
        g_data_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(connection)));
    gchar* line = g_data_input_stream_read_line(input, nullptr, nullptr, nullptr);
    std::string answer = line == nullptr ? "" : line;
    g_free(line);
    g_object_unref(input);
    g_object_unref(connection);
    g_object_unref(place);
    g_object_unref(client);
    return answer;
}

std::filesystem::perms ModeOf(const std::string& path) {
    return std::filesystem::status(path).permissions();
}

TEST(PrivateBusSafety, LetsOthersThroughItsFolderButNeitherLookNorWrite) {
    const PrivateBus bus;
    EXPECT_EQ(ModeOf(bus.Folder()), std::filesystem::perms(0711));
    struct stat info {};
    ASSERT_EQ(stat(bus.Folder().c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, geteuid());
    EXPECT_EQ(ModeOf(bus.Folder() + "/bus.conf") & std::filesystem::perms(0022),
              std::filesystem::perms::none);
}

TEST(PrivateBusSafety, KnowsItsUsersByTheirSocketsAlone) {
    const PrivateBus bus;
    EXPECT_EQ(Offer(bus.Address(), "ANONYMOUS"), "REJECTED EXTERNAL\r");
    EXPECT_EQ(Offer(bus.Address(), "DBUS_COOKIE_SHA1 30"), "REJECTED EXTERNAL\r");
}

TEST(PrivateBusSafety, LetsNoOtherUserIn) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to be another user";
    }
    const PrivateBus bus;
    ASSERT_EQ(seteuid(kSomebody), 0);
    const Connection connection = OpenConnection(bus.Address());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(connection, nullptr);
}

TEST(PrivateBusSafety, HasAFolderOfItsOwnEachTime) {
    const PrivateBus first;
    const PrivateBus second;
    EXPECT_NE(first.Folder(), second.Folder());
    EXPECT_NE(first.Address(), second.Address());
    EXPECT_NE(first.Pid(), second.Pid());
    EXPECT_EQ(getenv("DBUS_SYSTEM_BUS_ADDRESS"), second.Address());
    EXPECT_NE(OpenConnection(first.Address()), nullptr);
    EXPECT_NE(OpenConnection(second.Address()), nullptr);
}

TEST(PrivateBusSafety, HasTheLimitsOfAStockBusUnlessItIsGivenOthers) {
    const auto rules_of = [](const PrivateBus& bus) {
        const Connection connection = OpenConnection(bus.Address());
        for (int rules = 0;; ++rules) {
            const std::string rule = "arg0='" + std::to_string(rules) + "'";
            GVariant* reply =
                CallDriver(connection.get(), "AddMatch", g_variant_new("(s)", rule.c_str()));
            if (reply == nullptr) {
                return rules;
            }
            g_variant_unref(reply);
        }
    };
    EXPECT_EQ(rules_of(PrivateBus()), 512);
    EXPECT_EQ(rules_of(PrivateBus("<limit name='max_match_rules_per_connection'>9</limit>")), 9);
}

TEST(PrivateBusSafety, AddsNothingToTheProgramsOutput) {
    const auto result = RunProgram({kProgram, "sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(result.errors, "err\n");
    EXPECT_EQ(result.status, 3);
}

TEST(PrivateBusSafety, LeavesNothingBehindTheProgram) {
    const auto result = RunProgram({kProgram, "sh", "-c", "echo $DBUS_SYSTEM_BUS_ADDRESS"});
    const std::string path = result.output.substr(std::string("unix:path=").size());
    EXPECT_FALSE(std::filesystem::exists(
        std::filesystem::path(path.substr(0, path.find(','))).parent_path()));
}

}  // namespace
