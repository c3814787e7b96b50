#include "AKUDoa/akudoakernel.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <iniparser.h>

#include "AKUDoa/akudoacordinate_p.h"
#include "AKUDoa/akudoadistance.h"
#include "AKUDoa/akudoaextra.h"
#include "AKUDoa/akudoakernel_p.h"
#include "AKUDoa/akudoapickupv4.h"
#include "AKUDoa/akudoapickupv4_p.h"
#include "AKUDoa/akudoaquantizeline.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/base/akufftwindow.h"
#include "AKUDoa/base/akudoalogging.h"

namespace {

constexpr const char* kVersion = "5.1.0.0";
constexpr const char* kSeparator = "----------------------------------------------------------------";

// ---------------------------------------------------------------------------
// Built-in microphone layouts. Azimuths in radians wrapped into -pi..pi,
// radii in metres. Computed once from the ring formulas of each array.

constexpr double kPi = 3.14159265358979323846;

float wrapDegToRad(double deg)
{
    while (deg > 180.0)
        deg -= 360.0;
    while (deg <= -180.0)
        deg += 360.0;
    return static_cast<float>(deg * kPi / 180.0);
}

struct Layout128 {
    float phi[AKUDOA_MAX_MIC_NUM];
    float radius[AKUDOA_MAX_MIC_NUM];
};

// Seven rings of 17 microphones, each ring turned by 360/7 degrees against
// the previous one and 7.1 mm wider, plus an inner ring of 9 at 10 mm.
const Layout128& layout128()
{
    static const Layout128 layout = [] {
        Layout128 l{};
        for (int k = 0; k < 7; ++k) {
            for (int j = 0; j < 17; ++j) {
                const int i = 17 * k + j;
                l.radius[i] = static_cast<float>(0.0171 + 0.0071 * k);
                l.phi[i] = wrapDegToRad(k * 360.0 / 7.0 + j * 360.0 / 17.0);
            }
        }
        for (int j = 0; j < 9; ++j) {
            l.radius[119 + j] = 0.01f;
            l.phi[119 + j] = wrapDegToRad(80.0 + 40.0 * j);
        }
        return l;
    }();
    return layout;
}

// Subsets of the 128 layout: entry i is the capture channel of position i.
const int32_t g_index_48[48] = {0,  2,  4,  6,  8,  10, 12, 14, 19, 25,  29,  34,  36,  38,  40,  42,
                                45, 47, 49, 53, 58, 62, 66, 68, 70, 73,  75,  77,  79,  81,  83,  85,
                                88, 90, 94, 98, 100, 103, 105, 107, 109, 111, 113, 115, 118, 120, 123, 126};
const int32_t g_index_36[36] = {3,  6,  12, 15, 19, 22, 25, 28, 31, 33,  36,  39,  42,  45,  48,  50,  70,  73,
                                76, 78, 81, 84, 87, 90, 92, 95, 98, 101, 104, 106, 109, 112, 115, 118, 119, 124};

// Single ring of n equally spaced microphones starting at azimuth 0.
void ringLayout(int n, float r, int32_t* index, float* phi, float* radius)
{
    for (int i = 0; i < n; ++i) {
        index[i] = i;
        phi[i] = wrapDegToRad(360.0 * i / n);
        radius[i] = r;
    }
}

// ---------------------------------------------------------------------------

// Planar engine of a stored program value. Every value but the gridding
// programs images with V3.
IAKUDoaQuantize* newPlanarEngine(int doaVersionSelect)
{
    if (doaVersionSelect == 4 || doaVersionSelect == 54)
        return new AKUDoaQuantizeV4;
    return new AKUDoaQuantizeV3;
}

bool usesGriddingTable(int doaVersionSelect)
{
    return doaVersionSelect == 4 || doaVersionSelect == 54;
}

int64_t elapsedMs(const timespec& a, const timespec& b)
{
    return static_cast<int64_t>(b.tv_sec - a.tv_sec) * 1000 + (b.tv_nsec - a.tv_nsec) / 1000000;
}

// iniparser reports syntax errors on stderr by default; the library prints
// nothing by itself, a failed load is reported through the log instead.
int silentIniError(const char*, ...)
{
    return 0;
}

// Reads up to bytes from path into dst. A file that cannot be opened counts
// as absent (false). Short files leave the rest of dst untouched.
bool readRawFile(const char* path, void* dst, size_t bytes, bool logUse, const char* useMessage)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    if (logUse)
        AKUDOA_LOG() << useMessage << path;
    char* p = static_cast<char*>(dst);
    size_t left = bytes;
    while (left > 0) {
        const ssize_t n = ::read(fd, p, left);
        if (n <= 0)
            break;
        p += n;
        left -= static_cast<size_t>(n);
    }
    ::close(fd);
    return true;
}

