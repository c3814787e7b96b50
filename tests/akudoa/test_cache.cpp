// Steering-table cache: a pair that does not match the configuration or its
// sidecar is never used, and a save killed part-way leaves nothing behind.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <xxhash.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>

#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "akudoa/kernel_fixture.h"
#include "support/akudoagrid.h"

namespace fs = std::filesystem;
namespace {

std::string logText()
{
    const std::vector<std::string>& lines = kerneltest::capturedLines();
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

using Bytes = std::string;
Bytes readFile(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}
void writeFile(const fs::path& p, const Bytes& b) { std::ofstream(p, std::ios::binary) << b; }

// The cache files of a directory in name order: table, its sidecar, scale.
std::vector<fs::path> cacheFiles(const fs::path& dir)
{
    std::vector<fs::path> out(fs::directory_iterator(dir), {});
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
        Bytes out(reinterpret_cast<const char*>(d->steerScale->data), sizeof(float) * d->steerScale->n);
        for (int b = 0; b < d->steerQuant->rows; ++b)
            out.insert(out.end(), d->steerQuant->data[b], d->steerQuant->data[b] + d->steerQuant->cols);
        return out;
    }
    // Whether a source at pixel (k, c) peaks there (within a cell).
    bool peaksAt(int k, int c)
    {
        AKUDoaFreqBands bands(cfg.frameSize, cfg.sampleFrequency);
        bands.updateBands({{20000, 40000, 1}});
        std::vector<float> win(static_cast<size_t>(cfg.frameSize), 1.0f);
        v3.updateFFTWin(win.data(), cfg.frameSize);
        const AkuSimSource src = cfg.focusDistanceEn ? akugrid_near_source(cfg, k, c) : akugrid_far_source(cfg, k, c);
        mat2d_fp32* frame = akusim_frame(akusim_array_from_cfg(cfg), {src}, cfg.sampleFrequency, cfg.frameSize);
        mat2d_fp32* heat = create_mat2d_fp32(8, 6);
        v3.executeDOA(frame, bands, heat);
        int r, col, wr, wc;
        akugrid_argmax(heat, r, col);
        akugrid_rotated(1, 8, 6, k, c, wr, wc);
        destroy_mat2d_fp32(heat);
        destroy_mat2d_fp32(frame);
        return std::abs(r - wr) <= 1 && std::abs(col - wc) <= 1;
    }
};

// Two cache directories, "a" and "b", in the fixture's temporary one.
class CacheTest : public kerneltest::KernelTest {
protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        base_ = std::getenv("AKUDOA_CACHE_DIR") ? std::getenv("AKUDOA_CACHE_DIR") : "";
        fs::create_directory(at("a")), fs::create_directory(at("b")), use("a");
    }
    void TearDown() override { KernelTest::TearDown(), ::setenv("AKUDOA_CACHE_DIR", base_.c_str(), 1); }
    void use(const char* sub) { ::setenv("AKUDOA_CACHE_DIR", path(sub).c_str(), 1); }
    fs::path at(const char* sub) const { return path(sub); }
    std::string base_;
};

StCamCfg small() { return akugrid_camera(16, 8, 6); }

// Catches a stale pair used silently: the pair (with its sidecar) built for
// an older configuration is copied under the names of the current one, as
// a name without the changed field would leave it. It must be rejected,
// rebuilt byte for byte and the source must appear at its pixel.
TEST_F(CacheTest, PairOfAnotherConfigurationIsRebuilt)
{
    const std::vector<std::pair<const char*, std::function<void(StCamCfg&)>>> changes = {
        {"rotated geometry", [](StCamCfg& c) { std::rotate(c.micPhi, c.micPhi + 4, c.micPhi + 16); }},
        {"sample rate", [](StCamCfg& c) { c.sampleFrequency = 48000; }},
        {"focus distance", [](StCamCfg& c) { c.focusDistanceEn = true, c.focusDistance = 3.0f; }},
    };
    for (const auto& [what, change] : changes) {
        SCOPED_TRACE(what);
        StCamCfg now = small(), old = small();
        change(now);
        old.focusDistanceEn = now.focusDistanceEn, old.focusDistance = 0.4f;
        use("a");
        const Bytes stale = Engine(old).table();
        use("b");
        const Bytes fresh = Engine(now).table();
        const std::vector<fs::path> from = cacheFiles(at("a")), to = cacheFiles(at("b"));
        ASSERT_TRUE(from.size() == 3 && to.size() == 3);
        for (size_t i = 0; i < 3; ++i)
            writeFile(to[i], readFile(from[i]));
        kerneltest::capturedLines().clear();
        Engine e(now);
        EXPECT_NE(logText().find("fingerprint mismatch"), std::string::npos) << logText();
        EXPECT_EQ(e.table(), fresh);
        EXPECT_NE(stale, fresh);
        EXPECT_TRUE(e.peaksAt(2, 4));
        EXPECT_TRUE(Engine(now).v3.loadQuantizeParam()) << "the rebuilt pair was saved";
        for (const char* sub : {"a", "b"})
            fs::remove_all(at(sub)), fs::create_directory(at(sub));
    }
}

