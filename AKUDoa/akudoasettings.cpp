#include "AKUDoa/akudoasettings_p.h"

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>

#include <iniparser.h>

#include "AKUDoa/base/akudoalogging.h"

namespace {

constexpr const char* kSeparator = "----------------------------------------------------------------";

using T = AKUSettingType;
constexpr double kNo = 1.0, kCheck = -1.0; // lo > hi: unchecked
#define F(field) offsetof(StCamCfg, field)

// Ranges: what the engines image correctly. Sizes are capped further by
// the machine's memory (see fitsMemory).
const AKUSetting kRows[] = {
    {nullptr, "    Init Flag                    =", T::Int, F(initFlag), 0, 0, kNo, kCheck,
     "0 until init has finished, then 1 (no key)"},
    {"DOA:DOAVersionSelect", "    Doa Select                   =", T::Int, F(doaVersionSelect), 3, 3, kNo, kCheck,
     "imaging program: 3, 4, 53 or 54; any other value images like 3"},
    {"AudioRecordingParam:sample_frequency", "    SampleRate                   =", T::Int, F(sampleFrequency), 96000,
     96000, 1000, 768000, "sample rate in Hz"},
    {"AudioRecordingParam:frame_size", "    FrameSize                    =", T::Int, F(frameSize), 1024, 1024, 16,
     1024, "samples per channel and frame, also the FFT length; a multiple of 8"},
    {"AudioRecordingParam:channel_num", "    ChannalNum                   =", T::Int, F(channelNum), 128, 128, kNo,
     kCheck, "microphones: 8, 16, 36, 48, 64 or 128; any other count ends the process"},
    {"AcousticCameraParam:image_resolution_row", "    ImageResRows                 =", T::Int,
     F(imageResolutionRow), 64, 64, 1, 4096, "heat-map rows; 1 selects the linear-array mode"},
    {"AcousticCameraParam:image_resolution_col", "    ImageResCols                 =", T::Int,
     F(imageResolutionCol), 48, 48, 2, 4096, "heat-map columns"},
    {"AcousticCameraParam:section_factor", "    ImageFac                     =", T::Int, F(sectionFactor), 10, 10,
     1, 1000, "image subdivision factor, divides the correction offsets"},
    {"AcousticCameraParam:image_thetaXY_factor", "    ImageThetaXYFac              =", T::Double,
     F(imageThetaXYFactor), 1.0, 1.3, 0.05, 20, "angle scale of the image grid"},
    {"AcousticCameraParam:eangle_domain", "    AngleDomain                  =", T::Int, F(eangleDomain), 43, 43, 1,
     89, "angle domain of the image in degrees"},
    {"QuantizeiParam:readFromFile", "    QuantizeiParamFromFileEnable =", T::Bool, F(readFromFile), 1, 1, kNo,
     kCheck, "load steering tables from the cache"},
    {"QuantizeiParam:autoSave", "    QuantizeiParamEnable         =", T::Bool, F(autoSave), 1, 1, kNo, kCheck,
     "save freshly built steering tables to the cache"},
    {"AcousticCameraParam:freq_average", "    FreqAverageEnable            =", T::Bool, F(freqAverage), 0, 0, kNo,
     kCheck, "combine neighbouring FFT bins"},
    {"AcousticCameraParam:focus_distance", "    Focus Distance               =", T::Double, F(focusDistance), 0.5,
     1.0, AKUDOA_FOCUS_MIN, AKUDOA_FOCUS_MAX, "focus distance in metres; checked when focus_distance_en is on, finite otherwise"},
    {"AcousticCameraParam:focus_distance_en", "    Focus Distance Enable        =", T::Bool, F(focusDistanceEn), 0,
     0, kNo, kCheck, "focus at focus_distance instead of infinity"},
    {nullptr, "    Mic MaxRadius                =", T::Double, F(micMaxRadius), 0.11, 0.11, kNo, kCheck,
     "array radius in metres (no key)"},
    {"AcousticCameraParam:distanceMeasure_en", "    MeasureDisEnable             =", T::Bool,
     F(distanceMeasureEn), 0, 1, kNo, kCheck, "create the distance measurer"},
    {"AcousticCameraParam:distance_measure_row", "    MeasureDisRows               =", T::IntAsFloat,
     F(distanceMeasureRow), 20, 11, 1, 1000, "rows of the distance-measurement grid"},
    {"AcousticCameraParam:distance_measure_col", "    MeasureDisCols               =", T::IntAsFloat,
     F(distanceMeasureCol), 20, 11, 1, 1000, "columns of the distance-measurement grid"},
    {"DOA:TargetQuantize", "    TargetQuantizeFlag           =", T::Bool, F(targetQuantize), 1, 1, kNo, kCheck,
     "target quantization switch of the engines"},
    {"MicParam:MicFile", "    MicFile                      =", T::Text, F(micFile), 0, 0, kNo, kCheck,
     "geometry file (regular file), or none for the built-in layout"},
    {"MicParam:MicSenCalibrationFile", "    MicSenCalibrationFile        =", T::Text, F(micSenCalibrationFile), 0, 0,
     kNo, kCheck, "per-bin sensitivity file (regular file), or none for gains of 1"},
    {"AcousticCameraParam:rotate_mode", "    RotateMode                   =", T::Int, F(rotateMode), 1, 1, 0, 3,
     "image rotation mode of the pickup"},
    {"AcousticCameraParam:image_correction_flag", "    ImageCorrectionFlag          =", T::Int,
     F(imageCorrectionFlag), 1, 1, 0, 1, "1: resample the heat map through the coordinate correction"},
    {"DOA:extra_en", "    ExtraEnable                  =", T::Bool, F(extraEn), 0, 1, kNo, kCheck,
     "create the extended-view engine"},
    {nullptr, "    ExtendRows                   =", T::Int, F(extendRows), 12, 12, kNo, kCheck,
     "extended-view rows (no key)"},
    {nullptr, "    ExtendCols                   =", T::Int, F(extendCols), 12, 12, kNo, kCheck,
     "extended-view columns (no key)"},
    {"DOA:wave_scale_dB", "    Wave Scale dB                =", T::Double, F(waveScaleDb), 0, 0, -1000, 1000,
     "heat-map scale in dB"},
    {"DOA:compact_steering", nullptr, T::Bool, F(compactSteering), 0, 0, kNo, kCheck,
     "far field: one steering row block per mirror pixel pair (half the table)"},
    {"AcousticCameraParam:rx1", nullptr, T::Double, F(rx1), 0, -1, -AKUDOA_CORRECTION_MAX, AKUDOA_CORRECTION_MAX,
     "coordinate correction: row offset (scaled by section_factor)"},
    {"AcousticCameraParam:rx2", nullptr, T::Double, F(rx2), 0, -1, -AKUDOA_CORRECTION_MAX, AKUDOA_CORRECTION_MAX,
     "coordinate correction: row per column"},
    {"AcousticCameraParam:rx3", nullptr, T::Double, F(rx3), 0, -1, -AKUDOA_CORRECTION_MAX, AKUDOA_CORRECTION_MAX,
     "coordinate correction: row per row"},
    {"AcousticCameraParam:ry1", nullptr, T::Double, F(ry1), 0, -1, -AKUDOA_CORRECTION_MAX, AKUDOA_CORRECTION_MAX,
     "coordinate correction: column offset (scaled by section_factor)"},
    {"AcousticCameraParam:ry2", nullptr, T::Double, F(ry2), 0, -1, -AKUDOA_CORRECTION_MAX, AKUDOA_CORRECTION_MAX,
     "coordinate correction: column per column"},
    {"AcousticCameraParam:ry3", nullptr, T::Double, F(ry3), 0, -1, -AKUDOA_CORRECTION_MAX, AKUDOA_CORRECTION_MAX,
     "coordinate correction: column per row"},
};
#undef F

template <typename V>
V& field(StCamCfg& c, const AKUSetting& s)
{
    return *reinterpret_cast<V*>(reinterpret_cast<char*>(&c) + s.offset);
}

template <typename V>
const V& field(const StCamCfg& c, const AKUSetting& s)
{
    return *reinterpret_cast<const V*>(reinterpret_cast<const char*>(&c) + s.offset);
}

double numeric(const StCamCfg& c, const AKUSetting& s)
{
    switch (s.type) {
    case T::Int:
        return field<int32_t>(c, s);
    case T::IntAsFloat:
    case T::Double:
        return field<float>(c, s);
    case T::Bool:
        return field<bool>(c, s) ? 1.0 : 0.0;
    case T::Text:
        break;
    }
    return 0.0;
}

std::string number(double v)
{
    std::ostringstream out;
    out << v;
    return out.str();
}

// Steering tables and per-bin images of the planar engine, in bytes:
// bins x cells x (int8 steering pair per microphone + 20 bytes of sums).
bool fitsMemory(const StCamCfg& c)
{
    if (c.imageResolutionRow == 1)
        return true;
    const int mics = (c.channelNum > 0 && c.channelNum <= AKUDOA_MAX_MIC_NUM) ? c.channelNum : AKUDOA_MAX_MIC_NUM;
    const double cells = static_cast<double>(c.imageResolutionRow) * c.imageResolutionCol;
    const double bytes = (c.frameSize / 2 + 1) * cells * (2.0 * mics + 20.0);
    const double memory = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
    if (memory <= 0 || bytes <= memory)
        return true;
    AKUDOA_LOG() << "doakernel init: refused image_resolution_row x image_resolution_col ="
                 << c.imageResolutionRow << "x" << c.imageResolutionCol << ": tables of"
                 << static_cast<long>(bytes / 1048576.0) << "MB exceed the machine's"
                 << static_cast<long>(memory / 1048576.0) << "MB";
    return false;
}

} // namespace

