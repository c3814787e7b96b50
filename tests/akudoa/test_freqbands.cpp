// Frequency band manager: bin arithmetic, clipping, caching and black list.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/akudoafreqbands_p.h"

namespace {

std::vector<int> binsOf(const std::vector<doaFreqInfo>& v)
{
    std::vector<int> out;
    for (const doaFreqInfo& i : v)
        out.push_back(i.bin);
    return out;
}

std::vector<int> range(int from, int to, int step = 1)
{
    std::vector<int> out;
    for (int b = from; b <= to; b += step)
        out.push_back(b);
    return out;
}

} // namespace

// Catches bin-offset and rounding faults in the hertz-to-bin conversion.
TEST(FreqBands, BinsOfOneBandAt48k)
{
    AKUDoaFreqBands fb(1024, 48000);
    fb.updateBands({{10000, 20000, 1}});
    const std::vector<doaFreqInfo> d = fb.data();
    EXPECT_EQ(binsOf(d), range(213, 426));
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d.front().freq, 9984);
    for (const doaFreqInfo& i : d)
        EXPECT_EQ(i.freq, i.bin * 48000 / 1024) << "bin " << i.bin;
    EXPECT_EQ(fb.maxUpFreq(), 20000);
    EXPECT_EQ(fb.minDownFreq(), 10000);
}

TEST(FreqBands, UpperEdgeClippedToNyquist)
{
    AKUDoaFreqBands even(1024, 48000);
    even.updateBands({{10000, 30000, 1}});
    EXPECT_EQ(binsOf(even.data()), range(213, 512));
    EXPECT_EQ(even.maxUpFreq(), 24000);

    // Odd length: (N * fs/2) / fs truncates to N >> 1 as well.
    AKUDoaFreqBands odd(1023, 48000);
    odd.updateBands({{23000, 1000000, 1}});
    const std::vector<doaFreqInfo> d = odd.data();
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d.back().bin, 511);
    EXPECT_EQ(odd.maxUpFreq(), 24000);
}

// A degenerate band adds one bin but must not move the recorded edges.
TEST(FreqBands, DegenerateAndInvertedBands)
{
    AKUDoaFreqBands fb(1024, 48000);
    fb.updateBands({{24000, 30000, 1}});
    EXPECT_EQ(binsOf(fb.data()), std::vector<int>{512});
    EXPECT_EQ(fb.data().front().freq, 24000);
    EXPECT_EQ(fb.maxUpFreq(), 0);
    EXPECT_EQ(fb.minDownFreq(), 999999);

    fb.updateBands({{1000, 2000, 1}, {3000, 3000, 1}});
    EXPECT_EQ(fb.maxUpFreq(), 2000);
    EXPECT_EQ(fb.minDownFreq(), 1000);
    const std::vector<int> b = binsOf(fb.data());
    EXPECT_EQ(b.back(), 3000 * 1024 / 48000);
    EXPECT_EQ(b.size(), range(21, 42).size() + 1);

    fb.updateBands({{25000, 30000, 1}, {5000, 4000, 1}});
    EXPECT_TRUE(fb.data().empty());
    EXPECT_TRUE(fb.dataExt().empty());
    EXPECT_EQ(fb.maxUpFreq(), 0);
    EXPECT_EQ(fb.minDownFreq(), 999999);

    fb.updateBands({});
    EXPECT_TRUE(fb.data().empty());
    EXPECT_TRUE(fb.dataExt().empty());
}

TEST(FreqBands, StepAndNonPositiveStep)
{
    // fs == N puts bin b at b Hz.
    AKUDoaFreqBands fb(1024, 1024);
    fb.updateBands({{10, 20, 3}});
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 13, 16, 19}));
    fb.updateBands({{10, 14, 0}});
    EXPECT_EQ(binsOf(fb.data()), range(10, 14));
    fb.updateBands({{10, 14, -5}});
    EXPECT_EQ(binsOf(fb.data()), range(10, 14));
}

// Overlaps stay in the raw list; the cached list holds each bin once.
TEST(FreqBands, OverlappingBandsDeduplicated)
{
    AKUDoaFreqBands fb(1024, 1024);
    fb.updateBands({{30, 40, 1}, {10, 35, 1}});
    const std::vector<int> raw = binsOf(AKUDoaFreqBandsInspector::rawBands(fb));
    EXPECT_EQ(raw.size(), 11u + 26u);
    EXPECT_TRUE(std::is_sorted(raw.begin(), raw.end()));
    EXPECT_EQ(binsOf(fb.data()), range(10, 40));
    EXPECT_EQ(fb.minDownFreq(), 10);
    EXPECT_EQ(fb.maxUpFreq(), 40);

    const std::vector<int> rawExt = binsOf(AKUDoaFreqBandsInspector::rawExtBands(fb));
    const std::vector<int> ext = binsOf(fb.dataExt());
    EXPECT_GT(rawExt.size(), ext.size());
    for (size_t i = 1; i < ext.size(); ++i)
        EXPECT_LT(ext[i - 1], ext[i]);
}

