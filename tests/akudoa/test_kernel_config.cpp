// Kernel configuration: the settings table (summary block, documentation,
// accepted ranges), refused configurations, and what init builds.
#include <fstream>
#include <iomanip>
#include <sstream>

#include <iniparser.h>

#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/akudoasettings_p.h"
#include "kernel_fixture.h"

using kerneltest::KernelTest;

namespace {

// Name (printed after four spaces, padded to 29 columns, then "= value"),
// value with every key missing, value with every key changed (the INI
// below). Written once from the library's output before the table.
const char* const kSummary[][3] = {
    {"Init Flag", "0", "0"}, {"Doa Select", "3", "53"}, {"SampleRate", "96000", "48000"}, {"FrameSize", "1024", "512"}, {"ChannalNum", "128", "16"},
    {"ImageResRows", "64", "32"}, {"ImageResCols", "48", "24"}, {"ImageFac", "10", "7"}, {"ImageThetaXYFac", "1.3", "1.75"},
    {"AngleDomain", "43", "50"}, {"QuantizeiParamFromFileEnable", "true", "false"}, {"QuantizeiParamEnable", "true", "false"},
    {"FreqAverageEnable", "false", "true"}, {"Focus Distance", "1", "2.25"}, {"Focus Distance Enable", "false", "true"},
    {"Mic MaxRadius", "0.11", "0.11"}, {"MeasureDisEnable", "true", "false"}, {"MeasureDisRows", "11", "9"}, {"MeasureDisCols", "11", "13"},
    {"TargetQuantizeFlag", "true", "false"}, {"MicFile", "", "/nonexistent/geom.bin"}, {"MicSenCalibrationFile", "", "/nonexistent/sens.bin"},
    {"RotateMode", "1", "3"}, {"ImageCorrectionFlag", "1", "0"}, {"ExtraEnable", "true", "false"}, {"ExtendRows", "12", "12"},
    {"ExtendCols", "12", "12"}, {"Wave Scale dB", "0", "12.5"},
};

const char* kEveryKey = "[AcousticCameraParam]\nimage_correction_flag = 0\nrotate_mode = 3\n"
                        "image_resolution_row = 32\nimage_resolution_col = 24\nsection_factor = 7\n"
                        "eangle_domain = 50\nrx1 = 1.5\nrx2 = 2.5\nrx3 = 3.5\nry1 = -4.5\nry2 = -5.5\nry3 = -6.5\n"
                        "freq_average = true\nfocus_distance = 2.25\nfocus_distance_en = yes\n"
                        "image_thetaXY_factor = 1.75\ndistance_measure_row = 9\ndistance_measure_col = 13\n"
                        "distanceMeasure_en = false\n[DOA]\nDOAVersionSelect = 53\nTargetQuantize = 0\n"
                        "extra_en = FALSE\nwave_scale_dB = 12.5\n[AudioRecordingParam]\nsample_frequency = 48000\n"
                        "channel_num = 16\nframe_size = 512\n[QuantizeiParam]\nreadFromFile = false\nautoSave = no\n"
                        "[MicParam]\nMicFile = /nonexistent/geom.bin\nMicSenCalibrationFile = /nonexistent/sens.bin\n";

// Small configuration the range cases start from (keys added after it win
// over nothing: iniparser keeps the last value of a repeated key).
const std::string kSmall = "[AudioRecordingParam]\nchannel_num = 8\nframe_size = 64\n[AcousticCameraParam]\n"
                           "image_resolution_row = 4\nimage_resolution_col = 4\n[DOA]\nextra_en = 0\n";

std::string keyLine(const std::string& key, const std::string& value) // "Section:key" -> INI lines
{
    return "[" + key.substr(0, key.find(':')) + "]\n" + key.substr(key.find(':') + 1) + " = " + value + "\n";
}

std::string num(double v)
{
    std::ostringstream s;
    s << std::setprecision(9) << v;
    return s.str();
}

} // namespace

// Catches a key read into the wrong field or section, a preset or default
// slip, a label typo, and lines out of order.
TEST_F(KernelTest, SummaryBlockOfDefaultsAndOfEveryKeyChanged)
{
    for (int changed = 0; changed < 2; ++changed) {
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        if (changed) {
            ASSERT_TRUE(k.init(ini(kEveryKey).c_str()));
            EXPECT_EQ(priv(k)->cfg.ry3, -6.5f);
            EXPECT_EQ(bodies().back(), "doa program: 5 process 3, focusDis = 2.25 ");
        } else {
            // The 128-microphone default image is too large to build here:
            // the steps init takes, on a dictionary with no keys.
            StCamCfg c{};
            akudoa_settings_preset(c);
            akudoa_settings_read(c, nullptr);
            akudoa_settings_summary(c);
            EXPECT_EQ(c.rx1, -1.0f);
        }
        std::vector<std::string> want = {std::string(64, '-') + " "};
        for (const auto& row : kSummary) {
            std::string name = row[0];
            want.push_back("    " + name.append(29 - name.size(), ' ') + "= " + row[1 + changed] + (*row[1 + changed] ? " " : ""));
        }
        want.push_back(want.front());
        want.push_back("doakernel init: load config success ");
        std::vector<std::string> got = bodies();
        const auto first = std::find(got.begin(), got.end(), want.front());
        ASSERT_NE(first, got.end());
        got.erase(got.begin(), first);
        got.resize(std::min(got.size(), want.size()));
        EXPECT_EQ(got, want) << "changed " << changed;
    }
}

