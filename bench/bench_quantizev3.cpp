// Planar engine V3 at the default configuration: 128 microphones, 64 x 48
// image, 1024-sample frames at 96 kHz, band 20-40 kHz (214 bins).
//
// Printed figures:
//  - table build time and peak resident memory of doaInit with an empty
//    cache (the process has done nothing else before), the cache save time,
//    and the time of a doaInit that loads the pair from the cache;
//  - median time of one executeDOA (FFT included) with the vector beam-sum
//    path and with the scalar reference;
//  - the steering bytes one frame streams (214 table rows of 2*M*P bytes),
//    and the ratio frame time / (bytes / bandwidth), the bandwidth that of
//    a streaming read over a buffer much larger than the last-level cache,
//    timed in passes interleaved with frames (medians of both): 1.0 means
//    the frame runs at the memory floor;
//  - the same frame with the mirror-pair table (DOA:compact_steering), its
//    ratio against the full table's floor, and the peak resident memory of
//    a fresh process that only runs doaInit (cache present) for each
//    layout, over the full table's size: the peak and the resident set once
//    init has returned;
//  - at the end, a summary of these ratios and of V4's (bench_quantizev4.cpp).
// The cache goes to $AKUDOA_CACHE_DIR, or to a fresh directory under /tmp.
#include <benchmark/benchmark.h>
#include <omp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "AKUDoa/base/akudoamatrix.h"

namespace {

constexpr int kMics = 128;
constexpr int kRows = 64;
constexpr int kCols = 48;
constexpr int kN = 1024;
constexpr int kRate = 96000;
constexpr double kPi = 3.14159265358979323846;

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point a, Clock::time_point b)
{
    return std::chrono::duration<double>(b - a).count();
}

long peakRssKB()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss;
}

// The 128-microphone layout: seven rings of 17 and an inner ring of 9.
void defaultConfig(StCamCfg& cfg)
{
    std::memset(&cfg, 0, sizeof cfg);
    cfg.doaVersionSelect = 3;
    cfg.sampleFrequency = kRate;
    cfg.channelNum = kMics;
    cfg.imageResolutionRow = kRows;
    cfg.imageResolutionCol = kCols;
    cfg.sectionFactor = 10;
    cfg.frameSize = kN;
    cfg.imageThetaXYFactor = 1.3f;
    cfg.eangleDomain = 43;
    cfg.micMaxRadius = 0.11f;
    cfg.focusDistance = 1.0f;
    cfg.rotateMode = 1;
    for (float& s : cfg.micSensitivity)
        s = 1.0f;
    for (int k = 0; k < 7; ++k)
        for (int j = 0; j < 17; ++j) {
            cfg.micIndex[17 * k + j] = 17 * k + j;
            cfg.micRadius[17 * k + j] = static_cast<float>(0.0171 + 0.0071 * k);
            cfg.micPhi[17 * k + j] = static_cast<float>(std::remainder((k * 360.0 / 7 + j * 360.0 / 17) * kPi / 180, 2 * kPi));
        }
    for (int j = 0; j < 9; ++j) {
        cfg.micIndex[119 + j] = 119 + j;
        cfg.micRadius[119 + j] = 0.01f;
        cfg.micPhi[119 + j] = static_cast<float>(std::remainder((80.0 + 40.0 * j) * kPi / 180, 2 * kPi));
    }
}

struct World {
    StCamCfg cfg;
    AKUDoaQuantizeV3* engine = nullptr;
    AKUDoaFreqBands bands{kN, kRate};
    mat2d_fp32* frame = nullptr;
    mat2d_fp32* heat = nullptr;
    double steerBytes = 0; // per frame
    double bandwidth = 0;  // bytes per second
    std::vector<uint64_t> streamBuf; // larger than the last-level cache
    int binsInBand = 0;
};
World g;
AKUDoaQuantizeV3* gCompact = nullptr;

// One parallel streaming read (the same OpenMP threads the frame uses) over
// buf: bytes per second.
double streamPass(const std::vector<uint64_t>& buf)
{
    uint64_t sum = 0;
    const auto t0 = Clock::now();
#pragma omp parallel for schedule(static) reduction(+ : sum)
    for (long i = 0; i < static_cast<long>(buf.size()); ++i)
        sum += buf[i];
    const double s = seconds(t0, Clock::now());
    benchmark::DoNotOptimize(sum);
    return static_cast<double>(buf.size() * sizeof(uint64_t)) / s;
}

