// SPDX-License-Identifier: MIT
// An end of the class tevrol::Channel, in either role.
#pragma once

#include <tevrol/channel.h>

#include <chrono>
#include <functional>
#include <string>

#include "programs/tevrolctl/bus/end.h"

namespace programs {

class HealingEnd : public End {
public:
    // A request gets no reply when `limit` is over.
    HealingEnd(const std::string& name, tevrol::Role role, const Functions& functions,
               std::chrono::milliseconds limit);

    void Request(tevrol::Bytes request, std::function<void(const Outcome&)> done) override;
    // Waits while the partner does not take what waits for it already.
    void Notify(tevrol::Bytes payload) override;
    void Flush() override;
    bool IsReady() override;
    bool IsDirect() const override;

private:
    tevrol::Channel m_channel;
};

}  // namespace programs
