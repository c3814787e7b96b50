// Planar engine V4 at the default camera configuration (program 4, 128
// microphones, 64 x 48 image, 96 kHz, 1024 samples, band 20-40 kHz, all
// OpenMP threads).
//
// BM_V4Frame: median time of one executeDOA and, in the same run, the median
// time of the band's 2-D grid FFTs alone (run on the same pool the same
// way): the engine's floor. Reported as counters frame_ms, fft_floor_ms and
// ratio = frame / floor (wall clock), and the same from the process CPU
// time (frame_cpu_ms, fft_floor_cpu_ms, cpu_ratio), which a loaded machine
// disturbs less. The frame itself runs the pruned transforms (about half the
// 2-D FFTs' work): own_ratio is the frame against those alone, the share of
// everything else.
//
// BM_V4Memory/rows/cols: bytes the engine's containers hold after doaInit
// (counted from their sizes) and the growth of the resident set over doaInit,
// at 64 x 48 and at 640 x 480 (the latter about 0.6 GB, nearly all of it the
// per-bin images).
#include <benchmark/benchmark.h>
#include <fftw3.h>
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <vector>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/akudoakernel_p.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/akudoaquantizev4_p.h"
#include "AKUDoa/base/akudoamatrix.h"

namespace {

constexpr int kMics = 128;
constexpr int kN = 1024;
constexpr int kRate = 96000;

StCamCfg defaultCfg(int rows, int cols)
{
    StCamCfg c;
    std::memset(&c, 0, sizeof c);
    c.doaVersionSelect = 4;
    c.sampleFrequency = kRate;
    c.channelNum = kMics;
    c.imageResolutionRow = rows;
    c.imageResolutionCol = cols;
    c.sectionFactor = 10;
    c.frameSize = kN;
    c.imageThetaXYFactor = 1.3f;
    c.eangleDomain = 43;
    c.micMaxRadius = 0.11f;
    c.focusDistance = 1.0f;
    c.rotateMode = 1;
    for (float& s : c.micSensitivity)
        s = 1.0f;
    akudoa_builtin_geometry(kMics, c.micIndex, c.micPhi, c.micRadius);
    return c;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double processCpuMs()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec * 1e-6;
}

// Wall and process CPU time of one call, in ms. The CPU time (all threads)
// is the steadier figure on a shared machine.
template <class F>
void timeMs(F&& f, std::vector<double>& wall, std::vector<double>& cpu)
{
    const double c0 = processCpuMs();
    const auto t0 = std::chrono::steady_clock::now();
    f();
    const auto t1 = std::chrono::steady_clock::now();
    cpu.push_back(processCpuMs() - c0);
    wall.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
}

long residentBytes()
{
    long pages = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * sysconf(_SC_PAGESIZE);
}

void BM_V4Frame(benchmark::State& state)
{
    StCamCfg cfg = defaultCfg(64, 48);
    AKUDoaQuantizeV4 engine;
    engine.doaInit(&cfg);
    std::vector<float> win(kN, 1.0f);
    engine.updateFFTWin(win.data(), kN);
    AKUDoaFreqBands bands(kN, kRate);
    bands.updateBands({{20000, 40000, 1}});
    mat2d_fp32* frame = create_mat2d_fp32(kMics, kN);
    mat2d_fp32* heat = create_mat2d_fp32(64, 48);
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> u(-1.f, 1.f);
    for (int m = 0; m < kMics; ++m)
        for (int i = 0; i < kN; ++i)
            frame->data[m][i] = u(rng);

    for (auto _ : state) {
        engine.executeDOA(frame, bands, heat);
        benchmark::DoNotOptimize(heat->data[0][0]);
    }

    // Medians over the same number of runs, frame and floor interleaved so
    // that both see the same machine load.
    const AKUDoaQuantizeV4Private* d = engine.privateData();
    std::vector<int> rows;
    for (const doaFreqInfo& e : bands.data())
        if (e.bin >= 0 && e.bin < d->binNum)
            rows.push_back(e.bin);
    const int n = static_cast<int>(rows.size());
    const int team = std::min(omp_get_max_threads(), d->slots);
    std::vector<double> frameMs, fftMs, frameCpu, fftCpu, ownMs, ownCpu;
    for (int k = 0; k < 31; ++k) {
        timeMs([&] { engine.executeDOA(frame, bands, heat); }, frameMs, frameCpu);
        // On the workers' own grids, as in the frame.
        timeMs(
            [&] {
#pragma omp parallel for schedule(dynamic, 1) num_threads(team)
                for (int e = 0; e < n; ++e) {
                    const int s = omp_get_thread_num();
                    fftwf_execute_dft(d->gridPlan, reinterpret_cast<fftwf_complex*>(d->gridIn->data[s]),
                                      reinterpret_cast<fftwf_complex*>(d->gridOut->data[s]));
                }
            },
            fftMs, fftCpu);
        timeMs(
            [&] {
#pragma omp parallel for schedule(dynamic, 1) num_threads(team)
                for (int e = 0; e < n; ++e)
                    akudoa_v4_transform(d, rows[e], omp_get_thread_num());
            },
            ownMs, ownCpu);
        // The pruned transform works in place; the frame expects zero grids.
        for (int s = 0; s < d->gridIn->rows; ++s)
            std::memset(d->gridIn->data[s], 0, sizeof(akudoa_fftwf_complex) * d->gridIn->cols);
    }
    const double fm = median(frameMs), ff = median(fftMs);
    state.counters["own_fft_ms"] = median(ownMs);
    state.counters["own_ratio"] = fm / median(ownMs);
    const double fc = median(frameCpu), fcf = median(fftCpu);
    state.counters["frame_ms"] = fm;
    state.counters["fft_floor_ms"] = ff;
    state.counters["ratio"] = fm / ff;
    state.counters["frame_cpu_ms"] = fc;
    state.counters["fft_floor_cpu_ms"] = fcf;
    state.counters["cpu_ratio"] = fc / fcf;
    state.counters["bins"] = n;
    state.counters["threads"] = omp_get_max_threads();
    destroy_mat2d_fp32(frame);
    destroy_mat2d_fp32(heat);
}
BENCHMARK(BM_V4Frame)->Unit(benchmark::kMillisecond)->MinTime(2.0);

template <class T>
double rowsBytes(const T* m, size_t elem)
{
    return m ? static_cast<double>(m->rows) * m->cols * elem : 0.0;
}

void BM_V4Memory(benchmark::State& state)
{
    const int rows = static_cast<int>(state.range(0));
    const int cols = static_cast<int>(state.range(1));
    for (auto _ : state) {
        StCamCfg cfg = defaultCfg(rows, cols);
        const long before = residentBytes();
        AKUDoaQuantizeV4 engine;
        engine.doaInit(&cfg);
        const long after = residentBytes();
        const AKUDoaQuantizeV4Private* d = engine.privateData();
        const size_t c8 = sizeof(akudoa_fftwf_complex);
        double bytes = 0.0;
        bytes += rowsBytes(d->cellAmp, 4) + rowsBytes(d->kernelX, 4) + rowsBytes(d->kernelY, 4);
        bytes += rowsBytes(d->deconv, 4) + rowsBytes(d->cellIndex, 4) + rowsBytes(d->binSpectra, c8);
        bytes += rowsBytes(d->fftMean, 4) + rowsBytes(d->binMaps, 4) + rowsBytes(d->gprOut, 4);
        bytes += rowsBytes(d->focusPhase, 4) + rowsBytes(d->windowed, 4) + rowsBytes(d->micSpectra, c8);
        const double grids = rowsBytes(d->gridIn, c8) + rowsBytes(d->gridOut, c8);
        bytes += grids + 4.0 * (d->fftWindow->n + d->heatAcc->n + d->binScratch->n);
        state.counters["containers_MB"] = bytes / 1048576.0;
        state.counters["grids_MB"] = grids / 1048576.0;
        state.counters["rss_growth_MB"] = static_cast<double>(after - before) / 1048576.0;
        state.counters["G"] = d->gridSize;
    }
}
BENCHMARK(BM_V4Memory)->Args({64, 48})->Args({640, 480})->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