// Best of a few passes over a buffer of `bytes`, filled first.
double streamBandwidth(size_t bytes)
{
    g.streamBuf.resize(bytes / sizeof(uint64_t));
#pragma omp parallel for schedule(static)
    for (long i = 0; i < static_cast<long>(g.streamBuf.size()); ++i)
        g.streamBuf[i] = static_cast<uint64_t>(i) * 2654435761u;
    double best = 0;
    for (int pass = 0; pass < 5; ++pass)
        best = std::max(best, streamPass(g.streamBuf));
    return best;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void runFrames(benchmark::State& state, AKUDoaDot8Path path)
{
    g.engine->privateData()->dot8 = path;
    for (auto _ : state) {
        g.engine->executeDOA(g.frame, g.bands, g.heat);
        benchmark::ClobberMemory();
    }
    // The floor from passes interleaved with frames, so that both see the
    // same machine: the bandwidth of a shared machine moves by a third from
    // one minute to the next. The pass leaves nothing of the frame's own
    // buffers in any cache, while in use a frame follows a frame: one frame
    // runs untimed after each pass.
    std::vector<double> frames, floors;
    for (int k = 0; k < 15; ++k) {
        g.engine->executeDOA(g.frame, g.bands, g.heat);
        const auto t0 = Clock::now();
        g.engine->executeDOA(g.frame, g.bands, g.heat);
        frames.push_back(seconds(t0, Clock::now()));
        floors.push_back(g.steerBytes / streamPass(g.streamBuf));
    }
    state.counters["steer_MB"] = g.steerBytes / 1e6;
    state.counters["stream_GBps"] = g.steerBytes / median(floors) / 1e9;
    state.counters["ratio_to_floor"] = median(frames) / median(floors);
    state.SetLabel(path.name);
}

// Argument: index into akudoa_dot8_paths() (0 is the scalar reference, the
// last one the path the engine selects on this CPU).
void BM_ExecuteDOA(benchmark::State& state)
{
    const std::vector<AKUDoaDot8Path> paths = akudoa_dot8_paths();
    if (static_cast<size_t>(state.range(0)) >= paths.size()) {
        state.SkipWithError("path not available on this CPU");
        return;
    }
    runFrames(state, paths[static_cast<size_t>(state.range(0))]);
}

// The selected path on the mirror-pair table; the ratio is against the
// full table's floor.
void BM_ExecuteDOACompact(benchmark::State& state)
{
    std::swap(g.engine, gCompact);
    runFrames(state, akudoa_dot8_select());
    std::swap(g.engine, gCompact);
    state.SetLabel(std::string(akudoa_dot8_select().name) + " compact");
}

void BM_ExecuteFFT(benchmark::State& state)
{
    for (auto _ : state) {
        g.engine->executeFFT(g.frame);
        benchmark::ClobberMemory();
    }
}

// One table row resident in L2 (786 KB at the defaults), one thread: the
// compute throughput of each beam-sum path, to compare with the stream
// bandwidth above.
void BM_Dot8RowInCache(benchmark::State& state)
{
    const std::vector<AKUDoaDot8Path> paths = akudoa_dot8_paths();
    if (static_cast<size_t>(state.range(0)) >= paths.size()) {
        state.SkipWithError("path not available on this CPU");
        return;
    }
    const AKUDoaDot8Path path = paths[static_cast<size_t>(state.range(0))];
    AKUDoaQuantizeV3Private* d = g.engine->privateData();
    const int b = 300;
    const int P = kRows * kCols;
    std::vector<float> out(2 * static_cast<size_t>(P));
    for (auto _ : state) {
        path.fn(reinterpret_cast<const int8_t*>(d->fftQuant->data[b]), reinterpret_cast<const int8_t*>(d->steerQuant->data[b]),
                2 * kMics, P, 1.0f, out.data(), out.data() + P);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["steer_bytes_per_s"] = benchmark::Counter(2.0 * kMics * P, benchmark::Counter::kIsIterationInvariantRate);
    state.SetLabel(path.name);
}

BENCHMARK(BM_Dot8RowInCache)->DenseRange(0, 2)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ExecuteDOA)->DenseRange(0, 2)->UseRealTime()->Unit(benchmark::kMillisecond)->Repetitions(7)->ReportAggregatesOnly(true);
BENCHMARK(BM_ExecuteDOACompact)->UseRealTime()->Unit(benchmark::kMillisecond)->Repetitions(7)->ReportAggregatesOnly(true);
BENCHMARK(BM_ExecuteFFT)->UseRealTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

// Resident set now (KB), file-backed pages included.
long currentRssKB()
{
    long kb = -1;
    if (FILE* f = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, f))
            if (std::sscanf(line, "VmRSS: %ld", &kb) == 1)
                break;
        std::fclose(f);
    }
    return kb;
}

