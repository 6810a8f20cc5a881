// SPDX-License-Identifier: MIT
// What the stand-in for the device's log makes of each line. openlog() and syslog() are led here at
// link time (see tests/CMakeLists.txt).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>
#include <string>
#include <vector>

#include "platform/dlog.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

struct SyslogLine {
    std::string identifier;
    int level;
    std::string text;

    bool operator==(const SyslogLine& other) const {
        return identifier == other.identifier && level == other.level && text == other.text;
    }
};

std::ostream& operator<<(std::ostream& out, const SyslogLine& line) {
    return out << line.identifier << '[' << line.level << "]: " << line.text;
}

// As the C library has them. The stand-in is what guards them.
const char* g_identifier = "";
int g_options = -1;
int g_facility = -1;
std::vector<SyslogLine> g_lines;

void Record(int level, const char* format, va_list args) {
    char* text = nullptr;
    ASSERT_GE(vasprintf(&text, format, args), 0);
    g_lines.push_back({g_identifier, level, text});
    free(text);
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void __wrap_openlog(const char* identifier, int options, int facility) {
    g_identifier = identifier;
    g_options = options;
    g_facility = facility;
}

__attribute__((format(printf, 2, 3))) void __wrap_syslog(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Record(level, format, args);
    va_end(args);
}

// What syslog() is where the compiler fortifies.
__attribute__((format(printf, 3, 4))) void __wrap___syslog_chk(int level, int /*flag*/,
                                                               const char* format, ...) {
    va_list args;
    va_start(args, format);
    Record(level, format, args);
    va_end(args);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

TEST(LogStandIn, MapsPrioritiesAndTag) {
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "sandrel", "%s: %d", "course", 1);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "other", "%s: %d", "failure", 2);
    EXPECT_THAT(g_lines, ElementsAre(SyslogLine{"sandrel", LOG_DEBUG, "course: 1"},
                                     SyslogLine{"other", LOG_ERR, "failure: 2"}));
    EXPECT_EQ(g_options, 0);
    EXPECT_EQ(g_facility, LOG_USER);
}

TEST(LogStandIn, TrailingNewlinesAreFolded) {
    for (const char* text : {"none", "one\n", "two\n\n", "in\nside\n", "\n\nahead", "", "\n\n"}) {
        __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "sandrel", "%s", text);
    }
    std::vector<std::string> texts;
    texts.reserve(g_lines.size());
    for (const SyslogLine& line : g_lines) {
        texts.push_back(line.text);
    }
    EXPECT_THAT(texts, ElementsAre("none", "one", "two", "in\nside", "\n\nahead", "", ""));
}

TEST(LogStandIn, FormattedTextIsNotFormattedAgain) {
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "sandrel", "%s", "100 % of %s and %n");
    EXPECT_THAT(g_lines, ElementsAre(SyslogLine{"sandrel", LOG_DEBUG, "100 % of %s and %n"}));
}

TEST(LogStandIn, LongLinesAreNotCut) {
    const std::string text(100000, 'x');
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "sandrel", "%s\n", text.c_str());
    EXPECT_THAT(g_lines, ElementsAre(SyslogLine{"sandrel", LOG_DEBUG, text}));
}

TEST(LogStandIn, FailedFormattingGivesEmptyLine) {
    // The locale "C" has no such character.
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "sandrel", "%ls", L"\x20ac"), 0);
    EXPECT_THAT(g_lines, ElementsAre(SyslogLine{"sandrel", LOG_DEBUG, ""}));
}

TEST(LogStandIn, ReturnsLengthOfLine) {
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "sandrel", "%s\n\n", "12345"), 5);
}

TEST(LogStandIn, TagAndLineStayTogetherAcrossThreads) {
    constexpr int kLines = 1000;
    const auto write = [](const char* tag) {
        for (int i = 0; i < kLines; ++i) {
            __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, tag, "%s", tag);
        }
    };
    auto other = std::async(std::launch::async, write, "other");
    write("sandrel");
    other.get();
    EXPECT_THAT(g_lines, SizeIs(2 * kLines));
    EXPECT_THAT(
        g_lines,
        Each(testing::Truly([](const SyslogLine& line) { return line.identifier == line.text; })));
}

// ---- What the environment changes, in a process of its own: it is read at the first line ----

class LogStandInByEnvironment : public testing::Test {
protected:
    LogStandInByEnvironment() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }

    // Ends the process, having printed what two lines have become.
    [[noreturn]] static void WriteTwoLines(const char* variable, const char* value) {
        setenv(variable, value, 1);
        __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "sandrel", "course");
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "sandrel", "failure");
        for (const SyslogLine& line : g_lines) {
            std::cerr << line << '|';
        }
        std::cerr << (g_options == LOG_PERROR ? "to standard error" : "") << '.';
        std::exit(0);
    }
    static void Gives(const char* variable, const char* value, const std::string& expected) {
        EXPECT_EXIT(WriteTwoLines(variable, value), testing::ExitedWithCode(0),
                    testing::Eq(expected));
    }
};

TEST_F(LogStandInByEnvironment, WritesAllWhereItIsEmptyOrDebug) {
    for (const char* level : {"", "debug"}) {
        Gives("TEVROL_LOG_LEVEL", level, "sandrel[7]: course|sandrel[3]: failure|.");
    }
}

TEST_F(LogStandInByEnvironment, WritesFailuresAlone) {
    Gives("TEVROL_LOG_LEVEL", "error", "sandrel[3]: failure|.");
}

TEST_F(LogStandInByEnvironment, WritesNothing) {
    Gives("TEVROL_LOG_LEVEL", "none", ".");
}

TEST_F(LogStandInByEnvironment, SaysThatALevelIsUnknown) {
    Gives("TEVROL_LOG_LEVEL", "warning",
          R"([11]: TEVROL_LOG_LEVEL is "warning" instead of "debug", "error" or "none"|)"
          "sandrel[7]: course|sandrel[3]: failure|.");
}

TEST_F(LogStandInByEnvironment, WritesToStandardErrorToo) {
    Gives("TEVROL_LOG_STDERR", "yes", "sandrel[7]: course|sandrel[3]: failure|to standard error.");
    Gives("TEVROL_LOG_STDERR", "no", "sandrel[7]: course|sandrel[3]: failure|.");
}

}  // namespace
