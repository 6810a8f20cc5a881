// SPDX-License-Identifier: MIT
// A payload over every limit where memory is short, too: the application ends at once and says why.
// By the conversion byte by byte its memory does not suffice for the message; by the other one the
// bus refuses the message and closes the connection.
#include <csignal>

#include "tests/support/channel-test.h"
#include "tests/support/program.h"

namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

class OversizedPayload : public ChannelTest, public testing::WithParamInterface<const char*> {
protected:
    OversizedPayload() {
        partner.Join();
    }

    TestPartner partner;
};

TEST_P(OversizedPayload, EndsProcessForWantOfMemory) {
    const ProgramResult result = RunProgram({TEVROL_OVERSIZED_PerByte, GetParam()});
    // GLib ends it by g_error() where its slices are malloc's, else by abort().
    EXPECT_THAT(result.status, AnyOf(128 + SIGTRAP, 128 + SIGABRT));
    EXPECT_THAT(result.errors, StartsWith("sending\n"));
    EXPECT_THAT(result.errors, HasSubstr("failed to allocate"));
}

TEST_P(OversizedPayload, EndsProcessByClosedConnectionInOneCopy) {
    const ProgramResult result = RunProgram({TEVROL_OVERSIZED_Bulk, GetParam()});
    EXPECT_EQ(result.status, 128 + SIGTERM);  // GIO's exit-on-close
    EXPECT_THAT(result.errors, StartsWith("sending\n"));
    EXPECT_THAT(result.errors, HasSubstr("sent\n"));
    if (std::string(GetParam()) == "request") {
        EXPECT_THAT(result.errors, HasSubstr("Error while sending message [18] The connection is "
                                             "closed"));
    }
}

INSTANTIATE_TEST_SUITE_P(By, OversizedPayload, testing::Values("notify", "request"),
                         [](const auto& route) { return std::string(route.param); });

}  // namespace
