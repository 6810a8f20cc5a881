// SPDX-License-Identifier: MIT
// Which calls fail, and how.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/conformance/stub-world.h"

enum class Extent { Once, Twice, EveryOneOfItsKind, EverythingFromThere };
constexpr Extent kExtents[] = {Extent::Once, Extent::Twice, Extent::EveryOneOfItsKind,
                               Extent::EverythingFromThere};
const char* ToString(Extent extent);

struct Way {
    std::string name;
    Failure failure;
};
std::vector<Way> WaysToFail(const FailableCall& call);

// Fails `victim` and as much of what follows, in this run of the operation and in the next ones, as
// `extent` says.
class Plan {
public:
    Plan(FailableCall victim, const Failure& failure, Extent extent);

    std::optional<Failure> Decide(const FailableCall& call);

    int Failed() const {
        return m_failed;
    }

private:
    bool Concerns(const FailableCall& call) const;

    const FailableCall m_victim;
    const Failure m_failure;
    const Extent m_extent;
    int m_failed = 0;
};