// Reads the three geometry arrays, each channelNum entries long, one after
// the other. A short file fills what it holds: each array gets whatever of
// its own section is present.
void readGeometryFile(StCamCfg& cfg)
{
    const int fd = ::open(cfg.micFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    AKUDOA_LOG() << "doakernel init: use special formation file" << cfg.micFile;
    const size_t section = static_cast<size_t>(cfg.channelNum) * 4;
    void* dst[3] = {cfg.micIndex, cfg.micPhi, cfg.micRadius};
    bool eof = false;
    for (void* d : dst) {
        char* p = static_cast<char*>(d);
        size_t left = section;
        while (!eof && left > 0) {
            const ssize_t n = ::read(fd, p, left);
            if (n <= 0) {
                eof = true;
                break;
            }
            p += n;
            left -= static_cast<size_t>(n);
        }
    }
    ::close(fd);
}

} // namespace

bool akudoa_builtin_geometry(int count, int32_t* index, float* phi, float* radius)
{
    const Layout128& l = layout128();
    const int32_t* table = nullptr;
    switch (count) {
    case 8:
        ringLayout(8, 0.025f, index, phi, radius);
        return true;
    case 16:
        ringLayout(16, 0.06f, index, phi, radius);
        return true;
    case 36:
        table = g_index_36;
        break;
    case 48:
        table = g_index_48;
        break;
    case 64:
    case 128:
        break;
    default:
        return false;
    }
    for (int i = 0; i < count; ++i) {
        int32_t c = i;
        if (table)
            c = table[i];
        else if (count == 64)
            c = 2 * i; // the even channels
        index[i] = c;
        phi[i] = l.phi[c];
        radius[i] = l.radius[c];
    }
    return true;
}

// ---------------------------------------------------------------------------
// AKUDoaKernelPrivate

AKUDoaKernelPrivate::AKUDoaKernelPrivate()
{
    std::memset(&cfg, 0, sizeof(cfg));
}

void AKUDoaKernelPrivate::pushFrame(const mat2d_fp32* frame, mat2d_fp32* dst) const
{
    for (int r = 0; r < dst->rows; ++r)
        std::memcpy(dst->data[r], frame->data[cfg.micIndex[r]], sizeof(float) * static_cast<size_t>(dst->cols));
}

void AKUDoaKernelPrivate::pushPickUpAudioFrame(const mat2d_fp32* frame)
{
    if (framePool.empty()) // linear-array mode has no pickup ring
        return;
    mat2d_fp32* oldest = framePool.front();
    pushFrame(frame, oldest);
    framePool.pop_front();
    framePool.push_back(oldest);
}

void AKUDoaKernelPrivate::releaseObjects()
{
    // Engines are released first: they may still refer to the buffers and
    // the band manager below.
    delete pickup;
    pickup = nullptr;
    delete doaEngine;
    doaEngine = nullptr;
    delete distance;
    distance = nullptr;
    delete extra;
    extra = nullptr;
    for (AKUDoaQuantizeLine*& line : lineEngine) {
        delete line;
        line = nullptr;
    }
    delete freqBands;
    freqBands = nullptr;
    destroy_mat2d_fp32(doaFrame);
    doaFrame = nullptr;
    destroy_mat2d_fp32(extraFrame);
    extraFrame = nullptr;
    for (mat2d_fp32* m : framePool)
        destroy_mat2d_fp32(m);
    framePool.clear();
    destroy_mat2d_fp32(heatMap);
    heatMap = nullptr;
    destroy_vec_fp32(cordinate);
    cordinate = nullptr;
}

CordinateMat AKUDoaKernelPrivate::coefficients() const
{
    return CordinateMat{cfg.rx1, cfg.rx2, cfg.rx3, cfg.ry1, cfg.ry2, cfg.ry3};
}

void AKUDoaKernelPrivate::GenerateCordinateMat()
{
    if (cordinate)
        akudoa_cordinate_generate(coefficients(), static_cast<float>(cfg.sectionFactor), cfg.imageResolutionRow,
                                  cfg.imageResolutionCol, cordinate->data);
}

void AKUDoaKernelPrivate::GenerateCordinateMatV4()
{
    if (cordinate)
        akudoa_cordinate_generate_v4(coefficients(), static_cast<float>(cfg.sectionFactor), cfg.imageResolutionRow,
                                     cfg.imageResolutionCol, cordinate->data);
}

void AKUDoaKernelPrivate::rebuildCordinate()
{
    if (usesGriddingTable(cfg.doaVersionSelect))
        GenerateCordinateMatV4();
    else
        GenerateCordinateMat();
}

void AKUDoaKernelPrivate::DoCodCor2D(mat2d_fp32* raw, mat2d_fp32* out) const
{
    akudoa_cordinate_resample(cordinate->data, raw, out);
}

fpoint2d AKUDoaKernelPrivate::DoPointCorCod2D(fpoint2d p) const
{
    return akudoa_cordinate_point(coefficients(), static_cast<float>(cfg.sectionFactor), p);
}

fpoint2d AKUDoaKernelPrivate::engineTarget(fpoint2d p)
{
    if (cfg.imageCorrectionFlag != 1)
        return p;
    // The coefficients may be replaced concurrently (updateCordinateMat):
    // read them under their lock.
    std::lock_guard<std::mutex> corLock(cordinateMutex);
    return DoPointCorCod2D(p);
}