const AKUSetting* akudoa_settings(size_t* count)
{
    *count = sizeof(kRows) / sizeof(kRows[0]);
    return kRows;
}

void akudoa_settings_preset(StCamCfg& c)
{
    for (const AKUSetting& s : kRows) {
        switch (s.type) {
        case T::Int:
            field<int32_t>(c, s) = static_cast<int32_t>(s.preset);
            break;
        case T::IntAsFloat:
        case T::Double:
            field<float>(c, s) = static_cast<float>(s.preset);
            break;
        case T::Bool:
            field<bool>(c, s) = s.preset != 0.0;
            break;
        case T::Text:
            field<const char*>(c, s) = nullptr;
            break;
        }
    }
    c.pickupFullBand = false;
    for (int i = 0; i < 6; ++i) {
        c.micIndex[i] = 0;
        c.micPhi[i] = 0.0f;
        c.micRadius[i] = 0.0f;
    }
}

void akudoa_settings_read(StCamCfg& c, _dictionary_* ini)
{
    for (const AKUSetting& s : kRows) {
        if (!s.key)
            continue;
        switch (s.type) {
        case T::Int:
            field<int32_t>(c, s) = iniparser_getint(ini, s.key, static_cast<int>(s.iniDefault));
            break;
        case T::IntAsFloat:
            field<float>(c, s) = static_cast<float>(iniparser_getint(ini, s.key, static_cast<int>(s.iniDefault)));
            break;
        case T::Double:
            field<float>(c, s) = static_cast<float>(iniparser_getdouble(ini, s.key, s.iniDefault));
            break;
        case T::Bool:
            field<bool>(c, s) = iniparser_getboolean(ini, s.key, static_cast<int>(s.iniDefault)) != 0;
            break;
        case T::Text:
            field<const char*>(c, s) = iniparser_getstring(ini, s.key, nullptr);
            break;
        }
    }
}

