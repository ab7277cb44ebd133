// storm_test.cc: eight processes on one file, of every shape and under both ways of sharing, undisturbed and with one
// of them killed again and again. VFS_STORM_SECONDS and VFS_STORM_SEED make a storm longer, or another one.
#include "storm.h"

#include <iostream>
#include <random>

namespace {

using namespace host;

struct weather {
    shape what;
    uint32_t lock_mode;
    bool kills;
};

void PrintTo(const weather &how, std::ostream *out)
{
    *out << name_of(how.what) << " lock mode " << how.lock_mode << (how.kills ? " with kills" : "");
}

std::string name_of_case(const testing::TestParamInfo<weather> &info)
{
    return std::string{name_of(info.param.what)} + (info.param.lock_mode == VFS_LOCK_RECORD ? "Records" : "Blocks") +
           (info.param.kills ? "Killed" : "");
}

class Storm : public testing::TestWithParam<weather> {};

TEST_P(Storm, EveryAnswerIsKept)
{
    const weather how = GetParam();
    const storm_ground ground;
    const auto seconds = static_cast<int64_t>(number_from("VFS_STORM_SECONDS", 0));
    const uint64_t seed = number_from("VFS_STORM_SEED", std::random_device{}());
    const storm_report report = run_storm({.what = how.what,
                                           .lock_mode = how.lock_mode,
                                           .kills = how.kills,
                                           .milliseconds = seconds != 0 ? seconds * 1000 : 1500,
                                           .seed = seed,
                                           .directory = ground.directory()});
    std::ostringstream figures;
    figures << report;
    std::cout << testing::PrintToString(how) << ", seed " << seed << ": " << figures.str() << std::endl;
    RecordProperty("figures", figures.str());
    EXPECT_EQ(report.anomalies, "") << "VFS_STORM_SEED=" << seed;
    EXPECT_GT(report.operations, 100u); // how many depends on what else the machine does
    if (how.kills) {
        EXPECT_GT(report.kills, 10u);
    }
    EXPECT_LT(report.longest_ns, 5'000'000'000) << "somebody waited for somebody who was gone";
}

INSTANTIATE_TEST_SUITE_P(Indexed, Storm,
                         testing::Values(weather{shape::indexed, VFS_LOCK_RECORD, false},
                                         weather{shape::indexed, VFS_LOCK_AUTO, false},
                                         weather{shape::indexed, VFS_LOCK_RECORD, true},
                                         weather{shape::indexed, VFS_LOCK_AUTO, true}),
                         name_of_case);

INSTANTIATE_TEST_SUITE_P(Relative, Storm,
                         testing::Values(weather{shape::relative, VFS_LOCK_RECORD, false},
                                         weather{shape::relative, VFS_LOCK_AUTO, false},
                                         weather{shape::relative, VFS_LOCK_RECORD, true}),
                         name_of_case);

INSTANTIATE_TEST_SUITE_P(Sequential, Storm,
                         testing::Values(weather{shape::sequential, VFS_LOCK_RECORD, false},
                                         weather{shape::sequential, VFS_LOCK_AUTO, false},
                                         weather{shape::sequential, VFS_LOCK_RECORD, true}),
                         name_of_case);

} // namespace
