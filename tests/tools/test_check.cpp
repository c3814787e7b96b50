// akudoa check: faults injected into a simulated recording of one source
// are named at the microphone that has them, and nothing else is flagged.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "arrayfile.h"
#include "camera.h"
#include "cli_support.h"
#include "wavio.h"

using namespace akutool;
using namespace clitest;

namespace {

enum Fault { Dead, Clip, Invert, Swap, Noise, Shift };
struct Injected {
    Fault fault;
    int pos, other = -1; // other: the swap partner
};
using Statuses = std::map<int, std::string>;

// One source at cell (3, 2), off the axis so that a position error along
// its direction changes the delay (2 cm there is about 23 us).
struct Bench {
    std::string dir; // one per test: ctest runs tests side by side
    ArrayLayout lay;
    Vec3 towards; // the source's direction in the array plane, unit length
    std::vector<std::vector<float>> planes;

    explicit Bench(const std::string& name, const std::string& sources = "[source a]\npixel = 3 2\n")
        : dir(dirFor(name))
    {
        EXPECT_EQ(simulate(dir, "[scene]\nduration = 0.2\nmic_noise_db = -60\n" + sources).status, 0);
        Camera cam(joinPath(dir, "cam.ini"), {});
        lay = cam.layout();
        const Vec3 v = pixelTarget(cam.image(), 3, 2).v;
        towards = (1.0 / std::hypot(v.x, v.y)) * Vec3{v.x, v.y, 0};
        SoundReader in(joinPath(dir, "rec.wav"));
        std::vector<float> inter(static_cast<size_t>(in.info().frames * in.info().channels));
        in.read(inter.data(), in.info().frames);
        planes.resize(in.info().channels);
        for (size_t i = 0; i < inter.size(); ++i)
            planes[i % planes.size()].push_back(inter[i]);
    }

    // Runs the check on the recording with the faults; the non-ok statuses.
    Statuses check(const std::vector<Injected>& faults, bool giveSource, ToolRun& run)
    {
        std::vector<std::vector<float>> p = planes;
        std::vector<Vec3> pos = lay.position;
        std::mt19937 rng(7);
        std::normal_distribution<float> gauss(0.0f, 0.1f);
        for (const Injected& f : faults) {
            std::vector<float>& x = p[lay.channel[f.pos]];
            for (float& v : x)
                v = f.fault == Dead ? 0.0f : f.fault == Clip ? std::clamp(v, -0.1f, 0.1f)
                  : f.fault == Invert ? -v : f.fault == Noise ? gauss(rng) : v;
            if (f.fault == Swap)
                std::swap(x, p[lay.channel[f.other]]);
            if (f.fault == Shift)
                pos[f.pos] = Vec3{pos[f.pos].x + 0.02 * towards.x, pos[f.pos].y + 0.02 * towards.y, 0};
        }
        ArrayGeometry g;
        for (size_t i = 0; i < pos.size(); ++i) {
            g.index.push_back(lay.channel[i]);
            g.phi.push_back(static_cast<float>(std::atan2(pos[i].y, pos[i].x)));
            g.radius.push_back(static_cast<float>(std::hypot(pos[i].x, pos[i].y)));
        }
        writeGeometryFile(joinPath(dir, "geo.bin"), g);
        // Table cache names do not carry the geometry file: build afresh.
        writeText(joinPath(dir, "geo.ini"), smallCamera() + "[MicParam]\nMicFile = geo.bin\n"
                                            "[QuantizeiParam]\nreadFromFile = false\nautoSave = false\n");
        writeWavFloat(joinPath(dir, "bad.wav"), p, 96000);
        run = akudoa(dir, "check --config geo.ini --in bad.wav --out out" + std::string(giveSource ? " --source 3,2" : ""));
        Statuses found;
        std::ifstream csv(joinPath(dir, "out/channels.csv"));
        std::string line;
        for (std::getline(csv, line); std::getline(csv, line);) // past the header
            if (line.substr(line.rfind(',') + 1) != "ok")
                found[std::stoi(line)] = line.substr(line.rfind(',') + 1);
        return found;
    }
};

Statuses expected(const std::vector<Injected>& faults)
{
    const char* names[] = {"dead", "clipped", "inverted", "", "noisy", "misplaced"};
    Statuses s;
    for (const Injected& f : faults) {
        s[f.pos] = f.fault == Swap ? "swapped with " + std::to_string(f.other) : names[f.fault];
        if (f.fault == Swap)
            s[f.other] = "swapped with " + std::to_string(f.pos);
    }
    return s;
}

} // namespace

TEST(ToolCheck, NamesEachFaultAndNothingElse)
{
    Bench b("check");
    const std::vector<Injected> all = {{Dead, 5}, {Clip, 20}, {Invert, 33}, {Swap, 8, 49}, {Noise, 57}, {Shift, 24}};
    // A block of eight channels wired in reverse: four swapped pairs.
    const std::vector<Injected> reversed = {{Swap, 40, 47}, {Swap, 41, 46}, {Swap, 42, 45}, {Swap, 43, 44}};
    const std::pair<std::vector<Injected>, bool> cases[] = { // the faults, whether --source is given
        {{}, true}, {{all[0]}, true}, {{all[1]}, true}, {{all[2]}, true}, {{all[3]}, true},
        {{all[4]}, true}, {{all[5]}, true}, {reversed, true}, {all, true}, {all, false}};
    std::vector<ToolRun> runs(std::size(cases));
    for (size_t i = 0; i < runs.size(); ++i) {
        EXPECT_EQ(b.check(cases[i].first, cases[i].second, runs[i]), expected(cases[i].first)) << runs[i].out;
        EXPECT_EQ(runs[i].status, cases[i].first.empty() ? 0 : 3);
    }
    // The corrected order restores what the swap cost the map.
    auto sharpness = [](const std::string& out, const std::string& after) {
        return out.find(after) == std::string::npos ? NAN : std::stod(out.substr(out.find(after) + after.size()));
    };
    const double cleanDb = sharpness(runs[0].out, "peak sharpness: ");
    EXPECT_LT(sharpness(runs[7].out, "order: "), cleanDb - 0.5) << runs[7].out;
    EXPECT_NEAR(sharpness(runs[7].out, "dB before, "), cleanDb, 0.5) << runs[7].out;
}

TEST(ToolCheck, TwoEqualSourcesNeedTheUserToNameOne)
{
    Bench b("check-two", "[source a]\npixel = 3 2\n[source b]\npixel = 12 9\n");
    ToolRun r;
    b.check({}, false, r);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("give --source"), std::string::npos) << r.out;
}