// ---------------------------------------------------------------------------
// AKUDoaKernel

AKUDoaKernel::AKUDoaKernel()
    : d(new AKUDoaKernelPrivate)
{
}

AKUDoaKernel::~AKUDoaKernel()
{
    d->releaseObjects();
    if (d->ini)
        iniparser_freedict(d->ini);
    delete d;
    d = nullptr;
}

bool AKUDoaKernel::init(const char* path)
{
    AKUDOA_LOG() << "doakernel init: start";
    timespec t0{};
    clock_gettime(CLOCK_MONOTONIC, &t0);

    StCamCfg& c = d->cfg;
    d->inited = 0;

    // Presets: what fields without a key keep.
    c.imageCorrectionFlag = 1;
    c.doaVersionSelect = 3;
    c.sampleFrequency = 96000;
    c.channelNum = 128;
    c.rotateMode = 1;
    c.imageResolutionRow = 64;
    c.imageResolutionCol = 48;
    c.sectionFactor = 10;
    c.eangleDomain = 43;
    c.frameSize = 1024;
    c.rx1 = c.rx2 = c.rx3 = 0.0f;
    c.ry1 = c.ry2 = c.ry3 = 0.0f;
    c.readFromFile = true;
    c.autoSave = true;
    c.freqAverage = false;
    c.micFile = nullptr;
    c.micSenCalibrationFile = nullptr;
    c.focusDistance = 0.5f;
    c.focusDistanceEn = false;
    c.imageThetaXYFactor = 1.0f;
    c.distanceMeasureRow = 20.0f;
    c.distanceMeasureCol = 20.0f;
    c.targetQuantize = true;
    c.distanceMeasureEn = false;
    c.extraEn = false;
    c.waveScaleDb = 0.0f;
    c.micMaxRadius = 0.11f;
    c.extendRows = 12;
    c.extendCols = 12;
    c.initFlag = 0;
    c.pickupFullBand = false;
    c.compactSteering = false;
    for (int i = 0; i < 6; ++i) {
        c.micIndex[i] = 0;
        c.micPhi[i] = 0.0f;
        c.micRadius[i] = 0.0f;
    }

    dictionary* ini = nullptr;
    if (path) {
        iniparser_set_error_callback(silentIniError);
        ini = iniparser_load(path);
        iniparser_set_error_callback(nullptr);
    }
    if (!ini) {
        AKUDOA_LOG() << "doakernel init: load config failed";
        return false;
    }

    // A repeated init starts from scratch: drop what the previous one built,
    // including the dictionary the old path fields pointed into.
    d->releaseObjects();
    if (d->ini)
        iniparser_freedict(d->ini);
    d->ini = ini;

    c.imageCorrectionFlag = iniparser_getint(ini, "AcousticCameraParam:image_correction_flag", 1);
    c.doaVersionSelect = iniparser_getint(ini, "DOA:DOAVersionSelect", 3);
    c.sampleFrequency = iniparser_getint(ini, "AudioRecordingParam:sample_frequency", 96000);
    c.channelNum = iniparser_getint(ini, "AudioRecordingParam:channel_num", 128);
    c.rotateMode = iniparser_getint(ini, "AcousticCameraParam:rotate_mode", 1);
    c.imageResolutionRow = iniparser_getint(ini, "AcousticCameraParam:image_resolution_row", 64);
    c.imageResolutionCol = iniparser_getint(ini, "AcousticCameraParam:image_resolution_col", 48);
    c.sectionFactor = iniparser_getint(ini, "AcousticCameraParam:section_factor", 10);
    c.eangleDomain = iniparser_getint(ini, "AcousticCameraParam:eangle_domain", 43);
    c.frameSize = iniparser_getint(ini, "AudioRecordingParam:frame_size", 1024);
    c.rx1 = static_cast<float>(iniparser_getdouble(ini, "AcousticCameraParam:rx1", -1.0));
    c.rx2 = static_cast<float>(iniparser_getdouble(ini, "AcousticCameraParam:rx2", -1.0));
    c.rx3 = static_cast<float>(iniparser_getdouble(ini, "AcousticCameraParam:rx3", -1.0));
    c.ry1 = static_cast<float>(iniparser_getdouble(ini, "AcousticCameraParam:ry1", -1.0));
    c.ry2 = static_cast<float>(iniparser_getdouble(ini, "AcousticCameraParam:ry2", -1.0));
    c.ry3 = static_cast<float>(iniparser_getdouble(ini, "AcousticCameraParam:ry3", -1.0));
    c.readFromFile = iniparser_getboolean(ini, "QuantizeiParam:readFromFile", 1) != 0;
    c.autoSave = iniparser_getboolean(ini, "QuantizeiParam:autoSave", 1) != 0;
    c.freqAverage = iniparser_getboolean(ini, "AcousticCameraParam:freq_average", 0) != 0;
    c.micFile = iniparser_getstring(ini, "MicParam:MicFile", nullptr);
    c.micSenCalibrationFile = iniparser_getstring(ini, "MicParam:MicSenCalibrationFile", nullptr);
    c.focusDistance = static_cast<float>(iniparser_getdouble(ini, "AcousticCameraParam:focus_distance", 1.0));
    c.focusDistanceEn = iniparser_getboolean(ini, "AcousticCameraParam:focus_distance_en", 0) != 0;
    c.imageThetaXYFactor = static_cast<float>(iniparser_getdouble(ini, "AcousticCameraParam:image_thetaXY_factor", 1.3));
    c.distanceMeasureRow = static_cast<float>(iniparser_getint(ini, "AcousticCameraParam:distance_measure_row", 11));
    c.distanceMeasureCol = static_cast<float>(iniparser_getint(ini, "AcousticCameraParam:distance_measure_col", 11));
    c.targetQuantize = iniparser_getboolean(ini, "DOA:TargetQuantize", 1) != 0;
    c.distanceMeasureEn = iniparser_getboolean(ini, "AcousticCameraParam:distanceMeasure_en", 1) != 0;
    c.extraEn = iniparser_getboolean(ini, "DOA:extra_en", 1) != 0;
    c.waveScaleDb = static_cast<float>(iniparser_getdouble(ini, "DOA:wave_scale_dB", 0.0));
    c.compactSteering = iniparser_getboolean(ini, "DOA:compact_steering", 0) != 0;

    AKUDOA_LOG() << kSeparator;
    AKUDOA_LOG() << "    Init Flag                    =" << c.initFlag;
    AKUDOA_LOG() << "    Doa Select                   =" << c.doaVersionSelect;
    AKUDOA_LOG() << "    SampleRate                   =" << c.sampleFrequency;
    AKUDOA_LOG() << "    FrameSize                    =" << c.frameSize;
    AKUDOA_LOG() << "    ChannalNum                   =" << c.channelNum;
    AKUDOA_LOG() << "    ImageResRows                 =" << c.imageResolutionRow;
    AKUDOA_LOG() << "    ImageResCols                 =" << c.imageResolutionCol;
    AKUDOA_LOG() << "    ImageFac                     =" << c.sectionFactor;
    AKUDOA_LOG() << "    ImageThetaXYFac              =" << c.imageThetaXYFactor;
    AKUDOA_LOG() << "    AngleDomain                  =" << c.eangleDomain;
    AKUDOA_LOG() << "    QuantizeiParamFromFileEnable =" << c.readFromFile;
    AKUDOA_LOG() << "    QuantizeiParamEnable         =" << c.autoSave;
    AKUDOA_LOG() << "    FreqAverageEnable            =" << c.freqAverage;
    AKUDOA_LOG() << "    Focus Distance               =" << c.focusDistance;
    AKUDOA_LOG() << "    Focus Distance Enable        =" << c.focusDistanceEn;
    AKUDOA_LOG() << "    Mic MaxRadius                =" << c.micMaxRadius;
    AKUDOA_LOG() << "    MeasureDisEnable             =" << c.distanceMeasureEn;
    AKUDOA_LOG() << "    MeasureDisRows               =" << c.distanceMeasureRow;
    AKUDOA_LOG() << "    MeasureDisCols               =" << c.distanceMeasureCol;
    AKUDOA_LOG() << "    TargetQuantizeFlag           =" << c.targetQuantize;
    AKUDOA_LOG() << "    MicFile                      =" << c.micFile;
    AKUDOA_LOG() << "    MicSenCalibrationFile        =" << c.micSenCalibrationFile;
    AKUDOA_LOG() << "    RotateMode                   =" << c.rotateMode;
    AKUDOA_LOG() << "    ImageCorrectionFlag          =" << c.imageCorrectionFlag;
    AKUDOA_LOG() << "    ExtraEnable                  =" << c.extraEn;
    AKUDOA_LOG() << "    ExtendRows                   =" << c.extendRows;
    AKUDOA_LOG() << "    ExtendCols                   =" << c.extendCols;
    AKUDOA_LOG() << "    Wave Scale dB                =" << c.waveScaleDb;
    AKUDOA_LOG() << kSeparator;
    AKUDOA_LOG() << "doakernel init: load config success";

    // Geometry. An unsupported count cannot be imaged at all; the host is
    // told on stdout and the process ends, as the camera firmware expects.
    if (!akudoa_builtin_geometry(c.channelNum, c.micIndex, c.micPhi, c.micRadius)) {
        std::fputs("please set correct mic number!!!", stdout);
        std::fflush(stdout);
        std::exit(0);
    }
    if (c.micFile) {
        readGeometryFile(c);
        // Indices address rows of the caller's frame: keep the built-in
        // channel for any position whose file index is out of range.
        int32_t builtinIndex[AKUDOA_MAX_MIC_NUM];
        float unusedPhi[AKUDOA_MAX_MIC_NUM];
        float unusedRadius[AKUDOA_MAX_MIC_NUM];
        akudoa_builtin_geometry(c.channelNum, builtinIndex, unusedPhi, unusedRadius);
        for (int i = 0; i < c.channelNum; ++i) {
            if (c.micIndex[i] < 0 || c.micIndex[i] >= AKUDOA_MAX_MIC_NUM) {
                AKUDOA_LOG() << "doakernel init: mic index out of range at position" << i << "="
                             << c.micIndex[i];
                c.micIndex[i] = builtinIndex[i];
            }
        }
    }
    for (int i = 0; i < c.channelNum; ++i)
        AKUDOA_LOG() << c.micIndex[i] + 1 << "Radius =" << c.micRadius[i] << "MicPhi =" << c.micPhi[i];

    // One gain per FFT bin up to Nyquist; frames longer than 1026 samples
    // do not fit the record and keep only the first 514 gains.
    const int gains = std::min(std::max(c.frameSize / 2 + 1, 0), AKUDOA_MAX_SENSITIVITY_BINS);
    for (int i = 0; i < gains; ++i)
        c.micSensitivity[i] = 1.0f;
    if (c.micSenCalibrationFile)
        readRawFile(c.micSenCalibrationFile, c.micSensitivity, sizeof(float) * static_cast<size_t>(gains), true,
                    "doakernel init: use special sensitvity calibration file");
    AKUDOA_LOG() << "doakernel init: read mic info success";

    d->channels = c.channelNum;
    d->sampleRate = c.sampleFrequency;
    d->frameSize = c.frameSize;

    // Default imaging band, by sample rate; unknown rates get the 96 kHz band.
    freqBandWidth band{20000, 40000, 1};
    switch (d->sampleRate) {
    case 48000:
        band = {10000, 20000, 1};
        break;
    case 32000:
    case 24000:
        band = {6000, 10000, 1};
        break;
    case 16000:
        band = {4000, 6000, 1};
        break;
    default:
        break;
    }

    if (c.imageResolutionRow == 1) {
        AKUDOA_LOG() << "doakernel init: init doa line mode";
        // Two linear engines over the one array-ordered frame: group 0 images
        // positions 0 .. channels/2-1 (frame rows of the same numbers), group 1
        // the rest. They get the planar path's default Tukey(0.2) window here:
        // nothing else sets one in this mode, and an all-zero window would
        // give all-zero line maps.
        AKUFFTWindow window(d->frameSize, FFT_WINDOW_TUKEY, 0, 0, 0.2f);
        for (int g = 0; g < 2; ++g) {
            d->lineEngine[g] = new AKUDoaQuantizeLine;
            d->lineEngine[g]->doaInit(&c);
        }
        for (int g = 0; g < 2; ++g) {
            d->lineEngine[g]->setGroupId(g);
            d->lineEngine[g]->updateFFTWin(window.data()->data, window.winLength());
        }
        //
        // The line readout hands both engines the array-ordered frame and
        // the band manager, so linear mode gets those two (and nothing else
        // of the planar path).
        d->freqBands = new AKUDoaFreqBands(d->frameSize, d->sampleRate);
        d->freqBands->updateBands({band});
        d->doaFrame = create_mat2d_fp32(d->channels, d->frameSize);
    } else {
        d->doaEngine = newPlanarEngine(c.doaVersionSelect);
        d->doaEngine->doaInit(&c);
        if (c.extraEn) {
            d->extra = new AKUDoaExtra;
            d->extra->doaInit(&c);
        }

        d->freqBands = new AKUDoaFreqBands(d->frameSize, d->sampleRate);
        d->freqBands->updateBands({band});

        d->pickup = new AKUDoaPickupV4;
        d->pickup->initPickup(&c);
        if (c.distanceMeasureEn) {
            d->distance = new AKUDoaDistance;
            d->distance->initDistance(&c);
        }

        d->extraFrame = create_mat2d_fp32(d->channels, d->frameSize);
        d->doaFrame = create_mat2d_fp32(d->channels, d->frameSize);
        for (int i = 0; i < 3; ++i)
            d->framePool.push_back(create_mat2d_fp32(d->channels, d->frameSize));

        d->heatMap = create_mat2d_fp32(c.imageResolutionRow, c.imageResolutionCol);
        d->cordinate = create_vec_fp32(c.imageResolutionRow * c.imageResolutionCol * 2);

        d->rebuildCordinate();
        d->doaEngine->setFocusRadiusMode(d->focusRadius);
        d->doaEngine->setSpectrumSelf(d->spectrumSelf);
        // initFlag is still 0 here, so the window setters run unconditionally
        // on the objects just built.
        setFFTWindow_doa(FFT_WINDOW_TUKEY, 0.0f, 0.0f, 0.2f);
        setFFTWindow_pickup(FFT_WINDOW_HANN, 0.0f, 0.0f, 1.0f);
    }

    timespec t1{};
    clock_gettime(CLOCK_MONOTONIC, &t1);
    AKUDOA_LOG() << "doakernel init: init dao handle success";
    AKUDOA_LOG() << "doakernel init: init finish, result: success, use time(ms):" << static_cast<long>(elapsedMs(t0, t1));
    AKUDOA_LOG() << "doa library version:" << kVersion;

    const char* program = nullptr;
    switch (c.doaVersionSelect) {
    case 3:
        program = "doa program: 3";
        break;
    case 4:
        program = "doa program: 4";
        break;
    case 53:
        program = "doa program: 5 process 3";
        break;
    case 54:
        program = "doa program: 5 process 4";
        break;
    default:
        break;
    }
    if (program) {
        if (c.focusDistanceEn) {
            const std::string text = std::string(program) + ", focusDis =";
            AKUDOA_LOG() << text.c_str() << c.focusDistance;
        } else {
            AKUDOA_LOG() << program;
        }
    }

    c.initFlag = 1;
    d->inited = 1;
    return true;
}