// docs/configuration.md is generated from the table; AKUDOA_WRITE_DOCS=1
// rewrites it.
TEST(Settings, DocumentationMatchesTheTable)
{
    const std::string path = std::string(AKUDOA_SOURCE_DIR) + "/docs/configuration.md";
    if (std::getenv("AKUDOA_WRITE_DOCS"))
        std::ofstream(path) << akudoa_settings_markdown();
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), akudoa_settings_markdown()) << "run AKUDOA_WRITE_DOCS=1 ctest -R Settings";
}

// Every checked row accepts both ends of its range and refuses just outside
// them and NaN: init returns false before building anything, with one line
// naming the key, and leaves the kernel uninitialised but untouched.
TEST_F(KernelTest, ConfigurationOutsideTheRangesIsRefused)
{
    size_t count = 0;
    const AKUSetting* rows = akudoa_settings(&count);
    struct Case { std::string tail; bool accepted; std::string key; }; // tail appended to kSmall, key refused
    std::vector<Case> cases;
    for (size_t i = 0; i < count; ++i) {
        const AKUSetting& s = rows[i];
        if (s.lo > s.hi)
            continue;
        const bool integral = s.type == AKUSettingType::Int || s.type == AKUSettingType::IntAsFloat;
        const double below = s.lo - (integral ? 1.0 : std::max(1.0, std::fabs(s.lo)) * 0.01);
        const double above = s.hi + (integral ? 1.0 : std::max(1.0, std::fabs(s.hi)) * 0.01);
        const std::string focus = s.offset == offsetof(StCamCfg, focusDistance) ? "focus_distance_en = 1\n" : "";
        for (const auto& [value, ok] : {std::pair<std::string, bool>{num(s.lo), true}, {num(s.hi), true},
                                        {num(below), false}, {num(above), false}, {integral ? "x" : "nan", false}})
            if (value != "x")
                cases.push_back({keyLine(s.key, value) + focus, ok, s.key});
    }
    for (const char* tail : {"row = abc\n", "row = 3000\nimage_resolution_col = 3000\n[AudioRecordingParam]\nchannel_num = 128\nframe_size = 1024\n"})
        cases.push_back({std::string("[AcousticCameraParam]\nimage_resolution_") + tail, false, "image_resolution_row"});
    cases.push_back({"[AudioRecordingParam]\nframe_size = 100\n", false, "frame_size"});

    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(kSmall, "small.ini").c_str()));
    for (const Case& cs : cases) {
        const std::string file = ini(kSmall + cs.tail, "case.ini");
        dictionary* dict = iniparser_load(file.c_str());
        ASSERT_NE(dict, nullptr);
        StCamCfg c{};
        akudoa_settings_preset(c);
        akudoa_settings_read(c, dict);
        EXPECT_EQ(akudoa_settings_validate(c, dict), cs.accepted) << cs.tail;
        iniparser_freedict(dict);
        if (cs.accepted)
            continue;
        kerneltest::capturedLines().clear();
        EXPECT_FALSE(k.init(file.c_str())) << cs.tail;
        const std::vector<std::string> b = bodies();
        ASSERT_EQ(b.size(), 2u) << cs.tail;
        EXPECT_EQ(b[1].rfind("doakernel init: refused ", 0), 0u) << b[1];
        EXPECT_NE(b[1].find(cs.key), std::string::npos) << b[1];
        EXPECT_EQ(k.imgRows(), 4) << cs.tail;
        EXPECT_EQ(priv(k)->cfg.initFlag, 0);
    }
}

// Default band chosen by sample rate; unknown rates fall back to 20-40 kHz
// (clipped to Nyquist by the band manager).
TEST_F(KernelTest, DefaultBandBySampleRate)
{
    const int cases[][3] = {{96000, 20000, 40000}, {48000, 10000, 20000}, {32000, 6000, 10000},
                            {24000, 6000, 10000},  {16000, 4000, 6000},   {44100, 20000, 22050}};
    for (const auto& cs : cases) {
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(kSmall + keyLine("AudioRecordingParam:sample_frequency", num(cs[0]))).c_str()));
        ASSERT_NE(k.freqBandsManager(), nullptr);
        const std::vector<doaFreqInfo> bins = k.freqBandsManager()->data();
        ASSERT_FALSE(bins.empty());
        EXPECT_EQ(bins.front().bin * 1000 + bins.back().bin, 64 * cs[1] / cs[0] * 1000 + 64 * cs[2] / cs[0]) << cs[0];
    }
}