TEST(FreqBands, NegativeLowEdgeIncludesDc)
{
    AKUDoaFreqBands fb(1024, 48000);
    fb.updateBands({{-500, 100, 1}});
    EXPECT_EQ(binsOf(fb.data()), range(0, 2));
    EXPECT_EQ(fb.minDownFreq(), 0);
    EXPECT_EQ(fb.data().front().freq, 0);
}

// The extended list lives on the grid of a 1024 + 128 sample frame.
TEST(FreqBands, ExtendedGrid)
{
    AKUDoaFreqBands fb(1024, 48000);
    fb.updateBands({{10000, 20000, 1}});
    const std::vector<doaFreqInfo> e = fb.dataExt();
    EXPECT_EQ(binsOf(e), range(10000 * 1152 / 48000, 20000 * 1152 / 48000));
    for (const doaFreqInfo& i : e)
        EXPECT_EQ(i.freq, 48000 * i.bin / 1152);
}

TEST(FreqBands, BlackListActsWhenCacheIsBuilt)
{
    AKUDoaFreqBands fb(1024, 1024);
    fb.enableBlackList();
    fb.addBlackList(12);
    fb.updateBands({{10, 14, 1}});
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 11, 13, 14}));
    // The pickup's list is never filtered.
    EXPECT_EQ(binsOf(fb.dataExt()), range(11, 15));

    // Cached already: a new entry is deliberately ignored until updateBands.
    fb.addBlackList(13);
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 11, 13, 14}));
    fb.updateBands({{10, 14, 1}});
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 11, 14}));

    // Disabling does not invalidate the cache either.
    fb.disenableBlackList();
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 11, 14}));
    fb.updateBands({{10, 14, 1}});
    EXPECT_EQ(binsOf(fb.data()), range(10, 14));
}

TEST(FreqBands, BlackListBookkeeping)
{
    AKUDoaFreqBands fb(1024, 48000);
    EXPECT_FALSE(fb.getIsBlackListEnable());
    // Disabled: nothing is contained, so duplicates are appended.
    fb.addBlackList(1000);
    fb.addBlackList(1000);
    ASSERT_EQ(fb.getBlackList().size(), 2u);
    EXPECT_EQ(fb.getBlackList()[0].freq, 1000);
    EXPECT_EQ(fb.getBlackList()[0].bin, 1000 * 1024 / 48000);
    EXPECT_FALSE(fb.containInBlackList({1000, 21}));

    fb.enableBlackList();
    EXPECT_TRUE(fb.getIsBlackListEnable());
    // Only bins are compared.
    EXPECT_TRUE(fb.containInBlackList({-7, 21}));
    EXPECT_FALSE(fb.containInBlackList({1000, 22}));
    // 1010 Hz falls into the same bin: not appended again.
    fb.addBlackList(1010);
    EXPECT_EQ(fb.getBlackList().size(), 2u);
    fb.addBlackList(2000);
    ASSERT_EQ(fb.getBlackList().size(), 3u);
    EXPECT_EQ(fb.getBlackList()[2].bin, 42);

    fb.clearBlackList();
    EXPECT_TRUE(fb.getBlackList().empty());
    EXPECT_TRUE(fb.getIsBlackListEnable());
    EXPECT_FALSE(fb.containInBlackList({1000, 21}));
}

// A reader must always see one complete list, never a half-replaced one.
TEST(FreqBands, ConcurrentUpdateAndRead)
{
    AKUDoaFreqBands fb(256, 256);
    const std::vector<freqBandWidth> a{{10, 20, 1}};
    const std::vector<freqBandWidth> b{{30, 60, 2}};
    fb.updateBands(a);
    const std::vector<int> binsA = range(10, 20);
    const std::vector<int> binsB = range(30, 60, 2);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i)
            fb.updateBands((i & 1) ? a : b);
        stop = true;
    });
    int bad = 0;
    while (!stop) {
        const std::vector<int> got = binsOf(fb.data());
        if (got != binsA && got != binsB)
            ++bad;
    }
    writer.join();
    EXPECT_EQ(bad, 0);
}
