#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <iniparser.h>

#include "AKUDoa/akudoacordinate_p.h"
#include "AKUDoa/akudoadistance.h"
#include "AKUDoa/akudoaextra.h"
#include "AKUDoa/akudoakernel_p.h"
#include "AKUDoa/akudoapickupv4.h"
#include "AKUDoa/akudoaquantizeline.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/base/akufftwindow.h"
#include "AKUDoa/base/akudoalogging.h"

// The kernel's private record: frame intake, coordinate correction, and the
// steps of init. The public calls and their locking are in akudoakernel.cpp.

namespace {

bool usesGriddingTable(int doaVersionSelect)
{
    return doaVersionSelect == 4 || doaVersionSelect == 54;
}

int64_t nowMs()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

// iniparser reports syntax errors on stderr by default; the library prints
// nothing by itself, a failed load is reported through the log instead.
int silentIniError(const char*, ...)
{
    return 0;
}

const int kProgramNumbers[4] = {3, 4, 53, 54};
const char* const kProgramLines[4] = {"doa program: 3", "doa program: 4", "doa program: 5 process 3",
                                      "doa program: 5 process 4"};

} // namespace

// Planar engine of a stored program value. Every value but the gridding
// programs images with V3.
IAKUDoaQuantize* akudoa_new_planar_engine(int doaVersionSelect)
{
    if (doaVersionSelect == 4 || doaVersionSelect == 54)
        return new AKUDoaQuantizeV4;
    return new AKUDoaQuantizeV3;
}

fpoint2d akudoa_clamp_target(fpoint2d p)
{
    p.x = std::min(std::max(p.x, -AKUDOA_TARGET_LIMIT), AKUDOA_TARGET_LIMIT);
    p.y = std::min(std::max(p.y, -AKUDOA_TARGET_LIMIT), AKUDOA_TARGET_LIMIT);
    return p;
}

// ---------------------------------------------------------------------------
// AKUDoaKernelPrivate

AKUDoaKernelPrivate::AKUDoaKernelPrivate()
{
    std::memset(&cfg, 0, sizeof(cfg));
}

bool AKUDoaKernelPrivate::frameFits(const mat2d_fp32* frame) const
{
    return frame && frame->data && frame->rows >= frameRowsNeeded && frame->cols >= frameSize;
}

void AKUDoaKernelPrivate::pushFrame(const mat2d_fp32* frame, mat2d_fp32* dst)
{
    const size_t n = static_cast<size_t>(dst->cols);
    std::string muted;
    for (int r = 0; r < dst->rows; ++r) {
        float* row = dst->data[r];
        std::memcpy(row, frame->data[cfg.micIndex[r]], sizeof(float) * n);
        // x - x is 0 for every finite sample and NaN otherwise; four
        // independent sums keep the check off the copy's critical path.
        float probe[4] = {0.0f, 0.0f, 0.0f, 0.0f};
        for (size_t i = 0; i < n; ++i)
            probe[i & 3] += row[i] - row[i];
        if ((probe[0] + probe[1]) + (probe[2] + probe[3]) == 0.0f)
            continue;
        std::memset(row, 0, sizeof(float) * n);
        muted += " " + std::to_string(cfg.micIndex[r]);
    }
    if (muted.empty())
        return;
    const int64_t now = nowMs();
    if (now - lastMuteLogMs >= 1000) {
        lastMuteLogMs = now;
        AKUDOA_LOG() << "doakernel: muted channels with non-finite samples:" << muted.c_str() + 1;
    }
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
    for (mat2d_fp32** m : {&doaFrame, &extraFrame, &heatMap}) {
        destroy_mat2d_fp32(*m);
        *m = nullptr;
    }
    for (mat2d_fp32* m : framePool)
        destroy_mat2d_fp32(m);
    framePool.clear();
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
    p = akudoa_clamp_target(p);
    if (cfg.imageCorrectionFlag != 1)
        return p;
    // The coefficients may be replaced concurrently (updateCordinateMat):
    // read them under their lock.
    std::lock_guard<std::mutex> corLock(cordinateMutex);
    return akudoa_clamp_target(DoPointCorCod2D(p));
}

bool AKUDoaKernelPrivate::pickupTargetForCell(fpoint2d cell, fpoint2d& target)
{
    const int rows = cfg.imageResolutionRow;
    const int cols = cfg.imageResolutionCol;
    int r = cell.x;
    int c = cell.y;
    if (r < 0 || r >= rows || c < 0 || c >= cols)
        return false;
    // The program (and with it the engine) may be switched concurrently.
    std::lock_guard<std::mutex> doaLock(doaMutex);
    if (!doaEngine)
        return false;
    if (cfg.imageCorrectionFlag == 1 && cordinate) {
        // The displayed cell was resampled from (u, v) of the engine's map.
        std::lock_guard<std::mutex> lock(cordinateMutex);
        const float* uv = cordinate->data + 2 * (static_cast<size_t>(r) * cols + c);
        r = static_cast<int>(std::lround(std::min(std::max(uv[0], 0.0f), static_cast<float>(rows - 1))));
        c = static_cast<int>(std::lround(std::min(std::max(uv[1], 0.0f), static_cast<float>(cols - 1))));
    }
    target = cell;
    return doaEngine->pickupTargetForCell(r, c, target.x, target.y);
}

