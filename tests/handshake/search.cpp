// SPDX-License-Identifier: MIT
#include "tests/handshake/search.h"

#include <algorithm>
#include <deque>
#include <unordered_map>
#include <utility>

namespace tevrol::model {
namespace {

using State = std::uint32_t;

struct Edge {
    State to;
    bool by_timer;
};

struct Node {
    State from;          // the shortest run to it
    std::uint16_t step;  // which one of the steps from there
    bool complete;
    bool paired;
};

class Graph {
public:
    explicit Graph(World start) : m_start(std::move(start)) {
        m_start.Digest();
    }

    Finding Search() {
        Explore();
        m_finding.states = m_nodes.size();
        if (m_finding.refuted.empty()) {
            FindUnpaired();
        }
        return m_finding;
    }

private:
    void Explore() {
        Add(World(m_start), 0, 0);
        for (State state = 0; !m_frontier.empty() && m_finding.refuted.empty(); ++state) {
            const World world = std::move(m_frontier.front());
            m_frontier.pop_front();
            m_first_edge.push_back(m_edges.size());
            std::uint16_t count = 0;
            world.VisitNext([&](World& next, const Step& step) {
                const State found = Add(std::move(next), state, count++);
                if (!step.by_fault) {
                    m_edges.push_back({found, step.by_timer});
                }
            });
        }
        m_first_edge.push_back(m_edges.size());
    }

    State Add(World&& world, State from, std::uint16_t step) {
        const auto [place, is_new] =
            m_known.emplace(world.Digest(), static_cast<State>(m_nodes.size()));
        const State state = place->second;
        if (is_new) {
            m_nodes.push_back({from, step, world.IsComplete(), world.IsPaired()});
            const std::string violation = world.Violation();
            if (!violation.empty() && m_finding.refuted.empty()) {
                m_finding.refuted = violation;
                m_finding.run = RunTo(state);
            }
            m_frontier.push_back(std::move(world));
        }
        return state;
    }

    // A state ends well where it stays paired whatever happens without a fault, or where all that
    // may happen without a fault leads to states that end well.
    void FindUnpaired() {
        FindPredecessors();
        FindStatesThatStayPaired();
        FindStatesThatEndWell();
        for (State state = 0; state < m_nodes.size(); ++state) {
            if (m_nodes[state].complete && !m_ends_well[state]) {
                m_finding.refuted = "a run without further faults does not end up paired for good";
                m_finding.run = RunTo(state);
                AppendLoop(state);
                return;
            }
        }
        m_finding.slowest = RunTo(m_slowest);
    }

    void FindPredecessors() {
        m_before.resize(m_nodes.size());
        for (State state = 0; state < m_nodes.size(); ++state) {
            ForEachNext(state, [&](const Edge& edge) { m_before[edge.to].push_back(state); });
        }
    }

    void FindStatesThatStayPaired() {
        m_ends_well.resize(m_nodes.size());
        std::vector<State> removed;
        for (State state = 0; state < m_nodes.size(); ++state) {
            m_ends_well[state] = m_nodes[state].complete && m_nodes[state].paired;
            if (!m_ends_well[state]) {
                removed.push_back(state);
            }
        }
        while (!removed.empty()) {
            const State state = removed.back();
            removed.pop_back();
            for (const State earlier : m_before[state]) {
                if (m_ends_well[earlier]) {
                    m_ends_well[earlier] = false;
                    removed.push_back(earlier);
                }
            }
        }
    }

    void FindStatesThatEndWell() {
        m_timeouts.resize(m_nodes.size());
        std::vector<std::size_t> open(m_nodes.size());
        std::vector<State> added;
        for (State state = 0; state < m_nodes.size(); ++state) {
            open[state] = m_first_edge[state + 1] - m_first_edge[state];
            if (m_ends_well[state]) {
                added.push_back(state);
            }
        }
        while (!added.empty()) {
            const State state = added.back();
            added.pop_back();
            for (const State earlier : m_before[state]) {
                if (--open[earlier] == 0 && !m_ends_well[earlier]) {
                    m_ends_well[earlier] = true;
                    added.push_back(earlier);
                    CountTimeouts(earlier);
                }
            }
        }
    }

    void CountTimeouts(State state) {
        ForEachNext(state, [&](const Edge& edge) {
            m_timeouts[state] =
                std::max(m_timeouts[state], m_timeouts[edge.to] + (edge.by_timer ? 1U : 0U));
        });
        if (m_timeouts[state] > m_finding.timeouts) {
            m_finding.timeouts = m_timeouts[state];
            m_slowest = state;
        }
    }

    template <typename Visit>
    void ForEachNext(State state, Visit visit) const {
        for (std::size_t edge = m_first_edge[state]; edge < m_first_edge[state + 1]; ++edge) {
            visit(m_edges[edge]);
        }
    }

    // What happens for ever from there on.
    void AppendLoop(State state) {
        m_finding.run.emplace_back("from here on nothing is a fault:");
        std::vector<State> path = {state};
        for (;;) {
            World world = Follow(path.back(), nullptr);
            State following = path.back();
            std::string text = "nothing happens any more";
            world.VisitNext([&](World& next, const Step& step) {
                const State found = m_known.at(next.Digest());
                if (!step.by_fault && !m_ends_well[found] && following == path.back()) {
                    following = found;
                    text = Line(step);
                }
            });
            m_finding.run.push_back(text);
            const auto met = std::find(path.begin(), path.end(), following);
            if (met != path.end()) {
                m_finding.run.push_back("and so on, from " + std::to_string(path.end() - met) +
                                        " steps before");
                return;
            }
            path.push_back(following);
        }
    }

    static std::string Line(const Step& step) {
        return "end " + std::to_string(step.end) + " " + step.what;
    }

    std::vector<State> PathTo(State state) const {
        std::vector<State> path;
        for (; state != 0; state = m_nodes[state].from) {
            path.push_back(state);
        }
        std::reverse(path.begin(), path.end());
        return path;
    }

    World Follow(State state, std::vector<std::string>* run) const {
        World world = m_start;
        for (const State passed : PathTo(state)) {
            World following = world;
            std::uint16_t count = 0;
            world.VisitNext([&](World& next, const Step& step) {
                if (count++ == m_nodes[passed].step) {
                    following = next;
                    if (run != nullptr) {
                        run->push_back(Line(step));
                    }
                }
            });
            following.Digest();
            world = following;
        }
        return world;
    }

    std::vector<std::string> RunTo(State state) const {
        std::vector<std::string> run;
        Follow(state, &run);
        return run;
    }

    World m_start;
    Finding m_finding;
    std::vector<Node> m_nodes;
    std::unordered_map<std::string, State> m_known;
    std::deque<World> m_frontier;
    // The steps without a fault, state by state.
    std::vector<Edge> m_edges;
    std::vector<std::size_t> m_first_edge;
    std::vector<std::vector<State>> m_before;
    std::vector<bool> m_ends_well;
    std::vector<unsigned> m_timeouts;  // that it may take until paired for good
    State m_slowest = 0;
};

}  // namespace

Finding Search(const World& start) {
    return Graph(start).Search();
}

}  // namespace tevrol::model
