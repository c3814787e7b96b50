// Writes the quantized steering tables of a few small planar-engine (V3)
// configurations in the layout of the engine's cache files: per case a scale
// file (B native floats) and a table file (B rows of 2*M*P signed bytes).
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
#include "support/akudoasim.h"

namespace {

struct Case {
    const char* name;
    int mics, rows, cols, frameSize;
    float focusDistance; // metres; 0 = far field
    bool freqAverage;
};

// Small enough to build in seconds under emulation, yet covering both table
// builders, frequency averaging, two ring layouts and non-square images.
const Case kCases[] = {
    {"far_m16_12x10_n256", 16, 12, 10, 256, 0.0f, false},
    {"near1.5_m16_12x10_n256", 16, 12, 10, 256, 1.5f, false},
    {"far_avg_m64_16x12_n512", 64, 16, 12, 512, 0.0f, true},
    {"near0.7_avg_m64_8x8_n256", 64, 8, 8, 256, 0.7f, true},
};

bool writeFile(const std::string& path, const std::string& bytes)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}

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
        StCamCfg cfg{};
        cfg.doaVersionSelect = 3;
        cfg.sampleFrequency = 96000;
        cfg.imageResolutionRow = k.rows;
        cfg.imageResolutionCol = k.cols;
        cfg.frameSize = k.frameSize;
        cfg.imageThetaXYFactor = 1.3f;
        cfg.eangleDomain = 43;
        cfg.micMaxRadius = 0.11f;
        cfg.focusDistanceEn = k.focusDistance > 0.0f;
        cfg.focusDistance = cfg.focusDistanceEn ? k.focusDistance : 1.0f;
        cfg.freqAverage = k.freqAverage;
        for (float& s : cfg.micSensitivity)
            s = 1.0f;
        if (!akusim_fill_layout(cfg, k.mics)) {
            std::fprintf(stderr, "%s: no built-in layout for %d microphones\n", argv[0], k.mics);
            return 1;
        }

        AKUDoaQuantizeV3 engine;
        engine.doaInit(&cfg);
        const AKUDoaQuantizeV3Private* d = engine.privateData();
        const vec_fp32* scale = d->steerScale;
        const mat2d_uint8* table = d->steerQuant;

        const std::string base = out + "/" + k.name;
        std::string rows;
        for (int b = 0; b < table->rows; ++b)
            rows.append(reinterpret_cast<const char*>(table->data[b]), table->cols);
        if (!writeFile(base + "_scale.data", std::string(reinterpret_cast<const char*>(scale->data),
                                                         sizeof(float) * scale->n)) ||
            !writeFile(base + "_table.data", rows)) {
            std::fprintf(stderr, "%s: cannot write %s\n", argv[0], base.c_str());
            return 1;
        }
    }
    return 0;
}
