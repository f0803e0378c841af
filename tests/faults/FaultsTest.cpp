#include <gtest/gtest.h>

#include "faults/Scenarios.h"

using namespace qelnk::test;

class Faults : public testing::TestWithParam<Scenario> {};

INSTANTIATE_TEST_SUITE_P(Of, Faults, testing::ValuesIn(scenarios()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(Faults, AtEveryStep) { EXPECT_EQ(tryAll(GetParam()), ""); }

TEST_P(Faults, AtEveryLimit) { EXPECT_EQ(tryLimits(GetParam()), ""); }
