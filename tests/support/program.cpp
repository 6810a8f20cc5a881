// SPDX-License-Identifier: MIT
#include "tests/support/program.h"

#include "devkit/subprocess.h"

ProgramResult RunProgram(const std::vector<std::string>& arguments, const std::string& input) {
    int pipes = G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE;
    const gchar* typed = nullptr;
    if (!input.empty()) {
        pipes |= G_SUBPROCESS_FLAGS_STDIN_PIPE;
        typed = input.c_str();
    }
    const auto program =
        tevrol::StartDyingWithParent(arguments, static_cast<GSubprocessFlags>(pipes));
    gchar* output = nullptr;
    gchar* errors = nullptr;
    g_subprocess_communicate_utf8(program.get(), typed, nullptr, &output, &errors, nullptr);
    const int status = g_subprocess_get_if_signaled(program.get())
                           ? 128 + g_subprocess_get_term_sig(program.get())
                           : g_subprocess_get_exit_status(program.get());
    ProgramResult result = {status, output == nullptr ? "" : output,
                            errors == nullptr ? "" : errors};
    g_free(output);
    g_free(errors);
    return result;
}
