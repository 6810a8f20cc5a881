// SPDX-License-Identifier: MIT
#include "tests/conformance/failure-plan.h"

#include <utility>

std::vector<Way> WaysToFail(const FailableCall& call) {
    if (call.function == "pthread_create") {
        return {{"with a handle", {false, {}, true}}, {"without a handle", {false, {}, false}}};
    }
    std::vector<Way> ways = {{"without an error", {false, {}}}};
    if (call.takes_error) {
        ways.push_back({"with an error", {true, {}}});
    }
    if (call.method == "RequestName") {
        for (const guint32 code : {2U, 3U, 4U, 0U, 99U}) {
            ways.push_back({"with code " + std::to_string(code), {false, code}});
        }
    }
    if (call.method == "ReleaseName") {  // 2: non-existent, 3: not the owner
        ways.push_back({"with code 2", {false, 2U}});
        ways.push_back({"with code 3", {false, 3U}});
    }
    return ways;
}

const char* ToString(Extent extent) {
    switch (extent) {
        case Extent::Once:
            return "once";
        case Extent::Twice:
            return "twice";
        case Extent::EveryOneOfItsKind:
            return "always";
        case Extent::EverythingFromThere:
            return "with all that follows";
    }
    return "";
}

Plan::Plan(FailableCall victim, const Failure& failure, Extent extent)
    : m_victim(std::move(victim)), m_failure(failure), m_extent(extent) {}

std::optional<Failure> Plan::Decide(const FailableCall& call) {
    if (call.number < m_victim.number || !Concerns(call)) {
        return std::nullopt;
    }
    ++m_failed;
    Failure chosen = m_failure;
    if (!call.IsLike(m_victim)) {
        chosen.code.reset();
    }
    return chosen;
}

bool Plan::Concerns(const FailableCall& call) const {
    switch (m_extent) {
        case Extent::Once:
            return m_failed == 0;  // the victim is the first
        case Extent::Twice:
            return m_failed < 2 && call.IsLike(m_victim);
        case Extent::EveryOneOfItsKind:
            return call.IsLike(m_victim);
        case Extent::EverythingFromThere:
            return true;
    }
    return false;
}
