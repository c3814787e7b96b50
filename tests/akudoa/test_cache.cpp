// Steering-table cache: a pair that does not match the configuration or its
// sidecar is never used, and a save killed part-way leaves nothing behind.
#include <gtest/gtest.h>
#include <omp.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <xxhash.h>

#include <filesystem>
#include <fstream>

#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "akudoa/kernel_fixture.h"
#include "support/akudoagrid.h"

namespace fs = std::filesystem;
namespace {

// Whether a log line since the last clear contains part.
bool logHas(const char* part)
{
    for (const std::string& line : kerneltest::capturedLines())
        if (line.find(part) != std::string::npos)
            return true;
    return false;
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
std::vector<Bytes> contents(const fs::path& dir)
{
    std::vector<Bytes> out;
    for (const fs::path& p : cacheFiles(dir))
        out.push_back(readFile(p));
    return out;
}

struct Engine {
    StCamCfg cfg;
    AKUDoaQuantizeV3 v3;
    explicit Engine(const StCamCfg& c) : cfg(c) { v3.doaInit(&cfg); }
};

// Cache directories "a" and "b" inside the fixture's temporary one.
class CacheTest : public kerneltest::CacheTest {
protected:
    void SetUp() override { kerneltest::CacheTest::SetUp(), use("a"); }
    void use(const char* sub) { fs::create_directory(path(sub)), useCache(path(sub)); }
};

StCamCfg small() { return akugrid_camera(16, 8, 6); }

// Catches a stale pair used silently: the pair (with its sidecar) built for
// an older configuration is copied under the names of the current one, as
// a name without the changed field would leave it. It must be rejected,
// rebuilt byte for byte and saved.
TEST_F(CacheTest, PairOfAnotherConfigurationIsRebuilt)
{
    const std::vector<std::pair<const char*, void (*)(StCamCfg&)>> changes = {
        {"rotated geometry", [](StCamCfg& c) { std::rotate(c.micPhi, c.micPhi + 4, c.micPhi + 16); }},
        {"sample rate", [](StCamCfg& c) { c.sampleFrequency = 48000; }},
        {"focus distance", [](StCamCfg& c) { c.focusDistanceEn = true, c.focusDistance = 3.0f; }},
    };
    for (const auto& [what, change] : changes) {
        StCamCfg now = small(), old = small();
        change(now);
        old.focusDistanceEn = now.focusDistanceEn, old.focusDistance = 0.4f;
        use("a"), Engine{old};
        use("b"), Engine{now};
        const std::vector<Bytes> stale = contents(path("a")), fresh = contents(path("b"));
        const std::vector<fs::path> to = cacheFiles(path("b"));
        ASSERT_TRUE(stale.size() == 3 && to.size() == 3);
        EXPECT_NE(stale[0], fresh[0]) << what << ": the change shapes the table";
        for (size_t i = 0; i < 3; ++i)
            writeFile(to[i], stale[i]);
        kerneltest::capturedLines().clear();
        Engine{now};
        EXPECT_TRUE(logHas("fingerprint mismatch")) << what;
        EXPECT_EQ(contents(path("b")), fresh) << "rebuilt and saved";
        fs::remove_all(path("a")), fs::remove_all(path("b"));
    }
}

// Catches trusting content: garbage, zero and non-finite tables or scales
// of the right size are rejected (also when the sidecar's checksum is made to
// match them), rebuilt and saved again. A FIFO in place of the scale file
// must not block the load.
TEST_F(CacheTest, DamagedPairIsRejectedAndRebuilt)
{
    using Damage = Bytes (*)(Bytes);
    const std::vector<std::tuple<const char*, int, Damage, bool, const char*>> cases = {
        // what, file (0 table, 1 sidecar, 2 scale), new content (null: removed), checksum fixed, log
        {"garbage table", 0, [](Bytes b) { return Bytes(b.rbegin(), b.rend()); }, false, "table file checksum"},
        {"zero table", 0, [](Bytes b) { return Bytes(b.size(), '\0'); }, false, "table file checksum"},
        {"longer table", 0, [](Bytes b) { return b + "tail"; }, false, "table file has the wrong size"},
        {"huge scales", 2, [](Bytes b) { return Bytes(b.size(), '\x7f'); }, false, "scale file checksum"},
        {"zero scales", 2, [](Bytes b) { return Bytes(b.size(), '\0'); }, true, "non-positive scale"},
        {"NaN scales", 2, [](Bytes b) { return Bytes(b.size(), '\xff'); }, true, "non-finite"},
        {"no sidecar", 1, nullptr, false, "no sidecar"},
        {"FIFO as scale file", 2, nullptr, false, "not a regular file"},
    };
    Engine{small()};
    const std::vector<Bytes> good = contents(path("a"));
    StCamCfg folded = small();
    folded.compactSteering = true;
    kerneltest::capturedLines().clear(), Engine{folded};
    EXPECT_FALSE(logHas("rejected")) << "a folded load is checked as it reads";
    for (const auto& [what, file, damage, fixChecksum, reason] : cases) {
        SCOPED_TRACE(what);
        const std::vector<fs::path> f = cacheFiles(path("a"));
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
        Engine{small()};
        EXPECT_TRUE(logHas(reason));
        EXPECT_EQ(contents(path("a")), good) << "rebuilt and saved";
    }
}

// Catches orphaned temporaries: a writer killed by a signal in the middle
// of the table (its file size limit reached) leaves its temporary; the next
// init removes it, but keeps the temporary of a writer that is still alive.
TEST_F(CacheTest, SaveKilledPartWayLeavesNoOrphan)
{
    const rlimit lim = {8192, 8192};
    const pid_t child = ::fork();
    if (child == 0) // the parent's OpenMP workers do not exist here: one thread
        omp_set_num_threads(1);
    if (child == 0 && ::setrlimit(RLIMIT_FSIZE, &lim) == 0)
        Engine e(small()); // dies in the table's write
    if (child == 0)
        ::_exit(0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    auto orphans = [&, tag = ".tmp." + std::to_string(child) + "."] {
        const std::vector<fs::path> f = cacheFiles(path("a"));
        return std::count_if(f.begin(), f.end(), [&](const fs::path& p) { return p.string().find(tag) != Bytes::npos; });
    };
    ASSERT_EQ(orphans(), 1);
    writeFile(path("a/QuantizeParam_v3_x.data.tmp.") + std::to_string(::getppid()) + ".0", "alive writer");

    Engine{small()};
    EXPECT_EQ(orphans(), 0);
    EXPECT_EQ(contents(path("a")).size(), 4u) << "the pair, its sidecar and the live writer's file";
}

} // namespace
