// Bad input at the readouts and setters: buffers of the wrong shape,
// extreme targets, non-finite samples, refused setter values, and the
// setters racing the frames (run under the thread sanitizer in CI).
#include <atomic>
#include <climits>
#include <thread>

#include "kernel_fixture.h"

using namespace kerneltest;

namespace {

// 16 microphones, 16 x 12 image, identity correction, every optional engine.
const std::string kCamera = cameraIni(16, 256, 16, 12, 3, -1, 1, "[AcousticCameraParam]\ndistanceMeasure_en = true\n[DOA]\nextra_en = true\n");

bool allFinite(const std::vector<float>& v) { return std::all_of(v.begin(), v.end(), [](float x) { return std::isfinite(x); }); }

// Capture frame of a plane wave that the engine shows at unrotated (5, 4).
AkuMat sourceFrame(const StCamCfg& cfg) { return kerneltest::capture(cfg, {akugrid_far_source(cfg, 5, 4, 7)}); }

} // namespace

// Frames, maps and audio vectors that do not fit are refused before
// anything is read or written; extreme targets give finite results.
TEST_F(KernelTest, BadFramesBuffersAndTargets)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(kCamera).c_str()));
    struct Shape { const char* name; int frameRows, frameCols, mapRows, mapCols, audio; bool mapsRefused, audioRefused; };
    const Shape shapes[] = {{"frame rows", 15, 256, 16, 12, 256, true, true}, {"frame cols", 128, 255, 16, 12, 256, true, true},
                            {"0 x 0 frame", 0, 0, 16, 12, 256, true, true}, {"small map", 128, 256, 7, 6, 256, true, false},
                            {"short audio", 128, 256, 16, 12, 255, false, true}};
    for (const Shape& s : shapes) {
        AkuMat frame = akumat(s.frameRows, s.frameCols, 1.0f), map = akumat(s.mapRows, s.mapCols, -7.0f);
        vec_fp32* audio = create_vec_fp32(s.audio);
        std::fill(audio->data, audio->data + s.audio, -7.0f);
        float dist = -7.0f, power = -7.0f;
        int lo = -7, hi = -7;
        const fpoint2d t{0.0f, 3, 3};
        EXPECT_EQ(k.readHeatMap(frame.get(), map.get(), nullptr, 0), !s.mapsRefused) << s.name;
        EXPECT_EQ(k.readHeatMap(frame.get(), map.get(), t, dist, nullptr, 0), !s.mapsRefused) << s.name;
        EXPECT_EQ(k.readHeatMap(frame.get(), map.get(), t, lo, hi, power, nullptr, 0), !s.mapsRefused) << s.name;
        EXPECT_EQ(k.readHeatMapExtra(frame.get(), map.get()), !s.mapsRefused) << s.name;
        EXPECT_EQ(k.readPickedUpAudio(frame.get(), audio, t), !s.audioRefused) << s.name;
        EXPECT_EQ(k.readPickedUpAudioAtCell(frame.get(), audio, t), !s.audioRefused) << s.name;
        // Nothing written by a refused call.
        EXPECT_TRUE(!s.mapsRefused || akugrid_flat(map.get()) == std::vector<float>(s.mapRows * s.mapCols, -7.0f)) << s.name;
        EXPECT_TRUE(!s.mapsRefused || (dist == -7.0f && power == -7.0f && lo == -7 && hi == -7)) << s.name;
        EXPECT_TRUE(!s.audioRefused || std::count(audio->data, audio->data + s.audio, -7.0f) == s.audio) << s.name;
        destroy_vec_fp32(audio);
    }

    // Targets far outside the grid, as given and through the largest
    // accepted correction coefficients.
    AkuMat frame(sourceFrame(*k.camConfig())), map = akumat(16, 12);
    vec_fp32* audio = create_vec_fp32(256);
    for (float coefficient : {1.0f, 1e4f}) {
        k.updateCordinateMat({coefficient, coefficient, coefficient, coefficient, coefficient, coefficient});
        for (const fpoint2d t : {fpoint2d{0.0f, INT_MAX, INT_MAX}, fpoint2d{0.0f, INT_MIN, INT_MIN},
                                 fpoint2d{0.0f, INT_MAX, INT_MIN}, fpoint2d{0.0f, -1, 12}}) {
            float dist = 0.0f, power = 0.0f;
            int lo = 0, hi = 0;
            EXPECT_TRUE(k.readHeatMap(frame.get(), map.get(), t, dist, nullptr, 0));
            EXPECT_TRUE(k.readHeatMap(frame.get(), map.get(), t, lo, hi, power, nullptr, 0));
            EXPECT_TRUE(std::isfinite(dist) && std::isfinite(power) && std::isfinite(k.getPaWithTarget(t).val));
            EXPECT_TRUE(k.readPickedUpAudio(frame.get(), audio, t));
            EXPECT_FALSE(k.readPickedUpAudioAtCell(frame.get(), audio, t));
            EXPECT_TRUE(allFinite(std::vector<float>(audio->data, audio->data + 256)));
        }
    }
    destroy_vec_fp32(audio);
}

