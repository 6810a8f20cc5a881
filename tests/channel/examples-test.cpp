// SPDX-License-Identifier: MIT
// The two processes of the example product, started in either order and killed.
#include "tests/channel/ends.h"

namespace channel_test {
namespace {

using tevrol::PartnerProcess;

class ExampleProduct : public ChannelTest {
protected:
    static std::unique_ptr<PartnerProcess> Start(const char* program) {
        return std::make_unique<PartnerProcess>(std::vector<std::string>{program});
    }
    static bool Prints(const PartnerProcess& process, const std::string& line) {
        return Await([&] { return process.Find(line).has_value(); });
    }
};

TEST_F(ExampleProduct, TalksWhicheverProcessStartsFirstAndOutlivesEither) {
    auto thermostat = Start(TEVROL_PRODUCT_SERVICE);
    auto display = Start(TEVROL_PRODUCT_CLIENT);
    EXPECT_TRUE(Prints(*display, "it is 2"));
    EXPECT_TRUE(Prints(*display, "now 2"));
    EXPECT_TRUE(Prints(*thermostat, "the display is there"));

    display->Kill();
    EXPECT_TRUE(Prints(*thermostat, "the display is gone"));
    display = Start(TEVROL_PRODUCT_CLIENT);
    EXPECT_TRUE(Prints(*display, "it is 2"));

    thermostat->Kill();
    EXPECT_TRUE(Prints(*display, "no thermostat"));
    const std::size_t lines = display->Lines().size();
    thermostat = Start(TEVROL_PRODUCT_SERVICE);
    EXPECT_TRUE(Await([&] { return display->Find("it is 2", lines).has_value(); }));
}

TEST_F(ExampleProduct, HasDisplaysOnOtherLoops) {
    for (const char* program : {TEVROL_DISPLAYS}) {
        SCOPED_TRACE(program);
        auto thermostat = Start(TEVROL_PRODUCT_SERVICE);
        const auto display = Start(program);
        EXPECT_TRUE(Prints(*display, "now 2"));
        thermostat->Kill();
        EXPECT_TRUE(Prints(*display, "no thermostat"));
    }
}

}  // namespace
}  // namespace channel_test
