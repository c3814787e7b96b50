// Cost of one pickup frame at 128 microphones and 1024 samples (96 kHz), as a
// fraction of the frame period (1024 / 96000 s = 10.67 ms), next to two
// baselines from the same run: the scalar reference of the delay-and-sum (the
// path without four-lane arithmetic) and a plain copy of the frame (memory
// floor). Single thread; the pickup runs on the caller's thread.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/akudoapickupv4.h"
#include "AKUDoa/akudoapickupv4_p.h"
#include "AKUDoa/base/akudoamatrix.h"

namespace {

constexpr int kMics = 128;
constexpr int kN = 1024;
constexpr int kRate = 96000;
constexpr double kFramePeriod = double(kN) / kRate;

struct Setup {
    StCamCfg cfg;
    mat2d_fp32* frame;
    vec_fp32* out;
    AKUDoaFreqBands bands{kN, kRate};
    Setup()
    {
        std::memset(&cfg, 0, sizeof cfg);
        cfg.sampleFrequency = kRate;
        cfg.channelNum = kMics;
        cfg.imageResolutionRow = 64;
        cfg.imageResolutionCol = 48;
        cfg.frameSize = kN;
        cfg.imageThetaXYFactor = 1.3f;
        cfg.eangleDomain = 43;
        cfg.rotateMode = 1;
        for (int m = 0; m < kMics; ++m) {
            cfg.micRadius[m] = 0.0171f + 0.0071f * float(m % 7);
            cfg.micPhi[m] = float(std::remainder(m * 0.3696, 2 * 3.14159265358979));
        }
        bands.updateBands({{20000, 40000, 1}});
        frame = create_mat2d_fp32(kMics, kN);
        out = create_vec_fp32(kN);
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> u(-1.f, 1.f);
        for (int m = 0; m < kMics; ++m)
            for (int i = 0; i < kN; ++i)
                frame->data[m][i] = u(rng);
    }
    ~Setup()
    {
        destroy_mat2d_fp32(frame);
        destroy_vec_fp32(out);
    }
};

void report(benchmark::State& state)
{
    // Per-iteration time in percent of the frame period: an inverted rate of
    // (period / 100) per iteration is time * 100 / period.
    state.counters["pct_of_frame"] = benchmark::Counter(
        kFramePeriod / 100.0, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_PickupFrame(benchmark::State& state)
{
    Setup s;
    AKUDoaPickupV4 pickup;
    pickup.initPickup(&s.cfg);
    std::vector<float> win(kN, 1.0f);
    pickup.updateFFTWin(win.data(), kN);
    pickup.initTargetPoint(20, 30);
    for (auto _ : state) {
        pickup.executePickup(s.frame, s.bands, s.out);
        benchmark::DoNotOptimize(s.out->data[0]);
    }
    report(state);
}
BENCHMARK(BM_PickupFrame)->Unit(benchmark::kMicrosecond);

void BM_PickupRetargetAndFrame(benchmark::State& state)
{
    // A moving target: taps are rebuilt before every frame.
    Setup s;
    AKUDoaPickupV4 pickup;
    pickup.initPickup(&s.cfg);
    std::vector<float> win(kN, 1.0f);
    pickup.updateFFTWin(win.data(), kN);
    int k = 0;
    for (auto _ : state) {
        pickup.initTargetPoint(10 + (k & 1), 10);
        ++k;
        pickup.executePickup(s.frame, s.bands, s.out);
        benchmark::DoNotOptimize(s.out->data[0]);
    }
    report(state);
}
BENCHMARK(BM_PickupRetargetAndFrame)->Unit(benchmark::kMicrosecond);

void BM_BaselineScalarDelaySum(benchmark::State& state)
{
    // The delay-and-sum alone through the scalar reference.
    std::vector<std::vector<float>> h(kMics, std::vector<float>(kN + 23, 0.5f)), t(kMics, std::vector<float>(24, 0.1f));
    std::vector<float*> hp, tp;
    for (int m = 0; m < kMics; ++m) {
        hp.push_back(h[m].data());
        tp.push_back(t[m].data());
    }
    std::vector<float> acc(kN);
    for (auto _ : state) {
        akudoa_pickup_fir_sum_ref(hp.data(), tp.data(), kMics, kN, acc.data());
        benchmark::DoNotOptimize(acc[0]);
    }
    report(state);
}
BENCHMARK(BM_BaselineScalarDelaySum)->Unit(benchmark::kMicrosecond);

void BM_VectorDelaySum(benchmark::State& state)
{
    std::vector<std::vector<float>> h(kMics, std::vector<float>(kN + 23, 0.5f)), t(kMics, std::vector<float>(24, 0.1f));
    std::vector<float*> hp, tp;
    for (int m = 0; m < kMics; ++m) {
        hp.push_back(h[m].data());
        tp.push_back(t[m].data());
    }
    std::vector<float> acc(kN);
    for (auto _ : state) {
        akudoa_pickup_fir_sum(hp.data(), tp.data(), kMics, kN, acc.data());
        benchmark::DoNotOptimize(acc[0]);
    }
    report(state);
}
BENCHMARK(BM_VectorDelaySum)->Unit(benchmark::kMicrosecond);

void BM_BaselineFrameCopy(benchmark::State& state)
{
    // Memory floor: touching the 128 x 1024 input once.
    Setup s;
    mat2d_fp32* dst = create_mat2d_fp32(kMics, kN + 23);
    for (auto _ : state) {
        for (int m = 0; m < kMics; ++m)
            std::memcpy(dst->data[m] + 23, s.frame->data[m], sizeof(float) * kN);
        benchmark::DoNotOptimize(dst->data[0][23]);
    }
    destroy_mat2d_fp32(dst);
    report(state);
}
BENCHMARK(BM_BaselineFrameCopy)->Unit(benchmark::kMicrosecond);

} // namespace