// A fresh copy of this program that only runs doaInit with the given
// layout, the cache being present: its peak and final resident set (KB)
// and the doaInit time.
struct ChildInit {
    long peakKB = -1, endKB = -1;
    double seconds = -1;
};
ChildInit childInit(const char* self, bool compact)
{
    const std::string cmd = std::string(self) + " --init-rss " + (compact ? "1" : "0");
    ChildInit r;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        if (std::fscanf(p, "%ld %ld %lf", &r.peakKB, &r.endKB, &r.seconds) != 3)
            r = ChildInit();
        pclose(p);
    }
    return r;
}

// Console output as usual, and each run's counters kept by name for the
// summary at the end.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal, as the library's own reporter does.
    SummaryReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}
    std::map<std::string, benchmark::UserCounters> counters;
    std::map<std::string, double> realMs;
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs) {
            counters[r.benchmark_name()] = r.counters;
            realMs[r.benchmark_name()] = r.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // A counter of the first run whose name starts with `prefix` and ends
    // with `suffix`; NaN when there is none.
    double find(const std::string& prefix, const std::string& suffix, const std::string& counter) const
    {
        for (const auto& [name, c] : counters)
            if (name.compare(0, prefix.size(), prefix) == 0 && name.size() >= suffix.size() &&
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                const auto it = c.find(counter);
                if (it != c.end())
                    return it->second.value;
            }
        return std::nan("");
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--init-rss") == 0) {
        defaultConfig(g.cfg);
        g.cfg.compactSteering = argv[2][0] == '1';
        AKUDoaQuantizeV3 engine;
        const auto t = Clock::now();
        engine.doaInit(&g.cfg);
        const double s = seconds(t, Clock::now());
        std::printf("%ld %ld %.4f\n", peakRssKB(), currentRssKB(), s);
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    std::string dir;
    const char* env = std::getenv("AKUDOA_CACHE_DIR");
    if (env && *env) {
        dir = env;
    } else {
        dir = "/tmp/akudoa-bench-cache-" + std::to_string(getpid()) + "/";
        setenv("AKUDOA_CACHE_DIR", dir.c_str(), 1);
    }
    std::filesystem::create_directories(dir);
    defaultConfig(g.cfg);

    // Build with an empty cache: what a first start costs.
    {
        const std::string table = dir + "/QuantizeParam_v3_64_48_128_43_1.3_513.data";
        const std::string scale = dir + "/QuantizeScaleParam_v3_64_48_128_43_1.3_513.data";
        std::remove(table.c_str());
        std::remove(scale.c_str());
    }
    const long rssBefore = peakRssKB();
    auto t0 = Clock::now();
    g.engine = new AKUDoaQuantizeV3;
    g.engine->doaInit(&g.cfg);
    const double initBuild = seconds(t0, Clock::now());
    const long rssInit = peakRssKB();
    t0 = Clock::now();
    const bool saved = g.engine->saveQuantizeParam();
    const double saveTime = seconds(t0, Clock::now());
    const double tableBytes = double(g.engine->privateData()->binNum) * 2.0 * kMics * kRows * kCols;

    // A second engine loads the pair (page cache warm: just written).
    t0 = Clock::now();
    {
        AKUDoaQuantizeV3 loaded;
        loaded.doaInit(&g.cfg);
    }
    const double initLoad = seconds(t0, Clock::now());
    t0 = Clock::now();
    const bool reloaded = g.engine->loadQuantizeParam();
    const double loadOnly = seconds(t0, Clock::now());

    long mirrorOne = 0, mirrorWorse = 0;
    akudoa_planar_mirror_diff(g.engine->privateData(), mirrorOne, mirrorWorse);
    const ChildInit initFull = childInit(argv[0], false);
    const ChildInit initComp = childInit(argv[0], true);
    StCamCfg compactCfg = g.cfg;
    compactCfg.compactSteering = true;
    t0 = Clock::now();
    gCompact = new AKUDoaQuantizeV3;
    gCompact->doaInit(&compactCfg);
    const double initCompact = seconds(t0, Clock::now());

    std::vector<float> window(kN, 1.0f);
    for (int i = 0; i < kN; ++i)
        window[i] = static_cast<float>(0.5 - 0.5 * std::cos(2 * kPi * i / (kN - 1)));
    g.engine->updateFFTWin(window.data(), kN);
    gCompact->updateFFTWin(window.data(), kN);
    g.bands.updateBands({{20000, 40000, 1}});
    g.binsInBand = static_cast<int>(g.bands.data().size());
    g.steerBytes = double(g.binsInBand) * 2.0 * kMics * kRows * kCols;
    g.frame = create_mat2d_fp32(kMics, kN);
    g.heat = create_mat2d_fp32(kRows, kCols);
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> u(-1.f, 1.f);
    for (int m = 0; m < kMics; ++m)
        for (int i = 0; i < kN; ++i)
            g.frame->data[m][i] = u(rng);

    long llc = sysconf(_SC_LEVEL3_CACHE_SIZE);
    if (llc <= 0)
        llc = 32L << 20;
    const size_t streamBytes = std::max<size_t>(size_t(1) << 30, size_t(llc) * 4);
    g.bandwidth = streamBandwidth(streamBytes);

    std::printf("config: %d mics, %dx%d image, N=%d, %d Hz, band 20-40 kHz (%d bins), %d OpenMP threads, "
                "beam-sum path %s\n",
                kMics, kRows, kCols, kN, kRate, g.binsInBand, omp_get_max_threads(), akudoa_dot8_select().name);
    std::printf("table: %.1f MB int8; doaInit with empty cache (build + save) %.2f s, of which save %.2f s "
                "(saved=%d); peak RSS after doaInit %.1f MB (%.2f x table; before %.1f MB)\n",
                tableBytes / 1e6, initBuild, saveTime, saved ? 1 : 0, rssInit / 1024.0,
                rssInit * 1024.0 / tableBytes, rssBefore / 1024.0);
    std::printf("cache: doaInit loading the pair %.3f s; loadQuantizeParam alone %.3f s (ok=%d, page cache warm)\n",
                initLoad, loadOnly, reloaded ? 1 : 0);
    std::printf("stream: %.2f GB/s over %.0f MB (LLC %ld KB); steering bytes per frame %.1f MB -> floor %.2f ms\n",
                g.bandwidth / 1e9, streamBytes / 1e6, llc / 1024, g.steerBytes / 1e6,
                1e3 * g.steerBytes / g.bandwidth);
    std::printf("compact: doaInit folding the cached pair %.3f s (this process)\n", initCompact);
    for (const ChildInit* c : {&initFull, &initComp})
        std::printf("fresh process, doaInit from the cache, %s table: %.3f s; peak RSS %.1f MB (%.2f x full table), "
                    "RSS after init %.1f MB (%.2f x full table)\n",
                    c == &initFull ? "full" : "compact", c->seconds, c->peakKB / 1024.0, c->peakKB * 1024.0 / tableBytes,
                    c->endKB / 1024.0, c->endKB * 1024.0 / tableBytes);
    std::printf("mirror: %ld of %.0f mirror-block bytes differ by one unit from the conjugate of the stored block, "
                "%ld by more\n",
                mirrorOne, tableBytes / 2.0, mirrorWorse);
    std::fflush(stdout);

    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    // The figures that decide whether a board keeps up, each against a
    // baseline measured in this run (NaN where a benchmark was filtered out).
    const std::string selected = "BM_ExecuteDOA/" + std::to_string(akudoa_dot8_paths().size() - 1) + "/";
    std::printf("\nsummary (%d OpenMP threads, beam-sum path %s)\n", omp_get_max_threads(), akudoa_dot8_select().name);
    std::printf("  full V3 frame / memory floor:            %.2f\n",
                reporter.find(selected, "_median", "ratio_to_floor"));
    std::printf("  compact V3 frame / full-table floor:     %.2f\n",
                reporter.find("BM_ExecuteDOACompact", "_median", "ratio_to_floor"));
    std::printf("  RSS after a cached init / full table:    full %.2f, compact %.2f (peak %.2f, %.2f)\n",
                initFull.endKB * 1024.0 / tableBytes, initComp.endKB * 1024.0 / tableBytes,
                initFull.peakKB * 1024.0 / tableBytes, initComp.peakKB * 1024.0 / tableBytes);
    std::printf("  V4 frame / its 2-D FFT floor:            %.2f wall, %.2f CPU\n",
                reporter.find("BM_V4Frame", "", "ratio"), reporter.find("BM_V4Frame", "", "cpu_ratio"));
    std::printf("  V4 frame / its own pruned transforms:    %.2f wall\n",
                reporter.find("BM_V4Frame", "", "own_ratio"));
    std::printf("  doaInit from a warm cache:               full %.3f s, compact %.3f s\n", initFull.seconds,
                initComp.seconds);
    destroy_mat2d_fp32(g.frame);
    destroy_mat2d_fp32(g.heat);
    delete g.engine;
    delete gCompact;
    return 0;
}