// ---------------------------------------------------------------------------
// Readout. One capture thread pushes frames; setters may run concurrently on
// other threads and are serialised against the engines by doaMutex.

bool AKUDoaKernel::readHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap, vec_fp32* spectrum, int channel)
{
    const StCamCfg& c = d->cfg;
    if (!frame || c.initFlag != 1 || !d->doaEngine)
        return false;
    // A map of another size would be written out of bounds: refuse it.
    if (heatMap && (heatMap->rows != c.imageResolutionRow || heatMap->cols != c.imageResolutionCol))
        return false;

    d->pushDoaAudioFrame(frame);
    if (c.imageCorrectionFlag == 1 || !heatMap) {
        // Without a caller map the frame is still imaged (into the internal
        // map), so the target and distance readouts see this frame.
        std::lock_guard<std::mutex> doaLock(d->doaMutex);
        d->doaEngine->executeDOA(d->doaFrame, *d->freqBands, d->heatMap);
        if (heatMap && c.imageCorrectionFlag == 1) {
            std::lock_guard<std::mutex> corLock(d->cordinateMutex);
            d->DoCodCor2D(d->heatMap, heatMap);
        }
    } else {
        std::lock_guard<std::mutex> doaLock(d->doaMutex);
        d->doaEngine->executeDOA(d->doaFrame, *d->freqBands, heatMap);
    }
    if (!heatMap)
        return true;
    if (spectrum) {
        std::lock_guard<std::mutex> doaLock(d->doaMutex);
        d->doaEngine->powerSpec(spectrum, channel);
    }
    return true;
}

bool AKUDoaKernel::readHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap, fpoint2d target, float& distance,
                               vec_fp32* spectrum, int channel)
{
    if (!readHeatMap(frame, heatMap, spectrum, channel))
        return false;
    if (!d->cfg.distanceMeasureEn || !d->distance)
        return false;
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    d->distance->executeDoa(d->doaEngine->getFFTMean(), *d->freqBands, d->engineTarget(target), distance);
    return true;
}

bool AKUDoaKernel::readHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap, fpoint2d target, int& lowBin, int& highBin,
                               float& power, vec_fp32* spectrum, int channel)
{
    if (!readHeatMap(frame, heatMap, spectrum, channel))
        return false;
    // The target is used as given here (no correction), as hosts expect of
    // this call.
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    d->doaEngine->findTargetFreqRange(target, *d->freqBands, lowBin, highBin, power);
    return true;
}

bool AKUDoaKernel::readHeatMapExtra(mat2d_fp32* frame, mat2d_fp32* heatMap)
{
    if (!frame || d->cfg.initFlag != 1 || !d->cfg.extraEn || !d->extra)
        return false;
    // No kernel lock: the extended view has its own frame and engine, which
    // a program switch never replaces (it swaps only the planar engine), and
    // freqBands is handed on but not read. The one setter that reaches this
    // engine, setFFTWindow_doa, goes through updateFFTWin, which the engine
    // serialises against executeDOA itself. Frames must come from one
    // thread, as for the other readouts.
    d->pushExtraAudioFrame(frame);
    d->extra->executeDOA(d->extraFrame, *d->freqBands, heatMap);
    return true;
}

bool AKUDoaKernel::readLineHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap0, mat2d_fp32* heatMap1)
{
    if (!frame || d->cfg.initFlag != 1 || !d->lineEngine[0] || !d->lineEngine[1])
        return false;
    d->pushDoaAudioFrame(frame);
    std::lock_guard<std::mutex> lock(d->doaMutex);
    d->lineEngine[0]->executeDOA(d->doaFrame, *d->freqBands, heatMap0);
    d->lineEngine[1]->executeDOA(d->doaFrame, *d->freqBands, heatMap1);
    return true;
}

bool AKUDoaKernel::readPickedUpAudio(mat2d_fp32* frame, vec_fp32* audio, fpoint2d target)
{
    if (!frame || !audio || d->cfg.initFlag != 1 || !d->pickup)
        return false;
    d->pushPickUpAudioFrame(frame);
    // Corrected before the pickup lock: that lock never nests with another.
    const fpoint2d t = d->engineTarget(target);
    std::lock_guard<std::mutex> pickupLock(d->pickupMutex);
    d->pickup->initTargetPoint(t.x, t.y);
    d->pickup->executePickup(d->framePool.back(), *d->freqBands, audio);
    return true;
}

fpoint2d AKUDoaKernel::getPaWithTarget(fpoint2d target)
{
    fpoint2d result = target;
    result.val = 0.0f;
    if (d->cfg.initFlag != 1 || !d->doaEngine)
        return result;
    const fpoint2d t = d->engineTarget(target);
    // The engine lock keeps a concurrent program switch from freeing the
    // engine under this read; it never nests with another lock here.
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    result.val = d->doaEngine->getPaWithTarget(t, *d->freqBands);
    return result;
}

// ---------------------------------------------------------------------------
// Program and engine control

namespace {

struct ProgramInfo {
    int stored;
    const char* startMessage;
    const char* okMessage;
};

const ProgramInfo kPrograms[4] = {
    {3, "start set doa program v3", "set doa program v3 ok"},
    {4, "start set doa program v4", "set doa program v4 ok"},
    {53, "start set doa program v5 process 3", "set doa program v5 process 3 ok"},
    {54, "start set doa program v5 process 4", "set doa program v5 process 4 ok"},
};

} // namespace

DOAProgarm AKUDoaKernel::getDoaProgram()
{
    for (int i = 0; i < 4; ++i)
        if (kPrograms[i].stored == d->cfg.doaVersionSelect)
            return static_cast<DOAProgarm>(i);
    return DOA_PROGRAM_V3;
}

void AKUDoaKernel::setDoaProgram(DOAProgarm program)
{
    const int index = static_cast<int>(program);
    if (index < 0 || index > 3)
        return;
    const ProgramInfo& info = kPrograms[index];
    if (d->cfg.doaVersionSelect == info.stored)
        return;
    // A planar engine needs the planar buffers: nothing to switch before
    // init or in linear-array mode.
    if (d->cfg.initFlag != 1 || !d->doaEngine)
        return;
    AKUDOA_LOG() << "AKUDoaKernel::setDoaProgram" << info.startMessage;

    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    d->cfg.doaVersionSelect = info.stored;
    delete d->doaEngine;
    d->doaEngine = newPlanarEngine(info.stored);
    d->doaEngine->doaInit(&d->cfg);
    {
        std::lock_guard<std::mutex> corLock(d->cordinateMutex);
        d->rebuildCordinate();
    }
    d->doaEngine->setFocusRadiusMode(d->focusRadius);
    d->doaEngine->setSpectrumSelf(d->spectrumSelf);
    AKUFFTWindow window(d->frameSize, FFT_WINDOW_TUKEY, 0.0f, 0.0f, 0.2f);
    d->doaEngine->updateFFTWin(window.data()->data, window.data()->n);
    AKUDOA_LOG() << "AKUDoaKernel::setDoaProgram" << info.okMessage;
}

void AKUDoaKernel::setFocusDis(float distance, bool enable)
{
    d->cfg.focusDistanceEn = enable;
    d->cfg.focusDistance = distance;

    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    // Only the engine class that the stored program names is rebuilt; any
    // other engine (or none) is left alone.
    AKUDoaQuantizeV3* v3 = nullptr;
    AKUDoaQuantizeV4* v4 = nullptr;
    const int select = d->cfg.doaVersionSelect;
    if (select == 3 || select == 53)
        v3 = dynamic_cast<AKUDoaQuantizeV3*>(d->doaEngine);
    else
        v4 = dynamic_cast<AKUDoaQuantizeV4*>(d->doaEngine);
    if (!v3 && !v4)
        return;
    timespec t0{};
    timespec t1{};
    clock_gettime(CLOCK_MONOTONIC, &t0);
    if (v3)
        v3->focusDisUpdate();
    else
        v4->focusDisUpdate();
    clock_gettime(CLOCK_MONOTONIC, &t1);
    AKUDOA_LOG() << "doakernel setFocusDis: TargetDistance =" << distance << (enable ? "ENABLE" : "DISABLE")
                 << " use time(ms)" << static_cast<long>(elapsedMs(t0, t1));
}

float AKUDoaKernel::getFocusDis()
{
    return d->cfg.focusDistance;
}

bool AKUDoaKernel::getFocusDisEn()
{
    return d->cfg.focusDistanceEn;
}

void AKUDoaKernel::setFFTWindow_doa(FFTWindowType type, float p1, float p2, float p3)
{
    if (!d->doaEngine)
        return;
    AKUFFTWindow window(d->frameSize, type, p1, p2, p3);
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    d->doaEngine->updateFFTWin(window.data()->data, window.data()->n);
    if (d->cfg.extraEn && d->extra)
        d->extra->updateFFTWin(window.data()->data, window.data()->n);
}

fpoint2d AKUDoaKernelPrivate::pickupTargetForCell(fpoint2d cell)
{
    const int rows = cfg.imageResolutionRow;
    const int cols = cfg.imageResolutionCol;
    int r = cell.x;
    int c = cell.y;
    if (cfg.imageCorrectionFlag == 1 && cordinate && r >= 0 && r < rows && c >= 0 && c < cols) {
        // The displayed cell was resampled from (u, v) of the engine's map.
        std::lock_guard<std::mutex> lock(cordinateMutex);
        const float* uv = cordinate->data + 2 * (r * cols + c);
        r = std::min(std::max(static_cast<int>(std::lround(uv[0])), 0), rows - 1);
        c = std::min(std::max(static_cast<int>(std::lround(uv[1])), 0), cols - 1);
    }
    const int mode = cfg.rotateMode;
    fpoint2d t = cell;
    if (cfg.doaVersionSelect == 4 || cfg.doaVersionSelect == 54) {
        // Gridding engine: undo its orientation step, then steer at the
        // nearest pickup point to the direction its cell shows.
        const int ra = (mode == 0 || mode == 2) ? rows - 1 - r : r;
        const int ca = (mode == 0 || mode == 3) ? cols - 1 - c : c;
        akudoa_pickup_target_for_gridded_cell(cfg, ra, ca, t.x, t.y);
        return t;
    }
    // Steering-table engine: it draws the wave from direction -w at its raw
    // pixel with steering direction w; the pickup steers at +w of its stored
    // target. The two grids coincide, so the stored target is the cell on an
    // axis that the rotation mode flips and its mirror rows - 1 - row
    // otherwise.
    const bool flipRows = mode == 1 || mode == 3;
    const bool flipCols = mode == 1 || mode == 2;
    t.x = flipRows ? r : rows - 1 - r;
    t.y = flipCols ? c : cols - 1 - c;
    return t;
}

bool AKUDoaKernel::readPickedUpAudioAtCell(mat2d_fp32* frame, vec_fp32* audio, fpoint2d cell)
{
    if (!frame || !audio || d->cfg.initFlag != 1 || !d->pickup)
        return false;
    d->pushPickUpAudioFrame(frame);
    const fpoint2d target = d->pickupTargetForCell(cell);
    std::lock_guard<std::mutex> lock(d->pickupMutex);
    d->pickup->steerTo(target.x, target.y);
    d->pickup->executePickup(d->framePool.back(), *d->freqBands, audio);
    return true;
}

void AKUDoaKernel::setFFTWindow_pickup(FFTWindowType type, float p1, float p2, float p3)
{
    if (!d->pickup)
        return;
    AKUFFTWindow window(d->frameSize, type, p1, p2, p3);
    std::lock_guard<std::mutex> pickupLock(d->pickupMutex);
    d->pickup->updateFFTWin(window.data()->data, window.data()->n);
}

void AKUDoaKernel::setFocusRadius(bool on)
{
    d->focusRadius = on;
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    if (d->doaEngine)
        d->doaEngine->setFocusRadiusMode(on);
}

bool AKUDoaKernel::focusRadius() const
{
    return d->focusRadius;
}

void AKUDoaKernel::setSpectrumSelf(bool on)
{
    d->spectrumSelf = on;
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    if (d->doaEngine)
        d->doaEngine->setSpectrumSelf(on);
}

bool AKUDoaKernel::spectrumSelf() const
{
    return d->spectrumSelf;
}

void AKUDoaKernel::updateCordinateMat(CordinateMat m)
{
    std::lock_guard<std::mutex> corLock(d->cordinateMutex);
    d->cfg.rx1 = m.rx1;
    d->cfg.rx2 = m.rx2;
    d->cfg.rx3 = m.rx3;
    d->cfg.ry1 = m.ry1;
    d->cfg.ry2 = m.ry2;
    d->cfg.ry3 = m.ry3;
    d->rebuildCordinate();
}

CordinateMat AKUDoaKernel::cordinateMat()
{
    std::lock_guard<std::mutex> corLock(d->cordinateMutex);
    return d->coefficients();
}

AKUDoaFreqBands* AKUDoaKernel::freqBandsManager()
{
    return d->freqBands;
}

int AKUDoaKernel::neededChannelsCount() const
{
    return AKUDOA_MAX_MIC_NUM;
}

int AKUDoaKernel::channelsCount() const
{
    return d->cfg.channelNum;
}

int AKUDoaKernel::audioRecoverLength() const
{
    return d->cfg.frameSize;
}

int AKUDoaKernel::imgRows() const
{
    return d->cfg.imageResolutionRow;
}

int AKUDoaKernel::imgCols() const
{
    return d->cfg.imageResolutionCol;
}

int AKUDoaKernel::imgFac() const
{
    return d->cfg.sectionFactor;
}

int AKUDoaKernel::samlpeRate() const
{
    return d->cfg.sampleFrequency;
}

const StCamCfg* AKUDoaKernel::camConfig() const
{
    return &d->cfg;
}

const char* AKUDoaKernel::DoaVersion()
{
    return kVersion;
}