bool akudoa_settings_validate(const StCamCfg& c, _dictionary_* ini)
{
    for (const AKUSetting& s : kRows) {
        if (s.lo > s.hi)
            continue;
        const double v = numeric(c, s);
        // Two rows carry a condition: the frame is cut in groups of eight
        // samples, and an unused focus distance only has to be finite.
        const bool whole = s.offset != offsetof(StCamCfg, frameSize) || c.frameSize % 8 == 0;
        const bool unused = s.offset == offsetof(StCamCfg, focusDistance) && !c.focusDistanceEn;
        // Float fields compare with the bounds as stored in a float.
        const bool isFloat = s.type == T::Double || s.type == T::IntAsFloat;
        const double lo = isFloat ? static_cast<float>(s.lo) : s.lo;
        const double hi = isFloat ? static_cast<float>(s.hi) : s.hi;
        if (std::isfinite(v) && ((v >= lo && v <= hi && whole) || unused))
            continue;
        const char* text = s.key ? iniparser_getstring(ini, s.key, nullptr) : nullptr;
        AKUDOA_LOG() << "doakernel init: refused" << s.key << "=" << (text ? std::string(text) : number(v))
                     << ", accepted" << number(s.lo) << ".." << number(s.hi);
        return false;
    }
    return fitsMemory(c);
}

