// SPDX-License-Identifier: MIT
#include "programs/common/output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "devkit/colour.h"
#include "devkit/thread-safety.h"
#include "programs/common/failure.h"

namespace programs {
namespace {

tevrol::Mutex g_one_text_at_a_time;
int g_output TEVROL_GUARDED_BY(g_one_text_at_a_time) = STDOUT_FILENO;

}  // namespace

void KeepOutputClean() {
    const tevrol::Lock lock(g_one_text_at_a_time);
    g_output = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

void Print(const std::string& text) {
    const tevrol::Lock lock(g_one_text_at_a_time);
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t result = write(g_output, text.data() + written, text.size() - written);
        if (result < 0 && errno != EINTR) {
            PrintError(std::string("cannot write to standard output: ") + strerror(errno));
            std::exit(kExitFailed);
        }
        written += result < 0 ? 0 : static_cast<std::size_t>(result);
    }
}

void PrintLine(const std::string& line) {
    Print(line + "\n");
}

void PrintError(const std::string& message) {
    std::cerr << program_invocation_short_name + (": " + message + "\n") << std::flush;
}

std::string Coloured(const char* colour, const std::string& text) {
    const tevrol::Lock lock(g_one_text_at_a_time);
    return tevrol::MayColour(g_output) ? colour + text + kPlain : text;
}

}  // namespace programs
