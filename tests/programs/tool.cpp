// SPDX-License-Identifier: MIT
#include "tests/programs/tool.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

using tevrol::IterateUntil;
using tevrol::PartnerProcess;

namespace {

std::string Text(GBytes* bytes) {
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    std::string text(data, data + size);
    g_bytes_unref(bytes);
    return text;
}

}  // namespace

Result Run(const Arguments& command, const std::string& input) {
    const auto child = tevrol::StartDyingWithParent(
        command, static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                               G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                               G_SUBPROCESS_FLAGS_STDERR_PIPE));
    GBytes* given = g_bytes_new(input.data(), input.size());
    GAsyncResult* over = nullptr;
    const auto on_end = [](GObject*, GAsyncResult* result, gpointer place) {
        *static_cast<GAsyncResult**>(place) = G_ASYNC_RESULT(g_object_ref(result));
    };
    g_subprocess_communicate_async(child.get(), given, nullptr, on_end, &over);
    while (over == nullptr) {
        g_main_context_iteration(nullptr, TRUE);
    }
    GBytes* output = nullptr;
    GBytes* errors = nullptr;
    g_subprocess_communicate_finish(child.get(), over, &output, &errors, nullptr);
    g_object_unref(over);
    g_bytes_unref(given);
    const int status = g_subprocess_get_if_exited(child.get()) != FALSE
                           ? g_subprocess_get_exit_status(child.get())
                           : -1;
    return {status, Text(output), Text(errors)};
}

Result Tool(Arguments arguments, const std::string& input) {
    arguments.insert(arguments.begin(), TEVROLCTL_PROGRAM);
    return Run(arguments, input);
}

Result Shell(const std::string& line) {
    return Run({"/bin/sh", "-c", "T=" TEVROLCTL_PROGRAM "\n" + line});
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void ExpectWellFormed(const std::string& path) {
    const Result parsed =
        Run({"python3", "-c",
             "import sys, xml.parsers.expat\n"
             "xml.parsers.expat.ParserCreate().ParseFile(open(sys.argv[1], 'rb'))",
             path});
    EXPECT_EQ(parsed.status, 0) << parsed.errors;
}

TevrolctlTest::TevrolctlTest() {
    gchar* made = g_dir_make_tmp("tevrolctl-test-XXXXXX", nullptr);
    m_folder = made;
    g_free(made);
}

TevrolctlTest::~TevrolctlTest() {
    std::filesystem::remove_all(m_folder);
}

std::unique_ptr<PartnerProcess> TevrolctlTest::StartPartner(const Arguments& options,
                                                            const std::string& sign) {
    auto partner = std::make_unique<PartnerProcess>(TEVROL_PARTNER_PROGRAM, "demo", options);
    EXPECT_TRUE(IterateUntil([&] { return partner->Find(sign).has_value(); }));
    return partner;
}

std::unique_ptr<PartnerProcess> TevrolctlTest::StartForeign(const std::string& faults,
                                                            const std::string& sign,
                                                            const std::string& channel,
                                                            const std::string& role) {
    auto end = std::make_unique<PartnerProcess>(Arguments{
        "env", "FOREIGN_FAULTS=" + faults, TEVROLCTL_TESTS "/foreign-end.py", channel, role});
    AwaitText(*end, sign);
    return end;
}

std::unique_ptr<PartnerProcess> TevrolctlTest::StartTool(const Arguments& arguments,
                                                         const std::string& sign) {
    Arguments all = {"exec \"$@\" 2>&1", "sh", TEVROLCTL_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    auto process = std::make_unique<PartnerProcess>("/bin/sh", "-c", all);
    AwaitText(*process, sign);
    return process;
}

void TevrolctlTest::AwaitText(const PartnerProcess& process, const std::string& text) {
    const auto printed = [&] {
        const auto lines = process.Lines();
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
    };
    EXPECT_TRUE(IterateUntil(printed)) << "never printed: " << text;
}

void TevrolctlTest::Record() {
    const auto monitor = StartTool(
        {"monitor", "--write", File("recording"), "--diagram", File("diagram.svg")}, "monitoring");
    const auto partner = StartPartner();
    EXPECT_EQ(Tool({"open", "demo"}, "request <&>\"\nnotify hex:00ff\n").status, kOk);
    AwaitText(*monitor, "leaves");
    monitor->Signal(SIGTERM);
    EXPECT_EQ(monitor->Wait(), kOk);
}

std::unique_ptr<PartnerProcess> TevrolctlTest::StartBus(const std::string& rules,
                                                        const std::string& settings) const {
    std::ofstream(File("bus.conf"))
        << "<busconfig><listen>unix:path=" << File("socket")
        << "</listen><policy context='default'><allow own='*'/><allow send_destination='*'/>"
           "<allow receive_sender='*'/>"
        << rules << "</policy>" << settings << "</busconfig>";
    auto daemon =
        std::make_unique<PartnerProcess>("dbus-daemon", "--config-file=" + File("bus.conf"),
                                         Arguments{"--nofork", "--nopidfile", "--print-address=1"});
    AwaitText(*daemon, "unix:path=");
    return daemon;
}