void akudoa_settings_summary(const StCamCfg& c)
{
    AKUDOA_LOG() << kSeparator;
    for (const AKUSetting& s : kRows) {
        if (!s.label)
            continue;
        switch (s.type) {
        case T::Int:
            AKUDOA_LOG() << s.label << field<int32_t>(c, s);
            break;
        case T::IntAsFloat:
        case T::Double:
            AKUDOA_LOG() << s.label << field<float>(c, s);
            break;
        case T::Bool:
            AKUDOA_LOG() << s.label << field<bool>(c, s);
            break;
        case T::Text:
            AKUDOA_LOG() << s.label << field<const char*>(c, s);
            break;
        }
    }
    AKUDOA_LOG() << kSeparator;
    AKUDOA_LOG() << "doakernel init: load config success";
}

std::string akudoa_settings_markdown()
{
    static const char* const typeNames[] = {"integer", "integer (stored as float)", "number", "boolean", "path"};
    std::ostringstream out;
    out << "# Configuration keys\n\n"
           "Generated from the settings table in `AKUDoa/akudoasettings.cpp` (a test compares this file with\n"
           "the table; run `AKUDOA_WRITE_DOCS=1 ctest -R Settings` to rewrite it). Keys are written\n"
           "`Section:key` as in the INI file. *Preset* is what a field holds when it has no key; *default* is\n"
           "what a missing key reads as. `init` returns false, with one log line naming the key, the value\n"
           "and the accepted range, for any value outside *accepted*; see bad-input.md.\n\n"
           "| Key | Type | Preset | Default | Accepted | Summary label | Meaning |\n"
           "|---|---|---|---|---|---|---|\n";
    for (const AKUSetting& s : kRows) {
        const bool text = s.type == T::Text;
        auto value = [&s](double v) { return s.type == T::Bool ? std::string(v != 0 ? "true" : "false") : number(v); };
        std::string label = s.label ? s.label : "";
        if (!label.empty()) // "    Name   =" -> "Name"
            label = label.substr(4, label.find_last_not_of(" =") - 3);
        out << "| " << (s.key ? std::string("`") + s.key + "`" : std::string("(none)")) << " | "
            << typeNames[static_cast<int>(s.type)] << " | " << (text ? "none" : value(s.preset)) << " | "
            << (!s.key ? "-" : text ? "none" : value(s.iniDefault)) << " | "
            << (s.lo > s.hi ? std::string("any") : number(s.lo) + " .. " + number(s.hi)) << " | " << label << " | "
            << s.meaning << " |\n";
    }
    out << "\nThe summary block of `init` prints the rows with a label, in this order. Bad files given\n"
           "as `MicParam:MicFile` or `MicParam:MicSenCalibrationFile` do not fail `init`: see bad-input.md.\n";
    return out.str();
}