// ---------------------------------------------------------------------------
// init and its steps

_dictionary_* AKUDoaKernelPrivate::loadIni(const char* path)
{
    if (!path)
        return nullptr;
    // iniparser reads until end of file: a FIFO would block and a device
    // like /dev/zero never ends.
    struct stat st {};
    if (::stat(path, &st) == 0 && !S_ISREG(st.st_mode)) {
        AKUDOA_LOG() << "doakernel init: refused" << path << ": not a regular file";
        return nullptr;
    }
    iniparser_set_error_callback(silentIniError);
    dictionary* ini = iniparser_load(path);
    iniparser_set_error_callback(nullptr);
    return ini;
}

void AKUDoaKernelPrivate::buildGeometry()
{
    // An unsupported count cannot be imaged at all; the host is told on
    // stdout and the process ends, as the camera firmware expects.
    int32_t index[AKUDOA_MAX_MIC_NUM];
    float phi[AKUDOA_MAX_MIC_NUM];
    float radius[AKUDOA_MAX_MIC_NUM];
    if (!akudoa_builtin_geometry(cfg.channelNum, index, phi, radius)) {
        std::fputs("please set correct mic number!!!", stdout);
        std::fflush(stdout);
        std::exit(0);
    }
    akudoa_load_geometry(cfg);
    akudoa_load_sensitivity(cfg);
    AKUDOA_LOG() << "doakernel init: read mic info success";

    channels = cfg.channelNum;
    sampleRate = cfg.sampleFrequency;
    frameSize = cfg.frameSize;
    frameRowsNeeded = 0;
    for (int i = 0; i < channels; ++i)
        frameRowsNeeded = std::max(frameRowsNeeded, cfg.micIndex[i] + 1);

    // Default imaging band, by sample rate; unknown rates get the 96 kHz band.
    freqBandWidth band{20000, 40000, 1};
    if (sampleRate == 48000)
        band = {10000, 20000, 1};
    else if (sampleRate == 32000 || sampleRate == 24000)
        band = {6000, 10000, 1};
    else if (sampleRate == 16000)
        band = {4000, 6000, 1};
    freqBands = new AKUDoaFreqBands(frameSize, sampleRate);
    freqBands->updateBands({band});
}

void AKUDoaKernelPrivate::buildLineMode()
{
    AKUDOA_LOG() << "doakernel init: init doa line mode";
    // Two linear engines over the one array-ordered frame: group 0 images
    // positions 0 .. channels/2-1, group 1 the rest. They get the planar
    // path's default Tukey(0.2) window here: nothing else sets one in this
    // mode, and an all-zero window would give all-zero line maps.
    AKUFFTWindow window(frameSize, FFT_WINDOW_TUKEY, 0, 0, 0.2f);
    for (int g = 0; g < 2; ++g) {
        lineEngine[g] = new AKUDoaQuantizeLine;
        lineEngine[g]->doaInit(&cfg);
    }
    for (int g = 0; g < 2; ++g) {
        lineEngine[g]->setGroupId(g);
        lineEngine[g]->updateFFTWin(window.data()->data, window.winLength());
    }
    doaFrame = create_mat2d_fp32(channels, frameSize);
}

void AKUDoaKernelPrivate::buildPlanar()
{
    doaEngine = akudoa_new_planar_engine(cfg.doaVersionSelect);
    doaEngine->doaInit(&cfg);
    if (cfg.extraEn) {
        extra = new AKUDoaExtra;
        extra->doaInit(&cfg);
    }
    pickup = new AKUDoaPickupV4;
    pickup->initPickup(&cfg);
    if (cfg.distanceMeasureEn) {
        distance = new AKUDoaDistance;
        distance->initDistance(&cfg);
    }
}

void AKUDoaKernelPrivate::buildBuffers()
{
    extraFrame = create_mat2d_fp32(channels, frameSize);
    doaFrame = create_mat2d_fp32(channels, frameSize);
    for (int i = 0; i < 3; ++i)
        framePool.push_back(create_mat2d_fp32(channels, frameSize));
    heatMap = create_mat2d_fp32(cfg.imageResolutionRow, cfg.imageResolutionCol);
    cordinate = create_vec_fp32(cfg.imageResolutionRow * cfg.imageResolutionCol * 2);
    rebuildCordinate();
    doaEngine->setFocusRadiusMode(focusRadius);
    doaEngine->setSpectrumSelf(spectrumSelf);
}

void AKUDoaKernelPrivate::logFinish(long elapsed) const
{
    AKUDOA_LOG() << "doakernel init: init dao handle success";
    AKUDOA_LOG() << "doakernel init: init finish, result: success, use time(ms):" << elapsed;
    AKUDOA_LOG() << "doa library version:" << AKUDOA_KERNEL_VERSION;
    const char* program = nullptr;
    for (int i = 0; i < 4; ++i)
        if (kProgramNumbers[i] == cfg.doaVersionSelect)
            program = kProgramLines[i];
    if (program && cfg.focusDistanceEn)
        AKUDOA_LOG() << (std::string(program) + ", focusDis =").c_str() << cfg.focusDistance;
    else if (program)
        AKUDOA_LOG() << program;
}

