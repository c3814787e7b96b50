// Frequency band manager: bin arithmetic, clipping, caching and black list.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "AKUDoa/akudoafreqbands.h"

namespace {

std::vector<int> binsOf(const std::vector<doaFreqInfo>& v)
{
    std::vector<int> out;
    for (const doaFreqInfo& i : v)
        out.push_back(i.bin);
    return out;
}

// from, from + step, ... up to `to`, then the extra bins.
std::vector<int> range(int from, int to, int step = 1, std::vector<int> extra = {})
{
    std::vector<int> out;
    for (int b = from; b <= to; b += step)
        out.push_back(b);
    return out.insert(out.end(), extra.begin(), extra.end()), out;
}

} // namespace

// Hertz to bins truncated (not rounded), edges clipped to 0 and Nyquist,
// steps, overlaps merged; the extended list lives on the N + 128 grid.
TEST(FreqBands, BinsAndEdges)
{
    const struct { int n, fs; std::vector<freqBandWidth> bands; std::vector<int> bins; int maxUp, minDown; std::vector<int> ext; } cases[] = {
        {1024, 48000, {{10000, 20000, 1}}, range(213, 426), 20000, 10000, range(240, 480)},
        {1024, 48000, {{10000, 30000, 1}}, range(213, 512), 24000, 10000, range(240, 576)},
        {1023, 48000, {{23000, 1000000, 1}}, range(490, 511), 24000, 23000, range(551, 575)},
        {1024, 48000, {{-500, 100, 1}}, range(0, 2), 100, 0, range(0, 2)},
        // A degenerate band adds one bin but does not move the recorded edges.
        {1024, 48000, {{24000, 30000, 1}}, {512}, 0, 999999, {576}},
        {1024, 48000, {{1000, 2000, 1}, {3000, 3000, 1}}, range(21, 42, 1, {64}), 2000, 1000, range(24, 48, 1, {72})},
        {1024, 48000, {{25000, 30000, 1}, {5000, 4000, 1}}, {}, 0, 999999, {}},
        {1024, 48000, {}, {}, 0, 999999, {}},
        {1024, 1024, {{10, 20, 3}}, {10, 13, 16, 19}, 20, 10, {11, 14, 17, 20}},
        {1024, 1024, {{10, 14, 0}}, range(10, 14), 14, 10, range(11, 15)},
        {1024, 1024, {{30, 40, 1}, {10, 35, 1}}, range(10, 40), 40, 10, range(11, 45)},
    };
    for (const auto& c : cases) {
        AKUDoaFreqBands fb(c.n, c.fs);
        fb.updateBands(c.bands);
        const std::vector<doaFreqInfo> d = fb.data(), e = fb.dataExt();
        SCOPED_TRACE(testing::Message() << c.n << " at " << c.fs << ", first band " << (c.bands.empty() ? 0 : c.bands[0].lowFreq));
        EXPECT_EQ(binsOf(d), c.bins);
        EXPECT_EQ(binsOf(e), c.ext);
        EXPECT_EQ(fb.maxUpFreq(), c.maxUp);
        EXPECT_EQ(fb.minDownFreq(), c.minDown);
        for (const doaFreqInfo& i : d)
            EXPECT_EQ(i.freq, i.bin * c.fs / c.n) << "bin " << i.bin;
        for (const doaFreqInfo& i : e)
            EXPECT_EQ(i.freq, c.fs * i.bin / (c.n + 128)) << "ext bin " << i.bin;
    }
}

TEST(FreqBands, BlackListAndItsCache)
{
    AKUDoaFreqBands fb(1024, 1024);
    fb.addBlackList(12), fb.addBlackList(12); // disabled: nothing is contained, duplicates appended
    EXPECT_EQ(fb.getBlackList().size(), 2u);
    EXPECT_FALSE(fb.containInBlackList({12, 12}));
    fb.clearBlackList(), fb.enableBlackList(), fb.addBlackList(12), fb.addBlackList(12); // same bin: not appended again
    EXPECT_EQ(binsOf(fb.getBlackList()), std::vector<int>{12});
    EXPECT_TRUE(fb.containInBlackList({-7, 12})); // bins only
    fb.updateBands({{10, 14, 1}});
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 11, 13, 14}));
    EXPECT_EQ(binsOf(fb.dataExt()), range(11, 15)); // the pickup's list is never filtered
    // Cached: later changes are ignored until updateBands.
    fb.addBlackList(13);
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 11, 13, 14}));
    fb.updateBands({{10, 14, 1}});
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 11, 14}));
    fb.disenableBlackList(); // cached too
    EXPECT_EQ(binsOf(fb.data()), (std::vector<int>{10, 11, 14}));
    fb.updateBands({{10, 14, 1}});
    EXPECT_EQ(binsOf(fb.data()), range(10, 14));
    AKUDoaFreqBands hz(1024, 48000);
    hz.enableBlackList(), hz.addBlackList(1000), hz.addBlackList(1010), hz.addBlackList(2000); // hertz to bins as for the bands
    EXPECT_EQ(binsOf(hz.getBlackList()), (std::vector<int>{21, 42}));
}

// A reader always sees one complete list, never a half-replaced one.
TEST(FreqBands, ConcurrentUpdateAndRead)
{
    AKUDoaFreqBands fb(256, 256);
    const std::vector<freqBandWidth> a{{10, 20, 1}}, b{{30, 60, 2}};
    fb.updateBands(a);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i)
            fb.updateBands((i & 1) ? a : b);
        stop = true;
    });
    int bad = 0;
    while (!stop) {
        const std::vector<int> got = binsOf(fb.data());
        bad += got != range(10, 20) && got != range(30, 60, 2);
    }
    writer.join();
    EXPECT_EQ(bad, 0);
}
