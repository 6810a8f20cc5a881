// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "devkit/colour.h"
#include "examples/demo.h"

namespace demo {
namespace {

class Narrator {
public:
    void Print(const char* colour, const std::string& who, const std::string& what) {
        const bool coloured = m_coloured && *colour != '\0';
        const std::lock_guard<std::mutex> lock(m_mutex);
        printf("%s%7.3f s  %-12s %s%s\n", coloured ? colour : "", Seconds(), who.c_str(),
               what.c_str(), coloured ? "\033[0m" : "");
        fflush(stdout);
    }
    void Headline(const std::string& what) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        printf("\n%s\n", what.c_str());
        fflush(stdout);
    }
    double Seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    }

private:
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    const bool m_coloured = tevrol::MayColour(STDOUT_FILENO);
    std::mutex m_mutex;  // one line at a time
};

Narrator& Narration() {
    static Narrator narrator;
    return narrator;
}

}  // namespace

void Tell(const std::string& who, const std::string& what) {
    Narration().Print("", who, what);
}

void TellLog(const std::string& line) {
    Narration().Print("\033[36m", "log", line);
}

void Headline(const std::string& what) {
    Narration().Headline(what);
}

double Seconds() {
    return Narration().Seconds();
}

void Check(bool holds, const std::string& what) {
    if (!holds) {
        throw Failure(what);
    }
}

tevrol::Bytes Reversed(const tevrol::Bytes& bytes) {
    return {bytes.rbegin(), bytes.rend()};
}

}  // namespace demo
