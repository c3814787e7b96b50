// Steering-table cache: a pair that does not match the configuration or its
// sidecar is never used, and a save killed part-way leaves nothing behind.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "AKUDoa/base/akudoalogging.h"
#include "support/akudoagrid.h"

namespace fs = std::filesystem;
namespace {

std::string g_log;
void captureLog(const char*, int, const char*, const char* msg) { g_log += msg; }

using Bytes = std::vector<char>;
Bytes readFile(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}
void writeFile(const fs::path& p, const Bytes& b) { std::ofstream(p, std::ios::binary).write(b.data(), b.size()); }

// The cache files of a directory in name order: table, its sidecar, scale.
std::vector<fs::path> cacheFiles(const fs::path& dir)
{
    std::vector<fs::path> out;
    for (const auto& e : fs::directory_iterator(dir))
        out.push_back(e.path());
    std::sort(out.begin(), out.end());
    return out;
}

struct Engine {
    StCamCfg cfg;
    AKUDoaQuantizeV3 v3;
    explicit Engine(const StCamCfg& c) : cfg(c) { v3.doaInit(&cfg); }
    Bytes table() const
    {
        const AKUDoaQuantizeV3Private* d = v3.privateData();
        Bytes out(reinterpret_cast<const char*>(d->steerScale->data),
                  reinterpret_cast<const char*>(d->steerScale->data + d->steerScale->n));
        for (int b = 0; b < d->steerQuant->rows; ++b)
            out.insert(out.end(), d->steerQuant->data[b], d->steerQuant->data[b] + d->steerQuant->cols);
        return out;
    }
    // Heat-map cell of the strongest response to a source at pixel (k, c).
    std::pair<int, int> peakOf(int k, int c)
    {
        AKUDoaFreqBands bands(cfg.frameSize, cfg.sampleFrequency);
        bands.updateBands({{20000, 40000, 1}});
        std::vector<float> win(static_cast<size_t>(cfg.frameSize), 1.0f);
        v3.updateFFTWin(win.data(), cfg.frameSize);
        const AkuSimSource src = cfg.focusDistanceEn ? akugrid_near_source(cfg, k, c) : akugrid_far_source(cfg, k, c);
        mat2d_fp32* frame = akusim_frame(akusim_array_from_cfg(cfg), {src}, cfg.sampleFrequency, cfg.frameSize);
        mat2d_fp32* heat = create_mat2d_fp32(cfg.imageResolutionRow, cfg.imageResolutionCol);
        v3.executeDOA(frame, bands, heat);
        std::pair<int, int> at;
        akugrid_argmax(heat, at.first, at.second);
        destroy_mat2d_fp32(heat);
        destroy_mat2d_fp32(frame);
        return at;
    }
};

class CacheTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* env = std::getenv("AKUDOA_CACHE_DIR");
        base_ = env && *env ? env : "/tmp/akudoa-test-cache/";
        dir_ = fs::path(base_) / (std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) +
                                  "." + std::to_string(::getpid()));
        for (const char* sub : {"a", "b"})
            fs::create_directories(dir_ / sub);
        use("a");
        g_log.clear();
        InstallDoaMessageHandler(captureLog);
    }
    void TearDown() override
    {
        InstallDoaMessageHandler(nullptr);
        fs::remove_all(dir_);
        ::setenv("AKUDOA_CACHE_DIR", base_.c_str(), 1);
    }
    void use(const char* sub) { ::setenv("AKUDOA_CACHE_DIR", (dir_ / sub).c_str(), 1); }
    std::string base_;
    fs::path dir_;
};

StCamCfg small() { return akugrid_camera(16, 8, 6); }

// Catches a stale pair used silently: the pair (with its sidecar) built for
// an older configuration is copied under the names of the current one, as
// a name without the changed field would leave it. It must be rejected,
// rebuilt byte for byte and the source must appear at its pixel.
TEST_F(CacheTest, PairOfAnotherConfigurationIsRebuilt)
{
    const std::vector<std::pair<const char*, std::function<void(StCamCfg&)>>> changes = {
        {"rotated geometry", [](StCamCfg& c) { for (int m = 0; m < 16; ++m) c.micPhi[m] += 1.5707964f; }},
        {"sample rate", [](StCamCfg& c) { c.sampleFrequency = 48000; }},
        {"focus distance", [](StCamCfg& c) { c.focusDistanceEn = true; c.focusDistance = 3.0f; }},
    };
    for (const auto& [what, change] : changes) {
        SCOPED_TRACE(what);
        StCamCfg now = small();
        change(now);
        StCamCfg old = small();
        old.focusDistanceEn = now.focusDistanceEn;
        old.focusDistance = 0.4f;
        use("a");
        Engine stale(old);
        use("b");
        const Bytes fresh = Engine(now).table();
        const std::vector<fs::path> from = cacheFiles(dir_ / "a"), to = cacheFiles(dir_ / "b");
        ASSERT_EQ(from.size(), 3u);
        ASSERT_EQ(to.size(), 3u);
        for (size_t i = 0; i < 3; ++i)
            writeFile(to[i], readFile(from[i]));
        g_log.clear();
        Engine e(now);
        EXPECT_NE(g_log.find("fingerprint mismatch"), std::string::npos) << g_log;
        EXPECT_EQ(e.table(), fresh);
        EXPECT_NE(stale.table(), fresh);
        int r, c;
        akugrid_rotated(1, 8, 6, 2, 4, r, c);
        const auto at = e.peakOf(2, 4);
        EXPECT_LE(std::abs(at.first - r), 1);
        EXPECT_LE(std::abs(at.second - c), 1);
        EXPECT_TRUE(Engine(now).v3.loadQuantizeParam()) << "the rebuilt pair was saved";
        for (const char* sub : {"a", "b"})
            for (const auto& p : cacheFiles(dir_ / sub))
                fs::remove(p);
    }
}

