// SPDX-License-Identifier: MIT
// Nothing that the channel calls escapes the recorder, and no recording is left over.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

using Names = std::set<std::string>;

Names Words(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

std::string OutputOf(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 4096> part{};
    for (std::size_t read = 1; read > 0;) {
        read = fread(part.data(), 1, part.size(), pipe);
        output.append(part.data(), read);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

// Calls of what is not a library of the channel's: the C++ runtime, the C library's memory and
// string functions, what instrumented builds add, and what the macro G_VARIANT_TYPE leaves of its
// check. The channel's own symbols are C++ as well.
bool IsRuntime(const std::string& symbol) {
    static const std::regex runtime(
        "_Z.*|__cxa_.*|_Unwind_.*|__g(cc|xx)_personality_v0|_GLOBAL_OFFSET_TABLE_|__stack_chk_fail|"
        "memcmp|memcpy|memmove|memset|bcmp|strlen|stdout|__g?cov_.*|__gcov_.*|llvm_gcov.*|"
        "__(a|l|t|ub|h)san_.*|__sanitizer_.*|__sancov.*|g_variant_type_checked_");
    return std::regex_match(symbol, runtime);
}

Names NeededByTheChannel() {
    const std::string output =
        OutputOf(std::string(TEVROL_NM) + " --undefined-only --format=just-symbols " +
                 TEVROL_CHANNEL_OBJECTS);
    Names needed;
    for (const std::string& word : Words(output)) {
        if (word.back() != ':' && !IsRuntime(word)) {  // not the name of a file
            needed.insert(word);
        }
    }
    return needed;
}

TEST(WrappedCalls, AreExactlyThoseOfTheChannelsObjects) {
    Names needed = NeededByTheChannel();
    EXPECT_EQ(needed.erase("__dlog_print"), 1U);  // defined by the test program
    Names wrapped = Words(TEVROL_WRAPPED_CALLS);
    // One and the same call, depending on the optimisation.
    EXPECT_EQ(needed.erase("putc") + needed.erase("putchar"), 1U);
    EXPECT_EQ(wrapped.erase("putc") + wrapped.erase("putchar"), 2U);
    EXPECT_EQ(needed, wrapped);
}

TEST(Recordings, EachBelongsToTest) {
    Names tests;
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *all.GetTestSuite(i);
        std::string name = suite.name();
        name.erase(0, name.find('/') + 1);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            tests.insert(name + "." + suite.GetTestInfo(j)->name());
        }
    }
    int recordings = 0;
    for (const auto& file : std::filesystem::directory_iterator(TEVROL_RECORDINGS)) {
        std::ifstream lines(file.path());
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, 3, "== ") == 0) {
                ++recordings;
                EXPECT_EQ(tests.count(file.path().stem().string() + "." + line.substr(3)), 1U)
                    << line;
            }
        }
    }
    EXPECT_GT(recordings, 0);
}

}  // namespace
