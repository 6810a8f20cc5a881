// SPDX-License-Identifier: MIT
// Each call that can fail, at each place where an operation makes it, failed in every way, and the
// operation repeated while the failure lasts and when it is over. What must hold in each case: the
// operation ends, the log tells what it has to, nothing is lost, once nothing fails any more the
// operation does its work again, and the channel can find a partner afterwards or, where what it
// needs for that was refused, be destroyed.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>

#include "tests/conformance/failure-checks.h"
#include "tests/conformance/failure-plan.h"
#include "tests/conformance/scenarios.h"

namespace {

// Who did what, from the event `first` on.
std::vector<std::string> Outline(const std::vector<Event>& events, std::size_t first) {
    std::vector<std::string> outline;
    for (std::size_t i = first; i < events.size(); ++i) {
        outline.push_back(events[i].function + " " + events[i].method);
    }
    return outline;
}

// All that happened, to the last detail.
std::string Course(const std::vector<Event>& events) {
    std::string course;
    for (const Event& event : events) {
        course += event.text + (event.failed ? " failed\n" : "\n");
    }
    return course;
}

struct Run {
    std::vector<FailableCall> calls;
    std::vector<std::string> outline;  // what happened, without the names that differ between runs
    int failed = 0;                    // calls, by the plan, since the run before
    bool can_begin = true;             // the state was the one that the operation begins in
};

Run PerformOnce(const Scenario& scenario, ChannelLife& life, const char* partner, bool again) {
    Run run;
    if (again) {
        scenario.begin(life, partner);
        run.can_begin = WhyNoPartner(life).empty() && !RecordsNoThread(life);
    }
    const auto first_call = static_cast<std::ptrdiff_t>(life.world.FailableCalls().size());
    const std::size_t first_event = life.world.Events().size();
    scenario.act(life, partner);
    CheckState(life);
    const std::vector<FailableCall>& calls = life.world.FailableCalls();
    run.calls.assign(calls.begin() + first_call, calls.end());
    run.outline = Outline(life.world.Events(), first_event);
    return run;
}

// The operation as often as it can be repeated, with the plan in force from the first run to the
// last. All of it is recorded.
std::vector<Run> Perform(const Scenario& scenario, ChannelLife& life, Plan* plan) {
    scenario.prepare(life);
    if (scenario.begin) {
        scenario.begin(life, kPartners[0]);
    }
    const auto failed = [plan] { return plan == nullptr ? 0 : plan->Failed(); };
    if (plan != nullptr) {
        life.world.plan = [plan](const FailableCall& call) { return plan->Decide(call); };
    }
    life.Record();
    std::vector<Run> runs;
    for (const char* partner : kPartners) {
        if (!runs.empty() && !scenario.begin) {
            break;
        }
        const int before = failed();
        runs.push_back(PerformOnce(scenario, life, partner, !runs.empty()));
        runs.back().failed = failed() - before;
    }
    life.Stop();
    life.world.plan = nullptr;
    return runs;
}

// The number of runs in which something fails, if the call comes in each.
std::size_t FailingRuns(Extent extent) {
    switch (extent) {
        case Extent::Once:
            return 1;
        case Extent::Twice:
            return 2;
        default:
            return std::size(kPartners);
    }
}

bool Makes(const Run& run, const FailableCall& victim) {
    return std::any_of(run.calls.begin(), run.calls.end(),
                       [&](const FailableCall& call) { return call.IsLike(victim); });
}

// Each run against the one in which nothing fails: it fails as far as the failure extends, and
// where it does not fail it is the same.
void CheckRuns(const std::vector<Run>& runs, const std::vector<Run>& undisturbed,
               const FailableCall& victim, Extent extent) {
    ASSERT_EQ(runs.size(), undisturbed.size());
    EXPECT_GE(runs[0].failed, 1);
    if (extent == Extent::Once) {
        EXPECT_EQ(runs[0].failed, 1);
    }
    const bool lasts = FailingRuns(extent) == std::size(kPartners);
    for (std::size_t i = 1; i < runs.size(); ++i) {
        if (i >= FailingRuns(extent)) {
            EXPECT_EQ(runs[i].failed, 0) << "run " << i;
        } else if (lasts && Makes(undisturbed[i], victim) && runs[i].can_begin) {
            EXPECT_GE(runs[i].failed, 1) << "run " << i;
        }
        if (runs[i].failed == 0 && runs[i].can_begin) {
            EXPECT_EQ(runs[i].outline, undisturbed[i].outline) << "run " << i;
        }
    }
}

struct Tally {
    int calls = 0;
    int cells = 0;
    int found = 0;                         // a partner afterwards
    std::map<std::string, int> destroyed;  // could only be destroyed, by reason
    std::set<std::string> failed;          // the functions

    void Add(const Tally& other) {
        calls += other.calls;
        cells += other.cells;
        found += other.found;
        for (const auto& [reason, count] : other.destroyed) {
            destroyed[reason] += count;
        }
        failed.insert(other.failed.begin(), other.failed.end());
    }

    void Print(const char* of_what) const {
        printf("%s: %d calls, %d cells: %d found a partner afterwards, %d were destroyed\n",
               of_what, calls, cells, found, cells - found);
        for (const auto& [reason, count] : destroyed) {
            printf("  %4d destroyed: %s\n", count, reason.c_str());
        }
    }
};

// What happens to the channel afterwards: empty where it finds a partner, or why it cannot.
std::string EndOf(ChannelLife& life, const std::vector<Event>& events) {
    if (life.channel == nullptr) {
        return "by the operation itself";
    }
    std::string reason = Recover(life, events);
    life.channel.reset();
    return reason;
}

// The cells of one scenario: each is a way for one of its calls to fail.
class Cells {
public:
    explicit Cells(const Scenario& scenario) : m_scenario(scenario) {
        ChannelLife life;
        m_undisturbed = Perform(scenario, life, nullptr);
    }