// A channel holding NaN or inf is muted for its frame: the map, the target
// power and the picked-up audio equal those of the frame with that channel
// at zero, and the next frame is clean.
TEST_F(KernelTest, NonFiniteSamplesMuteTheirChannel)
{
    const std::string cfgPath = ini(kCamera);
    const std::vector<std::vector<std::pair<int, float>>> cases = {
        {{3, kNaN}}, {{0, kInf}}, {{5, -kInf}, {9, kNaN}}};
    for (const auto& bad : cases) {
        std::vector<float> map[2], audio[2], power[2];
        for (int zeroed = 0; zeroed < 2; ++zeroed) {
            AKUDoaKernel k; // the same history for both frames
            ASSERT_TRUE(k.init(cfgPath.c_str()));
            const StCamCfg& cfg = *k.camConfig();
            AkuMat clean(sourceFrame(cfg)), frame(sourceFrame(cfg)), m = akumat(16, 12);
            for (const auto& [position, value] : bad) {
                float* row = frame->data[cfg.micIndex[position]];
                if (zeroed)
                    std::fill(row, row + 256, 0.0f);
                else
                    row[17] = value;
            }
            int lo = 0, hi = 0;
            power[zeroed] = {0.0f};
            ASSERT_TRUE(k.readHeatMap(frame.get(), m.get(), fpoint2d{0.0f, 5, 4}, lo, hi, power[zeroed][0], nullptr, 0));
            map[zeroed] = akugrid_flat(m.get());
            vec_fp32* a = create_vec_fp32(256);
            ASSERT_TRUE(k.readPickedUpAudio(frame.get(), a, fpoint2d{0.0f, 5, 4}));
            ASSERT_TRUE(k.readPickedUpAudio(clean.get(), a, fpoint2d{0.0f, 5, 4}));
            audio[zeroed].assign(a->data, a->data + 256);
            destroy_vec_fp32(a);
        }
        EXPECT_TRUE(allFinite(map[0]) && allFinite(audio[0]) && allFinite(power[0]));
        EXPECT_EQ(map[0], map[1]);
        EXPECT_EQ(audio[0], audio[1]);
        EXPECT_EQ(power[0], power[1]);
    }
    EXPECT_TRUE(logged("doakernel: muted channels with non-finite samples: 5 9 "));
}

