// Loading a V3 cache pair with its sidecar. Input: sidecar text, "----"
// line, scale file bytes, "----" line, table file bytes; they are written
// under the names of a small engine's pair and loaded. A load that succeeds
// must have produced only finite, positive scales.
//
// With AKUDOA_FUZZ_SEED_OUT=<file> the program writes a valid input (the
// engine's own pair) there and exits: the seed of the corpus.
#include <cmath>
#include <cstring>
#include <dirent.h>

#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "fuzz_support.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Fixture {
    StCamCfg cfg{};
    AKUDoaQuantizeV3 engine;
    std::string meta, scale, table; // paths of the pair and its sidecar
    Fixture()
    {
        const std::string dir = fuzz_dir("cache");
        cfg.doaVersionSelect = 3;
        cfg.sampleFrequency = 96000;
        cfg.channelNum = 8;
        cfg.imageResolutionRow = 4;
        cfg.imageResolutionCol = 4;
        cfg.frameSize = 64;
        cfg.imageThetaXYFactor = 1.3f;
        cfg.eangleDomain = 43;
        cfg.micMaxRadius = 0.1f;
        cfg.focusDistance = 1.0f;
        for (int m = 0; m < 8; ++m) {
            cfg.micIndex[m] = m;
            cfg.micRadius[m] = 0.025f;
            cfg.micPhi[m] = static_cast<float>(m * kPi / 4 - (m >= 4 ? 2 * kPi : 0.0));
        }
        engine.doaInit(&cfg); // builds and saves the pair
        DIR* d = ::opendir(dir.c_str());
        while (const dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name.find(".meta") != std::string::npos)
                meta = dir + name;
            else if (name.rfind("QuantizeScaleParam", 0) == 0)
                scale = dir + name;
            else if (name.rfind("QuantizeParam", 0) == 0)
                table = dir + name;
        }
        ::closedir(d);
        if (meta.empty() || scale.empty() || table.empty())
            std::abort();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Fixture f;
    if (const char* out = std::getenv("AKUDOA_FUZZ_SEED_OUT")) {
        fuzz_write(out, fuzz_read(f.meta) + "\n----\n" + fuzz_read(f.scale) + "\n----\n" + fuzz_read(f.table));
        std::_Exit(0); // not exit(): libFuzzer reports that as a finding
    }
    const std::vector<std::string> parts = fuzz_split(data, size, 3);
    fuzz_write(f.meta, parts[0]);
    fuzz_write(f.scale, parts[1]);
    fuzz_write(f.table, parts[2]);
    if (f.engine.loadQuantizeParam()) {
        const vec_fp32* s = f.engine.privateData()->steerScale;
        for (int b = 0; b < s->n; ++b)
            if (!std::isfinite(s->data[b]) || !(s->data[b] > 0.0f))
                std::abort();
    }
    return 0;
}
