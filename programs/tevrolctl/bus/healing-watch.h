// SPDX-License-Identifier: MIT
// What a tevrol::Channel does not tell by its handlers: that it stands by, and the direct link.
#pragma once

#include <string>
#include <vector>

#include "programs/tevrolctl/bus/end.h"

namespace programs {

class HealingWatch {
public:
    // Of the end that is `role` ("service" or "client") of `channel`.
    HealingWatch(const End& end, std::string channel, std::string role);

    void OnReady(bool ready, const std::string& partner);
    // What is new since the last look, a line each.
    std::vector<std::string> Look();

private:
    void LookForTheActiveEnd(std::vector<std::string>& news);

    const End& m_end;
    const std::string m_channel;
    const std::string m_role;
    std::string m_partner;  // empty while not ready
    bool m_direct = false;
    int m_looks = 0;  // since the last loss
    pid_t m_standing_behind = 0;
};

}  // namespace programs
