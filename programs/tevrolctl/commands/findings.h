// SPDX-License-Identifier: MIT
// What check has found, as lines or as JSON.
#pragma once

#include <string>

#include "programs/common/failure.h"

namespace programs {

class Findings {
public:
    explicit Findings(bool json) : m_json(json) {}

    void Ok(const std::string& what, const std::string& finding);
    void Warn(const std::string& what, const std::string& finding, const std::string& remedy);
    void Fail(ExitStatus status, const std::string& what, const std::string& finding,
              const std::string& remedy);
    // That of the first failure; kExitFailed where there are warnings alone.
    ExitStatus Status() const {
        return m_status == kExitOk && m_warned ? kExitFailed : m_status;
    }

private:
    // A line; `remedy` is empty where nothing is to be done.
    void Tell(const std::string& verdict, const char* colour, const std::string& what,
              const std::string& finding, const std::string& remedy) const;

    const bool m_json;
    ExitStatus m_status = kExitOk;
    bool m_warned = false;
};

}  // namespace programs
