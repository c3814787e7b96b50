#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "AKUDoa/akucluster.h"

using Clusters = std::vector<std::vector<int>>;

TEST(Cluster, ConvergesOnTwoSeparatedGroups) {
    // Round 1: centres 1, 2 -> [1], [2, 10, 11] -> centres 1, 7.
    EXPECT_EQ(AKUCluster::group({1, 2, 10, 11}, {1, 2}), (Clusters{{1}, {2, 10, 11}}));
    // Round 2: -> [1, 2], [10, 11] -> centres 1, 10; round 3 repeats it.
    EXPECT_EQ(AKUCluster::group({1, 2, 10, 11}, {1, 7}), (Clusters{{1, 2}, {10, 11}}));
    EXPECT_EQ(AKUCluster::doKCluster({1, 2, 10, 11}, 2), (Clusters{{1, 2}, {10, 11}}));
    // Members keep the input order, clusters follow the centre order.
    EXPECT_EQ(AKUCluster::doKCluster({11, 1, 10, 2}, 2), (Clusters{{11, 10}, {1, 2}}));
}

TEST(Cluster, DuplicateInitialCentresLeaveAnEmptyCluster) {
    // Both centres are 5; the first wins every tie, the second cluster stays
    // empty and its centre becomes 0.
    EXPECT_EQ(AKUCluster::group({5, 5, 7}, {5, 5}), (Clusters{{5, 5, 7}, {}}));
    EXPECT_EQ(AKUCluster::doKCluster({5, 5, 7}, 2), (Clusters{{5, 5, 7}, {}}));
}

TEST(Cluster, TooFewValuesOrNoClusters) {
    EXPECT_TRUE(AKUCluster::doKCluster({3}, 2).empty());
    EXPECT_TRUE(AKUCluster::doKCluster({3, 4}, 0).empty());
    EXPECT_TRUE(AKUCluster::doKCluster({3, 4}, -1).empty());
    EXPECT_TRUE(AKUCluster::doKCluster({}, 1).empty());
    EXPECT_TRUE(AKUCluster::group({1, 2, 3}, {}).empty());
    // k equal to the count: every value its own cluster.
    EXPECT_EQ(AKUCluster::doKCluster({4, 9, 20}, 3), (Clusters{{4}, {9}, {20}}));
}

TEST(Cluster, ValueMidwayGoesToLowerIndexedCentre) {
    EXPECT_EQ(AKUCluster::group({5}, {3, 7}), (Clusters{{5}, {}}));
    EXPECT_EQ(AKUCluster::group({5}, {7, 3}), (Clusters{{5}, {}}));
    EXPECT_EQ(AKUCluster::minIdx({2.0f, 1.0f, 1.0f}), 1);
    EXPECT_EQ(AKUCluster::minIdx({0.5f}), 0);
    EXPECT_EQ(AKUCluster::minIdx({}), 0);
}

TEST(Cluster, IntegerArithmetic) {
    EXPECT_EQ(AKUCluster::center({-3, -4}), -3);  // -3.5 truncated toward zero
    EXPECT_EQ(AKUCluster::center({3, 4}), 3);
    EXPECT_EQ(AKUCluster::center({}), 0);
    EXPECT_EQ(AKUCluster::sum({}), 0);
    EXPECT_EQ(AKUCluster::sum({INT_MAX, 1}), INT_MIN);  // wraps
    EXPECT_EQ(AKUCluster::distance(-2, 5), 7.0f);
    EXPECT_EQ(AKUCluster::distance(5, -2), 7.0f);
    EXPECT_TRUE(AKUCluster::vec_equal({}, {}));
    EXPECT_FALSE(AKUCluster::vec_equal({1, 2}, {1}));
    EXPECT_FALSE(AKUCluster::vec_equal({1, 2}, {2, 1}));
}

// Negative data and four rounds (centres -40 -38 -35, then -40 -38 20,
// -40 -36 27 with -38 tied and going to the first, -39 -35 27): the first
// k values seed the centres, so the groups found are not the obvious three.
TEST(Cluster, ResultIsAFixedPoint) {
    const std::vector<int> data = {-40, -38, -35, 0, 2, 3, 50, 51, 58, 60, -1};
    const Clusters r = AKUCluster::doKCluster(data, 3);
    ASSERT_EQ(r.size(), 3u);
    std::vector<int> centres;
    size_t total = 0;
    for (const auto& c : r) {
        centres.push_back(AKUCluster::center(c));
        total += c.size();
    }
    EXPECT_EQ(total, data.size());
    EXPECT_EQ(AKUCluster::group(data, centres), r);
    EXPECT_EQ(r, (Clusters{{-40, -38}, {-35}, {0, 2, 3, 50, 51, 58, 60, -1}}));
}
