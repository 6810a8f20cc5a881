// SPDX-License-Identifier: MIT
#include "programs/common/process.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "devkit/outside-text.h"

namespace programs {

Process LookAtProcess(pid_t pid) {
    // PID (NAME) STATE and further fields; the name may hold anything, parentheses too.
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string line{std::istreambuf_iterator<char>(file), {}};
    const std::size_t begin = line.find('(');
    const std::size_t end = line.rfind(')');
    if (begin == std::string::npos || end == std::string::npos) {
        return {};
    }
    Process process;
    process.name = tevrol::Printable(line.substr(begin + 1, end - begin - 1));
    std::istringstream rest(line.substr(end + 1));
    constexpr int kFieldsBeforeStart = 18;
    rest >> process.state;
    std::string skipped;
    for (int field = 0; field < kFieldsBeforeStart; ++field) {
        rest >> skipped;
    }
    rest >> process.started;
    process.started /= static_cast<double>(sysconf(_SC_CLK_TCK));
    return process;
}

std::string DescribeProcess(pid_t pid) {
    const Process process = LookAtProcess(pid);
    return (process.name.empty() ? "" : process.name + ", ") + "process " + std::to_string(pid);
}

}  // namespace programs
