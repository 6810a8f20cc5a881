// SPDX-License-Identifier: MIT
#include "programs/common/payload-argument.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "programs/common/failure.h"

namespace programs {
namespace {

constexpr const char* kFileMark = "file:";
constexpr const char* kTextMark = "text:";

bool Begins(const std::string& text, const std::string& mark) {
    return text.compare(0, mark.size(), mark) == 0;
}

tevrol::Bytes Carriable(tevrol::Bytes payload) {
    if (payload.size() > kLargestPayload) {
        throw Failure(kExitUsage, "no bus carries a payload of more than " +
                                      std::to_string(kLargestPayload) + " bytes (64 MiB)");
    }
    return payload;
}

// Reads no more than shows that it is too much: the file may have no end.
tevrol::Bytes ReadAll(int file, const std::string& name) {
    tevrol::Bytes bytes;
    char buffer[1 << 16];
    while (bytes.size() <= kLargestPayload) {
        const ssize_t size = read(file, buffer, sizeof buffer);
        if (size == 0) {
            break;
        }
        if (size < 0 && errno != EINTR) {
            throw Failure(kExitUsage, "cannot read " + name + ": " + strerror(errno));
        }
        bytes.insert(bytes.end(), buffer, buffer + (size < 0 ? 0 : size));
    }
    return Carriable(std::move(bytes));
}

class File {
public:
    explicit File(const std::string& path)
        : m_path(path), m_file(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (m_file < 0) {
            throw Failure(kExitUsage, "cannot read " + path + ": " + strerror(errno));
        }
    }
    ~File() {
        close(m_file);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    tevrol::Bytes Read() const {
        return ReadAll(m_file, m_path);
    }

private:
    const std::string m_path;
    const int m_file;
};

}  // namespace

tevrol::Bytes ReadPayload(const std::string& typed) {
    if (Begins(typed, kFileMark)) {
        return File(typed.substr(strlen(kFileMark))).Read();
    }
    if (Begins(typed, kTextMark)) {
        return tevrol::ToBytes(typed.substr(strlen(kTextMark)));
    }
    auto payload = tevrol::ParsePayload(typed);
    if (!payload) {
        throw Failure(kExitUsage, "no even number of hexadecimal digits: " + typed);
    }
    return Carriable(std::move(*payload));
}

tevrol::Bytes ReadStandardInput() {
    return ReadAll(STDIN_FILENO, "standard input");
}

}  // namespace programs
