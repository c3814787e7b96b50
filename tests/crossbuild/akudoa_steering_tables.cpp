// Writes the quantized steering tables of a few small planar-engine (V3)
// configurations, one file per case: B rows of 2*M*P signed bytes, then B
// native float scales (the engine's cache pair, joined).
// An x86_64 build and an AArch64 build must write byte-identical files;
// scripts/test-arm.sh runs this program from both builds and compares them.
//
//   akudoa_steering_tables OUTDIR      (OUTDIR must not exist yet)
//
// The engine's own cache pairs land in OUTDIR/cache/ and are compared too.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "support/akudoagrid.h"

namespace {

// Focus distance in metres, 0 for the far field.
struct Case { const char* name; int mics, rows, cols, frameSize; float focusDistance; bool freqAverage; };

// Small enough to build in seconds under emulation, yet covering both table
// builders, frequency averaging, two ring layouts and non-square images.
const Case kCases[] = {
    {"far_m16_12x10_n256", 16, 12, 10, 256, 0.0f, false},
    {"near1.5_m16_12x10_n256", 16, 12, 10, 256, 1.5f, false},
    {"far_avg_m64_16x12_n512", 64, 16, 12, 512, 0.0f, true},
    {"near0.7_avg_m64_8x8_n256", 64, 8, 8, 256, 0.7f, true},
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTDIR\n", argv[0]);
        return 2;
    }
    const std::string out = argv[1];
    const std::string cache = out + "/cache/";
    // A fresh cache directory: with an old pair in it the engine would load
    // the tables instead of building them.
    if (mkdir(out.c_str(), 0755) != 0 || mkdir(cache.c_str(), 0755) != 0) {
        std::fprintf(stderr, "%s: cannot create %s: %s\n", argv[0], out.c_str(), std::strerror(errno));
        return 1;
    }
    setenv("AKUDOA_CACHE_DIR", cache.c_str(), 1);

    for (const Case& k : kCases) {
        StCamCfg cfg = akugrid_camera(k.mics, k.rows, k.cols, k.frameSize);
        cfg.focusDistanceEn = k.focusDistance > 0.0f;
        cfg.focusDistance = cfg.focusDistanceEn ? k.focusDistance : 1.0f;
        cfg.freqAverage = k.freqAverage;
        AKUDoaQuantizeV3 engine;
        engine.doaInit(&cfg);
        const std::vector<uint8_t> bytes = akugrid_table_bytes(*engine.privateData());
        FILE* f = std::fopen((out + "/" + k.name + ".data").c_str(), "wb");
        if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || std::fclose(f) != 0) {
            std::fprintf(stderr, "%s: cannot write %s\n", argv[0], k.name);
            return 1;
        }
    }
    return 0;
}