// Catches trusting content: garbage, zero and non-finite tables or scales
// of the right size are rejected (also when the sidecar's checksum was made
// to match), rebuilt, and the fresh pair loads again. A FIFO in place of a
// file must not block the load.
TEST_F(CacheTest, DamagedPairIsRejectedAndRebuilt)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        const char* what;
        int file; // 0 table, 1 sidecar, 2 scale
        std::function<void(Bytes&)> damage;
        bool fixChecksum;
        const char* reason;
    };
    auto fill = [](char v) { return [v](Bytes& b) { std::fill(b.begin(), b.end(), v); }; };
    auto scales = [](float v) {
        return [v](Bytes& b) { for (size_t i = 0; i < b.size(); i += 4) std::memcpy(&b[i], &v, 4); };
    };
    const std::vector<Case> cases = {
        {"garbage table", 0, [](Bytes& b) { for (size_t i = 0; i < b.size(); ++i) b[i] = char(i * 7919 >> 3); },
         false, "table file checksum mismatch"},
        {"zero table", 0, fill(0), false, "table file checksum mismatch"},
        {"huge scales", 2, scales(3e38f), false, "scale file checksum mismatch"},
        {"zero scales", 2, scales(0.0f), true, "non-positive scale"},
        {"NaN scales", 2, scales(nan), true, "non-finite"},
        {"negative scale", 2, [](Bytes& b) { b[3] = char(b[3] | 0x80); }, true, "non-positive scale"},
        {"no sidecar", 1, nullptr, false, "no sidecar"},
        {"sidecar of another version", 1, [](Bytes& b) { b[22] = '7'; }, false, "format version 7"},
        {"FIFO as scale file", 2, nullptr, false, "not a regular file"},
    };
    const Bytes good = Engine(small()).table();
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        const std::vector<fs::path> f = cacheFiles(dir_ / "a");
        ASSERT_EQ(f.size(), 3u);
        Bytes b = readFile(f[k.file]);
        fs::remove(f[k.file]);
        if (k.damage)
            k.damage(b);
        if (k.fixChecksum) {
            Bytes meta = readFile(f[1]);
            char hex[17];
            std::snprintf(hex, sizeof hex, "%016llx", (unsigned long long)XXH3_64bits(b.data(), b.size()));
            const size_t at = std::string(meta.begin(), meta.end()).find("scale ") + 6;
            std::copy(hex, hex + 16, meta.begin() + at);
            writeFile(f[1], meta);
        }
        if (std::string(k.what).rfind("FIFO", 0) == 0)
            ASSERT_EQ(::mkfifo(f[k.file].c_str(), 0600), 0);
        else if (k.damage)
            writeFile(f[k.file], b);
        g_log.clear();
        Engine e(small());
        EXPECT_NE(g_log.find(k.reason), std::string::npos) << g_log;
        EXPECT_EQ(e.table(), good);
        EXPECT_TRUE(e.v3.loadQuantizeParam()) << "a fresh pair was saved";
    }
}

// Catches orphaned temporaries: a writer killed by a signal in the middle
// of the table (its file size limit reached) leaves its temporary; the next
// init removes it, but keeps the temporary of a writer that is still alive.
TEST_F(CacheTest, SaveKilledPartWayLeavesNoOrphan)
{
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const rlimit lim = {8192, 8192};
        ::setrlimit(RLIMIT_FSIZE, &lim);
        Engine e(small());
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    const std::string tag = ".tmp." + std::to_string(child) + ".";
    int orphans = 0;
    for (const auto& p : cacheFiles(dir_ / "a"))
        orphans += p.filename().string().find(tag) != std::string::npos;
    ASSERT_EQ(orphans, 1);
    const fs::path alive = dir_ / "a" / ("QuantizeParam_v3_x.data.tmp." + std::to_string(::getppid()) + ".0");
    writeFile(alive, Bytes(10));

    Engine e(small());
    std::vector<fs::path> left = cacheFiles(dir_ / "a");
    EXPECT_EQ(left.size(), 4u);
    EXPECT_TRUE(fs::exists(alive));
    for (const auto& p : left)
        EXPECT_EQ(p.filename().string().find(tag), std::string::npos) << p;
    EXPECT_TRUE(e.v3.loadQuantizeParam());
}

} // namespace