    Tally Run() {
        for (const FailableCall& call : m_undisturbed[0].calls) {
            ++m_tally.calls;
            for (const Way& way : WaysToFail(call)) {
                for (const Extent extent : kExtents) {
                    SCOPED_TRACE("call " + std::to_string(call.number) + " (" + call.function +
                                 " " + call.method + ") fails " + way.name + ", " +
                                 ToString(extent));
                    RunCell(call, way.failure, extent);
                }
            }
        }
        return m_tally;
    }

private:
    void RunCell(const FailableCall& victim, const Failure& failure, Extent extent) {
        ChannelLife life;
        Plan plan(victim, failure, extent);
        const std::vector<::Run> runs = Perform(m_scenario, life, &plan);
        const std::vector<Event> events = life.world.Events();
        CheckRuns(runs, m_undisturbed, victim, extent);
        CheckLog(events);
        const std::string reason = EndOf(life, events);
        CheckNothingElseIsHeld(life.world, Replies(events) + (reason.empty() ? 1 : 0));
        Count(events, reason);
    }

    // A cell in which exactly the same happened as in another is not counted again: where the call
    // is made once, failing it twice is failing it once.
    void Count(const std::vector<Event>& events, const std::string& reason) {
        if (!m_seen.insert(Course(events)).second) {
            return;
        }
        ++m_tally.cells;
        ++(reason.empty() ? m_tally.found : m_tally.destroyed[reason]);
        for (const Event& event : events) {
            if (event.failed) {
                m_tally.failed.insert(event.kind == Event::Kind::Log ? "__dlog_print"
                                                                     : event.function);
            }
        }
    }

    const Scenario& m_scenario;
    std::vector<::Run> m_undisturbed;
    std::set<std::string> m_seen;
    Tally m_tally;
};

// ---- What is not failed ----

// All calls of the channel that are not failed above, and why.
const std::map<std::string, std::string> kNeverFailed = {
    {"g_bus_unown_name", "returns nothing"},
    {"g_bus_unwatch_name", "returns nothing"},
    {"g_clear_error", "returns nothing; the error is the one to be freed"},
    {"g_dbus_connection_get_unique_name",
     "null only for a connection that is not to a message bus, which g_bus_get_sync() never gives"},
    {"g_dbus_connection_signal_unsubscribe", "returns nothing"},
    {"g_dbus_method_invocation_return_value", "returns nothing"},
    {"g_dbus_node_info_new_for_xml",
     "takes an error and may give null, but its text is a constant that always parses (every test "
     "parses it, by GIO itself), so the channel asks for no error and does not look"},
    {"g_dbus_node_info_unref", "returns nothing"},
    {"g_error_free", "returns nothing"},
    {"g_object_unref", "returns nothing"},
    {"g_type_init", "returns nothing"},
    {"g_variant_builder_add", "returns nothing"},
    {"g_variant_builder_new", "never null: GLib ends the program when memory runs out"},
    {"g_variant_builder_unref", "returns nothing"},
    {"g_variant_get", "returns nothing; that it leaves its variables untouched is in recordings/"},
    {"g_variant_get_type_string", "never null: each value has a type"},
    {"g_variant_is_of_type", "false is an answer; in recordings/"},
    {"g_variant_iter_free", "returns nothing"},
    {"g_variant_iter_loop", "false is the end of the array, which comes each time"},
    {"g_variant_new", "never null: GLib ends the program when memory runs out"},
    {"g_variant_unref", "returns nothing"},
    {"pthread_join", "an error number only for a thread that was joined or that joins itself"},
    {"pthread_mutex_destroy", "an error number only for a mutex that is held"},
    {"pthread_mutex_init", "an error number only for attributes, and there are none"},
    {"pthread_mutex_lock", "an error number only for kinds of mutexes that this is not"},
    {"pthread_mutex_trylock", "busy is an answer; the channel does not ask"},
    {"pthread_mutex_unlock", "an error number only for kinds of mutexes that this is not"},
    {"putc", "failed as putchar, of which it is the other form"},
};

void CheckThatNoCallIsLeftOut(const std::set<std::string>& failed) {
    std::set<std::string> expected = {"__dlog_print"};
    std::istringstream wrapped(TEVROL_WRAPPED_CALLS);
    for (std::string name; wrapped >> name;) {
        if (kNeverFailed.count(name) == 0) {
            expected.insert(name);
        }
    }
    EXPECT_EQ(failed, expected) << "a call is neither failed nor among those that never are";
}
class FailEveryCall : public testing::TestWithParam<Scenario> {
protected:
    FailEveryCall() {
        constexpr unsigned kSecondsPerScenario = 120;
        alarm(kSecondsPerScenario);  // a hang fails too
    }
    ~FailEveryCall() override {
        alarm(0);
    }
    static void TearDownTestSuite() {
        s_all.Print("all");
        if (s_scenarios == Scenarios().size()) {
            CheckThatNoCallIsLeftOut(s_all.failed);
        }
    }

    static void Run(const Scenario& scenario) {
        const Tally tally = Cells(scenario).Run();
        tally.Print(scenario.name);
        s_all.Add(tally);
        ++s_scenarios;
    }

private:
    // Of the scenarios that this process has run.
    inline static Tally s_all;
    inline static std::size_t s_scenarios = 0;
};

TEST_P(FailEveryCall, LeavesAUsableChannelOrOneToDestroy) {
    Run(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Scenario, FailEveryCall, testing::ValuesIn(Scenarios()),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace
