// Kernel initialisation: INI keys, defaults and presets, the summary log,
// the default band, buffers, and behaviour on bad configuration files.
#include <cmath>
#include <sstream>

#include "AKUDoa/akudoafreqbands.h"
#include "kernel_fixture.h"

using kerneltest::KernelTest;

namespace {

std::string num(double v)
{
    std::ostringstream s;
    s << v;
    return s.str();
}

// "...use time(ms): <digits> " with a non-negative whole number.
bool isTimingLine(const std::string& s)
{
    const std::string head = "doakernel init: init finish, result: success, use time(ms): ";
    if (s.compare(0, head.size(), head) != 0 || s.size() < head.size() + 2 || s.back() != ' ')
        return false;
    for (size_t i = head.size(); i + 1 < s.size(); ++i)
        if (s[i] < '0' || s[i] > '9')
            return false;
    return true;
}

} // namespace

// Every key set to a value different from its default: catches a key read
// into the wrong field, a wrong section, a label typo or a missing line.
TEST_F(KernelTest, SummaryOfNonDefaultConfiguration)
{
    const int mics = 16;
    std::vector<int32_t> idx(mics);
    std::vector<float> phi(mics), rad(mics, 0.0625f);
    for (int i = 0; i < mics; ++i) {
        idx[i] = i ^ 1;
        phi[i] = 0.125f * static_cast<float>(i) - 1.0f;
    }
    std::vector<char> geom;
    auto append = [&geom](const void* p, size_t n) {
        geom.insert(geom.end(), static_cast<const char*>(p), static_cast<const char*>(p) + n);
    };
    append(idx.data(), mics * 4);
    append(phi.data(), mics * 4);
    append(rad.data(), mics * 4);
    const std::string geomPath = path("geom.bin");
    ASSERT_TRUE(kerneltest::writeFile(geomPath, geom.data(), geom.size()));
    std::vector<float> sens(257, 0.5f);
    const std::string sensPath = path("sens.bin");
    ASSERT_TRUE(kerneltest::writeFile(sensPath, sens.data(), sens.size() * 4));

    const std::string cfg = ini("[AcousticCameraParam]\n"
                                "image_correction_flag = 0\n"
                                "rotate_mode = 3\n"
                                "image_resolution_row = 32\n"
                                "image_resolution_col = 24\n"
                                "section_factor = 7\n"
                                "eangle_domain = 50\n"
                                "rx1 = 1.5\nrx2 = 2.5\nrx3 = 3.5\n"
                                "ry1 = -4.5\nry2 = -5.5\nry3 = -6.5\n"
                                "freq_average = true\n"
                                "focus_distance = 2.25\n"
                                "focus_distance_en = yes\n"
                                "image_thetaXY_factor = 1.75\n"
                                "distance_measure_row = 9\n"
                                "distance_measure_col = 13\n"
                                "distanceMeasure_en = false\n"
                                "[DOA]\n"
                                "DOAVersionSelect = 53\n"
                                "TargetQuantize = 0\n"
                                "extra_en = FALSE\n"
                                "wave_scale_dB = 12.5\n"
                                "[AudioRecordingParam]\n"
                                "sample_frequency = 48000\n"
                                "channel_num = 16\n"
                                "frame_size = 512\n"
                                "[QuantizeiParam]\n"
                                "readFromFile = false\n"
                                "autoSave = no\n"
                                "[MicParam]\n"
                                "MicFile = " + geomPath + "\n"
                                "MicSenCalibrationFile = " + sensPath + "\n");

    AKUDoaKernel k;
    ASSERT_TRUE(k.init(cfg.c_str()));

    const std::string sep(64, '-');
    std::vector<std::string> want = {
        "doakernel init: start ",
        sep + " ",
        "    Init Flag                    = 0 ",
        "    Doa Select                   = 53 ",
        "    SampleRate                   = 48000 ",
        "    FrameSize                    = 512 ",
        "    ChannalNum                   = 16 ",
        "    ImageResRows                 = 32 ",
        "    ImageResCols                 = 24 ",
        "    ImageFac                     = 7 ",
        "    ImageThetaXYFac              = 1.75 ",
        "    AngleDomain                  = 50 ",
        "    QuantizeiParamFromFileEnable = false ",
        "    QuantizeiParamEnable         = false ",
        "    FreqAverageEnable            = true ",
        "    Focus Distance               = 2.25 ",
        "    Focus Distance Enable        = true ",
        "    Mic MaxRadius                = 0.11 ",
        "    MeasureDisEnable             = false ",
        "    MeasureDisRows               = 9 ",
        "    MeasureDisCols               = 13 ",
        "    TargetQuantizeFlag           = false ",
        "    MicFile                      = " + geomPath + " ",
        "    MicSenCalibrationFile        = " + sensPath + " ",
        "    RotateMode                   = 3 ",
        "    ImageCorrectionFlag          = 0 ",
        "    ExtraEnable                  = false ",
        "    ExtendRows                   = 12 ",
        "    ExtendCols                   = 12 ",
        "    Wave Scale dB                = 12.5 ",
        sep + " ",
        "doakernel init: load config success ",
        "doakernel init: use special formation file " + geomPath + " ",
    };
    for (int i = 0; i < mics; ++i)
        want.push_back(std::to_string(idx[i] + 1) + " Radius = 0.0625 MicPhi = " + num(phi[i]) + " ");
    want.push_back("doakernel init: use special sensitvity calibration file " + sensPath + " ");
    want.push_back("doakernel init: read mic info success ");
    want.push_back("doakernel init: init dao handle success ");
    want.push_back("TIMING");
    want.push_back("doa library version: 5.1.0.0 ");
    want.push_back("doa program: 5 process 3, focusDis = 2.25 ");

    // The imaging engine reports its per-bin sensitivity scale while it is
    // built (one line per bin of a 1024-sample frame); checked apart.
    std::vector<std::string> got;
    int engineLines = 0;
    for (const std::string& line : bodies()) {
        // Cache traffic depends on what earlier runs left; the engine tests
        // cover it.
        if (line.compare(0, 18, "AKUDoaQuantizeV3::") == 0)
            continue;
        if (line.find(": Freq = ") == std::string::npos) {
            got.push_back(line);
            continue;
        }
        const std::string head = std::to_string(engineLines) + " : Freq =  " + std::to_string((engineLines * 48000) >> 9) + " Sen scale = ";
        EXPECT_EQ(line.compare(0, head.size(), head), 0) << line;
        ++engineLines;
    }
    EXPECT_EQ(engineLines, 512);
    for (size_t i = 0; i < std::min(got.size(), want.size()); ++i)
        if (got[i] != want[i] && want[i] != "TIMING") ADD_FAILURE() << "line " << i << ": " << got[i];
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        if (want[i] == "TIMING")
            EXPECT_TRUE(isTimingLine(got[i])) << got[i];
        else
            EXPECT_EQ(got[i], want[i]) << "line " << i;
    }
    for (const std::string& l : kerneltest::capturedLines()) {
        EXPECT_EQ(l.rfind("[AKUDOALIB] ", 0), 0u) << l;
        EXPECT_EQ(l.substr(l.size() - 2), "\r\n") << l;
    }

    const StCamCfg& c = priv(k)->cfg;
    EXPECT_EQ(c.rx1, 1.5f);
    EXPECT_EQ(c.rx2, 2.5f);
    EXPECT_EQ(c.rx3, 3.5f);
    EXPECT_EQ(c.ry1, -4.5f);
    EXPECT_EQ(c.ry2, -5.5f);
    EXPECT_EQ(c.ry3, -6.5f);
    EXPECT_EQ(c.initFlag, 1);
    for (int b = 0; b < 257; ++b)
        ASSERT_EQ(c.micSensitivity[b], 0.5f) << b;
    EXPECT_EQ(k.channelsCount(), 16);
    EXPECT_EQ(k.neededChannelsCount(), 128);
    EXPECT_EQ(k.audioRecoverLength(), 512);
    EXPECT_EQ(k.imgRows(), 32);
    EXPECT_EQ(k.imgCols(), 24);
    EXPECT_EQ(k.imgFac(), 7);
    EXPECT_EQ(k.samlpeRate(), 48000);
}

// A file holding only the channel count: the INI defaults of every other key.
TEST_F(KernelTest, DefaultsWithOnlyChannelCount)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini("[AudioRecordingParam]\nchannel_num = 16\n").c_str()));
    AKUDoaKernelPrivate* p = priv(k);
    const StCamCfg& c = p->cfg;
    EXPECT_EQ(c.doaVersionSelect, 3);
    EXPECT_EQ(c.sampleFrequency, 96000);
    EXPECT_EQ(c.frameSize, 1024);
    EXPECT_EQ(c.imageResolutionRow, 64);
    EXPECT_EQ(c.imageResolutionCol, 48);
    EXPECT_EQ(c.sectionFactor, 10);
    EXPECT_EQ(c.eangleDomain, 43);
    EXPECT_EQ(c.imageCorrectionFlag, 1);
    EXPECT_EQ(c.rotateMode, 1);
    EXPECT_FLOAT_EQ(c.imageThetaXYFactor, 1.3f);
    EXPECT_EQ(c.focusDistance, 1.0f);
    EXPECT_FALSE(c.focusDistanceEn);
    EXPECT_EQ(c.distanceMeasureRow, 11.0f);
    EXPECT_EQ(c.distanceMeasureCol, 11.0f);
    for (float v : {c.rx1, c.rx2, c.rx3, c.ry1, c.ry2, c.ry3})
        EXPECT_EQ(v, -1.0f);
    EXPECT_TRUE(c.readFromFile);
    EXPECT_TRUE(c.autoSave);
    EXPECT_FALSE(c.freqAverage);
    EXPECT_TRUE(c.targetQuantize);
    EXPECT_TRUE(c.distanceMeasureEn);
    EXPECT_TRUE(c.extraEn);
    EXPECT_EQ(c.waveScaleDb, 0.0f);
    EXPECT_EQ(c.micFile, nullptr);
    EXPECT_EQ(c.micSenCalibrationFile, nullptr);
    EXPECT_FLOAT_EQ(c.micMaxRadius, 0.11f);
    EXPECT_EQ(c.extendRows, 12);
    EXPECT_EQ(c.extendCols, 12);
    EXPECT_EQ(c.initFlag, 1);
    EXPECT_EQ(p->inited, 1);
    EXPECT_EQ(p->channels, 16);
    EXPECT_EQ(p->sampleRate, 96000);
    EXPECT_EQ(p->frameSize, 1024);

    // Planar buffers sized from the configuration.
    for (mat2d_fp32* m : {p->doaFrame, p->extraFrame}) {
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->rows, 16);
        EXPECT_EQ(m->cols, 1024);
    }
    ASSERT_EQ(p->framePool.size(), 3u);
    for (mat2d_fp32* m : p->framePool) {
        EXPECT_EQ(m->rows, 16);
        EXPECT_EQ(m->cols, 1024);
    }
    ASSERT_NE(p->heatMap, nullptr);
    EXPECT_EQ(p->heatMap->rows, 64);
    EXPECT_EQ(p->heatMap->cols, 48);
    ASSERT_NE(p->cordinate, nullptr);
    EXPECT_EQ(p->cordinate->n, 64 * 48 * 2);

    // Default band at 96 kHz: 20-40 kHz, every bin.
    AKUDoaFreqBands* fb = k.freqBandsManager();
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(fb->minDownFreq(), 20000);
    EXPECT_EQ(fb->maxUpFreq(), 40000);
    const std::vector<doaFreqInfo> bins = fb->data();
    ASSERT_FALSE(bins.empty());
    EXPECT_EQ(bins.front().bin, 20000 * 1024 / 96000);
    EXPECT_EQ(bins.back().bin, 40000 * 1024 / 96000);
    EXPECT_EQ(bins.size(), static_cast<size_t>(bins.back().bin - bins.front().bin + 1));

    EXPECT_TRUE(logged("doa program: 3 "));
    EXPECT_STREQ(AKUDoaKernel::DoaVersion(), "5.1.0.0");
}

// Before init, and for a null frame, every readout refuses without touching
// its outputs; features that are switched off refuse too.
TEST_F(KernelTest, ReadoutsRefuseWhenNotReady)
{
    AKUDoaKernel k;
    mat2d_fp32* frame = create_mat2d_fp32(128, 256);
    mat2d_fp32* map = create_mat2d_fp32(8, 8);
    vec_fp32* spectrum = create_vec_fp32(129);
    vec_fp32* audio = create_vec_fp32(256);
    float dist = -1.0f, power = -1.0f;
    int lo = -5, hi = -5;
    const fpoint2d target{0.0f, 1, 1};

    // Before init.
    EXPECT_FALSE(k.readHeatMap(frame, map, spectrum, 0));
    EXPECT_FALSE(k.readPickedUpAudio(frame, audio, target));
    EXPECT_EQ(k.getPaWithTarget(target).val, 0.0f);
    EXPECT_EQ(k.freqBandsManager(), nullptr);

    ASSERT_TRUE(k.init(ini("[AudioRecordingParam]\nchannel_num = 16\nframe_size = 256\n"
                           "[AcousticCameraParam]\nimage_resolution_row = 8\nimage_resolution_col = 8\n"
                           "distanceMeasure_en = false\n[DOA]\nextra_en = false\n")
                           .c_str()));
    EXPECT_FALSE(k.readHeatMap(nullptr, map, spectrum, 0));
    EXPECT_FALSE(k.readHeatMap(nullptr, map, target, dist, spectrum, 0));
    EXPECT_FALSE(k.readHeatMap(nullptr, map, target, lo, hi, power, spectrum, 0));
    EXPECT_FALSE(k.readPickedUpAudio(nullptr, audio, target));
    EXPECT_EQ(dist, -1.0f);
    EXPECT_EQ(lo, -5);
    // A caller map of the wrong size is refused instead of overrun.
    mat2d_fp32* small = create_mat2d_fp32(4, 8);
    EXPECT_FALSE(k.readHeatMap(frame, small, spectrum, 0));
    destroy_mat2d_fp32(small);
    // Distance measurement off: the heat map is produced, the call says no.
    EXPECT_FALSE(k.readHeatMap(frame, map, target, dist, spectrum, 0));
    EXPECT_EQ(dist, -1.0f);
    EXPECT_FALSE(k.readHeatMapExtra(frame, map));
    EXPECT_FALSE(k.readLineHeatMap(frame, map, map));

    destroy_mat2d_fp32(frame);
    destroy_mat2d_fp32(map);
    destroy_vec_fp32(spectrum);
    destroy_vec_fp32(audio);
}

// Linear-array mode builds none of the planar objects. The line readout
// needs the array-ordered frame and the bands, so those two exist.
TEST_F(KernelTest, LinearModeBuildsNoPlanarObjects)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini("[AudioRecordingParam]\nchannel_num = 16\nframe_size = 256\n"
                           "[AcousticCameraParam]\nimage_resolution_row = 1\nimage_resolution_col = 90\n")
                           .c_str()));
    AKUDoaKernelPrivate* p = priv(k);
    EXPECT_TRUE(logged("doakernel init: init doa line mode "));
    EXPECT_EQ(p->doaEngine, nullptr);
    EXPECT_EQ(p->pickup, nullptr);
    EXPECT_EQ(p->distance, nullptr);
    EXPECT_EQ(p->extra, nullptr);
    EXPECT_TRUE(p->framePool.empty());
    EXPECT_EQ(p->heatMap, nullptr);
    EXPECT_EQ(p->cordinate, nullptr);
    EXPECT_EQ(p->extraFrame, nullptr);
    ASSERT_NE(p->doaFrame, nullptr);
    EXPECT_EQ(p->doaFrame->rows, 16);
    EXPECT_EQ(p->doaFrame->cols, 256);
    ASSERT_NE(k.freqBandsManager(), nullptr);
    EXPECT_EQ(k.freqBandsManager()->minDownFreq(), 20000);
    EXPECT_EQ(p->cfg.initFlag, 1);
    // Init still completes with the closing lines.
    EXPECT_TRUE(logged("doa library version: 5.1.0.0 "));
}

// Default band chosen by sample rate; unknown rates fall back to 20-40 kHz
// (clipped to Nyquist by the band manager).
TEST_F(KernelTest, DefaultBandBySampleRate)
{
    struct Case {
        int fs, lo, hi;
    };
    for (const Case& cs : {Case{96000, 20000, 40000}, Case{48000, 10000, 20000}, Case{32000, 6000, 10000},
                           Case{24000, 6000, 10000}, Case{16000, 4000, 6000}, Case{44100, 20000, 22050},
                           Case{8000, 999999, 0}}) {
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini("[AudioRecordingParam]\nchannel_num = 8\nframe_size = 256\nsample_frequency = " +
                               std::to_string(cs.fs) +
                               "\n[AcousticCameraParam]\nimage_resolution_row = 4\nimage_resolution_col = 4\n")
                               .c_str()));
        AKUDoaFreqBands* fb = k.freqBandsManager();
        ASSERT_NE(fb, nullptr);
        EXPECT_EQ(fb->minDownFreq(), cs.lo) << cs.fs;
        EXPECT_EQ(fb->maxUpFreq(), cs.hi) << cs.fs;
        if (cs.hi > 0) {
            const std::vector<doaFreqInfo> bins = fb->data();
            ASSERT_FALSE(bins.empty());
            EXPECT_EQ(bins.front().bin, 256 * cs.lo / cs.fs) << cs.fs;
            EXPECT_EQ(bins.back().bin, 256 * cs.hi / cs.fs) << cs.fs;
        } else {
            EXPECT_TRUE(fb->data().empty()) << cs.fs;
        }
    }
}

// The closing program line for each stored program, with and without focus.
TEST_F(KernelTest, ProgramLine)
{
    struct Case {
        int program;
        bool focus;
        const char* line;
    };
    for (const Case& cs : {Case{3, false, "doa program: 3 "}, Case{4, false, "doa program: 4 "},
                           Case{53, false, "doa program: 5 process 3 "},
                           Case{54, false, "doa program: 5 process 4 "},
                           Case{4, true, "doa program: 4, focusDis = 0.75 "},
                           Case{54, true, "doa program: 5 process 4, focusDis = 0.75 "}, Case{7, true, nullptr}}) {
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini("[DOA]\nDOAVersionSelect = " + std::to_string(cs.program) +
                               "\n[AudioRecordingParam]\nchannel_num = 8\nframe_size = 128\n"
                               "[AcousticCameraParam]\nimage_resolution_row = 4\nimage_resolution_col = 4\n"
                               "focus_distance = 0.75\nfocus_distance_en = " +
                               (cs.focus ? "1" : "0") + "\n")
                               .c_str()));
        const std::vector<std::string> b = bodies();
        ASSERT_GE(b.size(), 2u);
        if (cs.line) {
            EXPECT_EQ(b.back(), cs.line);
        } else {
            // Unknown program: the version line is the last one.
            EXPECT_EQ(b.back(), "doa library version: 5.1.0.0 ");
        }
    }
}