// Catches trusting content: garbage, zero and non-finite tables or scales
// of the right size are rejected (also when the sidecar's checksum is made to
// match them), rebuilt, and the fresh pair loads again. A FIFO in place of
// the scale file must not block the load.
TEST_F(CacheTest, DamagedPairIsRejectedAndRebuilt)
{
    using Damage = Bytes (*)(Bytes);
    const Damage zero = [](Bytes b) { return Bytes(b.size(), '\0'); };
    const Damage nan = [](Bytes b) { return Bytes(b.size(), '\xff'); }; // 0xffffffff
    const std::vector<std::tuple<const char*, int, Damage, bool, const char*>> cases = {
        // what, file (0 table, 1 sidecar, 2 scale), new content (null: removed), checksum fixed, log
        {"garbage table", 0, [](Bytes b) { return Bytes(b.rbegin(), b.rend()); }, false, "table file checksum"},
        {"zero table", 0, zero, false, "table file checksum"},
        {"huge scales", 2, [](Bytes b) { return Bytes(b.size(), '\x7f'); }, false, "scale file checksum"},
        {"zero scales", 2, zero, true, "non-positive scale"},
        {"NaN scales", 2, nan, true, "non-finite"},
        {"negative scale", 2, [](Bytes b) { return b.replace(3, 1, 1, char(b[3] | 0x80)); }, true, "non-positive"},
        {"no sidecar", 1, nullptr, false, "no sidecar"},
        {"sidecar of another version", 1, [](Bytes b) { return b.replace(22, 1, "7"); }, false, "version 7"},
        {"FIFO as scale file", 2, nullptr, false, "not a regular file"},
    };
    const Bytes good = Engine(small()).table();
    for (const auto& [what, file, damage, fixChecksum, reason] : cases) {
        SCOPED_TRACE(what);
        const std::vector<fs::path> f = cacheFiles(at("a"));
        const Bytes b = damage ? damage(readFile(f[file])) : Bytes();
        fs::remove(f[file]);
        if (damage)
            writeFile(f[file], b);
        ASSERT_EQ(damage || file != 2 ? 0 : ::mkfifo(f[file].c_str(), 0600), 0);
        if (fixChecksum) {
            const uint64_t row = XXH3_64bits(b.data(), b.size()); // the scale file is one row
            char hex[17];
            std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(XXH3_64bits(&row, sizeof row)));
            Bytes meta = readFile(f[1]);
            writeFile(f[1], meta.replace(meta.find("scale ") + 6, 16, hex));
        }
        kerneltest::capturedLines().clear();
        Engine e(small());
        EXPECT_NE(logText().find(reason), Bytes::npos) << logText();
        EXPECT_EQ(e.table(), good);
        EXPECT_TRUE(e.v3.loadQuantizeParam()) << "a fresh pair was saved";
    }
}

// Catches orphaned temporaries: a writer killed by a signal in the middle
// of the table (its file size limit reached) leaves its temporary; the next
// init removes it, but keeps the temporary of a writer that is still alive.
TEST_F(CacheTest, SaveKilledPartWayLeavesNoOrphan)
{
    const rlimit lim = {8192, 8192};
    const pid_t child = ::fork();
    if (child == 0 && ::setrlimit(RLIMIT_FSIZE, &lim) == 0)
        Engine e(small()); // dies in the table's write
    if (child == 0)
        ::_exit(0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    const std::string tag = ".tmp." + std::to_string(child) + ".";
    auto orphans = [&] {
        const std::vector<fs::path> f = cacheFiles(at("a"));
        return std::count_if(f.begin(), f.end(), [&](const fs::path& p) { return p.string().find(tag) != Bytes::npos; });
    };
    ASSERT_EQ(orphans(), 1);
    const fs::path alive = at("a") / ("QuantizeParam_v3_x.data.tmp." + std::to_string(::getppid()) + ".0");
    writeFile(alive, "x");

    Engine e(small());
    EXPECT_EQ(orphans(), 0);
    EXPECT_TRUE(fs::exists(alive));
    EXPECT_EQ(cacheFiles(at("a")).size(), 4u) << "the pair, its sidecar and the live writer's file";
    EXPECT_TRUE(e.v3.loadQuantizeParam());
}

} // namespace
