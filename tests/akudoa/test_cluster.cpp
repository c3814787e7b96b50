#include <gtest/gtest.h>

#include <climits>

#include "AKUDoa/akucluster.h"

using Clusters = std::vector<std::vector<int>>;

// k-means on integers: the first k values seed the centres, members keep the
// input order, ties go to the lower-indexed centre, centres truncate toward
// zero, an empty cluster's centre becomes 0.
TEST(Cluster, KMeansRounds)
{
    const struct { std::vector<int> data; int k; Clusters want; } cases[] = {
        {{1, 2, 10, 11}, 2, {{1, 2}, {10, 11}}},
        {{11, 1, 10, 2}, 2, {{11, 10}, {1, 2}}},
        {{5, 5, 7}, 2, {{5, 5, 7}, {}}},
        {{4, 9, 20}, 3, {{4}, {9}, {20}}},
        {{3}, 2, {}}, {{3, 4}, 0, {}}, {{3, 4}, -1, {}}, {{}, 1, {}},
        // Four rounds with -38 tied in the third: not the obvious three groups.
        {{-40, -38, -35, 0, 2, 3, 50, 51, 58, 60, -1}, 3, {{-40, -38}, {-35}, {0, 2, 3, 50, 51, 58, 60, -1}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(AKUCluster::doKCluster(c.data, c.k), c.want) << "k " << c.k << " first " << (c.data.empty() ? 0 : c.data[0]);
    EXPECT_EQ(AKUCluster::group({1, 2, 10, 11}, {1, 2}), (Clusters{{1}, {2, 10, 11}}));
    EXPECT_EQ(AKUCluster::group({5}, {7, 3}), (Clusters{{5}, {}}));
    EXPECT_EQ(AKUCluster::center({-3, -4}) + AKUCluster::center({3, 4}) + AKUCluster::center({}), 0);
    EXPECT_EQ(AKUCluster::sum({INT_MAX, 1}), INT_MIN); // wraps
    EXPECT_EQ(AKUCluster::minIdx({2.0f, 1.0f, 1.0f}), 1);
}