// Bad configuration files: missing, unreadable or unparsable ones fail the
// load and leave the kernel uninitialised; an empty one is all defaults.
TEST_F(KernelTest, BadConfigurationFiles)
{
    {
        AKUDoaKernel k;
        EXPECT_FALSE(k.init(path("missing.ini").c_str()));
        EXPECT_EQ(bodies(), (std::vector<std::string>{"doakernel init: start ",
                                                      "doakernel init: load config failed "}));
        EXPECT_EQ(priv(k)->cfg.initFlag, 0);
        EXPECT_EQ(priv(k)->inited, 0);
        EXPECT_EQ(k.freqBandsManager(), nullptr);
        EXPECT_EQ(priv(k)->doaFrame, nullptr);
        mat2d_fp32* frame = create_mat2d_fp32(128, 16);
        EXPECT_FALSE(k.readHeatMap(frame, nullptr, nullptr, 0));
        destroy_mat2d_fp32(frame);
    }
    {
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        EXPECT_FALSE(k.init(nullptr));
        EXPECT_TRUE(logged("doakernel init: load config failed "));
    }
    {
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        EXPECT_FALSE(k.init(ini("this is not\n[an ini\n%%% file\n", "garbage.ini").c_str()));
        EXPECT_TRUE(logged("doakernel init: load config failed "));
        EXPECT_EQ(priv(k)->cfg.initFlag, 0);
    }
    {
        kerneltest::capturedLines().clear();
        std::vector<unsigned char> noise(4096);
        uint32_t s = 12345;
        for (unsigned char& ch : noise) {
            s = s * 1664525u + 1013904223u;
            ch = static_cast<unsigned char>(s >> 24);
        }
        ASSERT_TRUE(kerneltest::writeFile(path("noise.ini"), noise.data(), noise.size()));
        AKUDoaKernel k;
        EXPECT_FALSE(k.init(path("noise.ini").c_str()));
        EXPECT_EQ(priv(k)->cfg.initFlag, 0);
    }
    {
        // Empty file: every INI default, 128 microphones.
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini("", "empty.ini").c_str()));
        EXPECT_EQ(k.channelsCount(), 128);
        EXPECT_EQ(k.samlpeRate(), 96000);
        EXPECT_TRUE(priv(k)->cfg.extraEn);
        EXPECT_EQ(priv(k)->cfg.rx1, -1.0f);
        // Null paths end their summary line right after the label.
        const std::vector<std::string>& raw = kerneltest::capturedLines();
        int micFileLines = 0;
        for (const std::string& l : raw) {
            if (l.find("MicFile                      =") != std::string::npos) {
                ++micFileLines;
                EXPECT_EQ(l.rfind("[AKUDOALIB]     MicFile                      = ", 0), 0u);
                EXPECT_EQ(l.find('/'), std::string::npos) << l;
            }
        }
        EXPECT_EQ(micFileLines, 1);
    }
    {
        // Unknown sections, keys and values of the wrong type are no errors:
        // the key reads fall back to their defaults.
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini("; comment\n[Nothing]\nfoo = bar\n[AudioRecordingParam]\nchannel_num = 8\n"
                               "frame_size = 128\n[AcousticCameraParam]\nimage_resolution_row = 4\n"
                               "image_resolution_col = 4\nfocus_distance_en = maybe\n",
                               "odd.ini")
                               .c_str()));
        EXPECT_FALSE(priv(k)->cfg.focusDistanceEn);
        EXPECT_EQ(k.channelsCount(), 8);
    }
}

// A second init rebuilds from the new file and releases what the first one
// built (the address sanitizer reports any leak).
TEST_F(KernelTest, SecondInitRebuilds)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini("[AudioRecordingParam]\nchannel_num = 8\nframe_size = 128\n"
                           "[MicParam]\nMicFile = " + path("nowhere.bin") + "\n",
                           "a.ini")
                           .c_str()));
    ASSERT_TRUE(k.init(ini("[AudioRecordingParam]\nchannel_num = 16\nframe_size = 256\n"
                           "[AcousticCameraParam]\nimage_resolution_row = 8\nimage_resolution_col = 6\n"
                           "[MicParam]\nMicFile = " + path("elsewhere.bin") + "\n",
                           "b.ini")
                           .c_str()));
    AKUDoaKernelPrivate* p = priv(k);
    EXPECT_EQ(p->doaFrame->rows, 16);
    EXPECT_EQ(p->doaFrame->cols, 256);
    EXPECT_EQ(p->heatMap->rows, 8);
    EXPECT_EQ(p->framePool.size(), 3u);
    EXPECT_STREQ(p->cfg.micFile, path("elsewhere.bin").c_str());

    // A failed reload marks the kernel uninitialised.
    EXPECT_FALSE(k.init(path("gone.ini").c_str()));
    EXPECT_EQ(p->cfg.initFlag, 0);
}