// Setters refuse values that would poison every later frame, with a log
// line, and keep the previous state: the same frame images the same (the
// correction is on, so a changed coefficient would show).
TEST_F(KernelTest, SettersRefuseBadValues)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(kCamera).c_str()));
    AkuMat frame(sourceFrame(*k.camConfig())), map = akumat(16, 12);
    vec_fp32* audio = create_vec_fp32(256);
    ASSERT_TRUE(k.readHeatMap(frame.get(), map.get(), nullptr, 0));
    const std::vector<float> before = akugrid_flat(map.get());
    const float focus = k.getFocusDis();
    const std::vector<std::function<void()>> calls = {
        [&] { k.setFocusDis(kNaN, true); }, [&] { k.setFocusDis(0.0f, true); }, [&] { k.setFocusDis(-1.0f, false); }, [&] { k.setFocusDis(1e30f, true); },
        [&] { k.updateCordinateMat({kNaN, 0, 1, 0, 1, 0}); }, [&] { k.updateCordinateMat({0, 0, 1, 0, kInf, 0}); }, [&] { k.updateCordinateMat({0, 0, 1, 0, 1, -1e30f}); },
        [&] { k.setFFTWindow_doa(FFT_WINDOW_TUKEY, 0, 0, kNaN); }, [&] { k.setFFTWindow_doa(FFT_WINDOW_GAUSSIAN, kInf, 0, 0); }, [&] { k.setFFTWindow_doa(FFT_WINDOW_CHEBYSHEV, 0, 0, 1e30f); },
        [&] { k.setFFTWindow_pickup(FFT_WINDOW_TUKEY, 0, 0, kNaN); }, [&] { k.setFFTWindow_pickup(FFT_WINDOW_CHEBYSHEV, 0, 0, -kInf); }};
    for (size_t i = 0; i < calls.size(); ++i) {
        kerneltest::capturedLines().clear();
        calls[i]();
        ASSERT_EQ(bodies().size(), 1u) << i;
        EXPECT_NE(bodies()[0].find(": refused "), std::string::npos) << bodies()[0];
        EXPECT_EQ(k.getFocusDis(), focus) << i;
        ASSERT_TRUE(k.readHeatMap(frame.get(), map.get(), nullptr, 0));
        EXPECT_EQ(akugrid_flat(map.get()), before) << i;
        ASSERT_TRUE(k.readPickedUpAudio(frame.get(), audio, fpoint2d{0.0f, 5, 4}));
        EXPECT_TRUE(allFinite(std::vector<float>(audio->data, audio->data + 256))) << i;
    }
    destroy_vec_fp32(audio);
}

// Program switches, focus, self terms, radius mode, windows and correction
// updates from one thread while another images frames with their spectrum,
// reads target powers (corrected against the coefficient updates) and picks
// up at a cell: every frame is imaged, nothing races (thread sanitizer).
TEST_F(KernelTest, ConcurrencySettersAndProgramsAgainstFrames)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(kCamera + "[QuantizeiParam]\nreadFromFile = 0\nautoSave = 0\n").c_str()));
    AkuMat frame(sourceFrame(*k.camConfig())), map = akumat(16, 12);
    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 0; i < 24; ++i) {
            if (i % 6 == 0)
                k.setDoaProgram(i % 12 ? AKUDoaKernel::DOA_PROGRAM_V3 : AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_4);
            k.setFocusDis(i % 2 ? 0.8f : 1.2f, i % 3 == 0), k.setSpectrumSelf(i % 2 == 0), k.setFocusRadius(i % 4 == 1);
            k.setFFTWindow_doa(i % 2 ? FFT_WINDOW_HANN : FFT_WINDOW_TUKEY, 0.0f, 0.0f, 0.2f), k.setFFTWindow_pickup(FFT_WINDOW_HANN, 0.0f, 0.0f, 1.0f);
            k.updateCordinateMat(CordinateMat{0.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f});
        }
        done = true;
    });
    vec_fp32 *audio = create_vec_fp32(256), *spectrum = create_vec_fp32(129);
    for (int frames = 0; !done || frames < 3; ++frames) {
        EXPECT_TRUE(k.readHeatMap(frame.get(), map.get(), spectrum, 1));
        for (int i = 0; i < 4; ++i) // racing a switch, the new engine may not have imaged yet
            (void)k.getPaWithTarget(fpoint2d{0.0f, 3, i});
        EXPECT_TRUE(k.readPickedUpAudioAtCell(frame.get(), audio, fpoint2d{0.0f, frames % 16, 3}));
        EXPECT_TRUE(allFinite(akugrid_flat(map.get())));
    }
    control.join();
    destroy_vec_fp32(audio), destroy_vec_fp32(spectrum);
}
