// SPDX-License-Identifier: MIT
// tevrolctl as tests run it: as a process of its own, on a private bus, without a terminal.
#pragma once

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "devkit/loop.h"
#include "devkit/partner-process.h"
#include "devkit/private-bus.h"

enum Status { kOk = 0, kFailed = 1, kUsage = 2, kNoBus = 3, kNoPartner = 4, kNoReply = 5 };

struct Result {
    int status;  // -1 when a signal has ended it
    std::string output;
    std::string errors;
};

using Arguments = std::vector<std::string>;

// Runs a command to its end while the main loop runs.
Result Run(const Arguments& command, const std::string& input = "");
Result Tool(Arguments arguments, const std::string& input = "");
// Runs a command line of the shell in which "$T" is the tool.
Result Shell(const std::string& line);

std::string ReadFile(const std::string& path);
// Expat takes the file at `path`, as browsers do: strictly.
void ExpectWellFormed(const std::string& path);

class TevrolctlTest : public testing::Test {
protected:
    TevrolctlTest();
    ~TevrolctlTest() override;

    std::string File(const std::string& name) const {
        return m_folder + "/" + name;
    }

    // A partner that has announced itself, or at least joined.
    static std::unique_ptr<tevrol::PartnerProcess> StartPartner(
        const Arguments& options = {}, const std::string& sign = "announced SYN");
    // An end on python3-dbus that was written from the protocol's description (foreign-end.py),
    // with the faults named.
    static std::unique_ptr<tevrol::PartnerProcess> StartForeign(
        const std::string& faults = "", const std::string& sign = "announced SYN",
        const std::string& channel = "demo", const std::string& role = "service");
    // A long-running command of the tool, with both of its outputs, that has printed `sign`.
    static std::unique_ptr<tevrol::PartnerProcess> StartTool(const Arguments& arguments,
                                                             const std::string& sign);
    static void AwaitText(const tevrol::PartnerProcess& process, const std::string& text);

    // Records a whole conversation to the file "recording" and draws it to "diagram.svg".
    void Record();

    // A second bus, at the path "socket", with further rules and settings.
    std::unique_ptr<tevrol::PartnerProcess> StartBus(const std::string& rules,
                                                     const std::string& settings) const;

    const tevrol::PrivateBus bus;

private:
    std::string m_folder;
};
