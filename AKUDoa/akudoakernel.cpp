#include "AKUDoa/akudoakernel.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
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
#include "AKUDoa/akudoasettings_p.h"
#include "AKUDoa/base/akufftwindow.h"
#include "AKUDoa/base/akudoalogging.h"

namespace {

int64_t elapsedMs(const timespec& a, const timespec& b)
{
    return static_cast<int64_t>(b.tv_sec - a.tv_sec) * 1000 + (b.tv_nsec - a.tv_nsec) / 1000000;
}

bool fitsMap(const mat2d_fp32* m, int rows, int cols)
{
    return m && m->data && m->rows == rows && m->cols == cols;
}

// Analysis window of length n, or null (with a log line) when the
// parameters give no usable window.
std::unique_ptr<AKUFFTWindow> makeWindow(const char* who, int n, FFTWindowType type, float p1, float p2, float p3)
{
    std::unique_ptr<AKUFFTWindow> w;
    bool ok = true;
    for (float p : {p1, p2, p3})
        ok = ok && std::isfinite(p) && std::fabs(p) <= 1e6f;
    if (ok) {
        w.reset(new AKUFFTWindow(n, type, p1, p2, p3));
        const vec_fp32* v = w->data();
        ok = v && v->n == n;
        for (int i = 0; ok && i < n; ++i)
            ok = std::isfinite(v->data[i]);
    }
    if (ok)
        return w;
    AKUDOA_LOG() << who << ": refused window type" << static_cast<int>(type) << "with parameters" << p1 << p2 << p3
                 << ": parameters within +-1e6 giving finite samples accepted";
    return nullptr;
}

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

    // Settings are read and checked in a copy: a refused file leaves the
    // previous configuration (and everything built on it) in place.
    StCamCfg next;
    std::memcpy(&next, &d->cfg, sizeof(next));
    akudoa_settings_preset(next);
    dictionary* ini = AKUDoaKernelPrivate::loadIni(path);
    if (!ini) {
        AKUDOA_LOG() << "doakernel init: load config failed";
        d->cfg.initFlag = 0;
        d->inited = 0;
        return false;
    }
    akudoa_settings_read(next, ini);
    if (!akudoa_settings_validate(next, ini)) {
        iniparser_freedict(ini);
        d->cfg.initFlag = 0;
        d->inited = 0;
        return false;
    }

    // A repeated init starts from scratch: drop what the previous one built,
    // including the dictionary the old path fields pointed into.
    d->inited = 0;
    d->releaseObjects();
    if (d->ini)
        iniparser_freedict(d->ini);
    d->ini = ini;
    std::memcpy(&d->cfg, &next, sizeof(next));
    akudoa_settings_summary(d->cfg);

    d->buildGeometry();
    if (d->cfg.imageResolutionRow == 1) {
        d->buildLineMode();
    } else {
        d->buildPlanar();
        d->buildBuffers();
        // initFlag is still 0 here, so the window setters run on the
        // objects just built.
        setFFTWindow_doa(FFT_WINDOW_TUKEY, 0.0f, 0.0f, 0.2f);
        setFFTWindow_pickup(FFT_WINDOW_HANN, 0.0f, 0.0f, 1.0f);
    }

    timespec t1{};
    clock_gettime(CLOCK_MONOTONIC, &t1);
    d->logFinish(static_cast<long>(elapsedMs(t0, t1)));
    d->cfg.initFlag = 1;
    d->inited = 1;
    return true;
}

// ---------------------------------------------------------------------------
// Readout. One capture thread pushes frames; setters may run concurrently on
// other threads and are serialised against the engines by doaMutex.

bool AKUDoaKernel::readHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap, vec_fp32* spectrum, int channel)
{
    const StCamCfg& c = d->cfg;
    if (c.initFlag != 1 || !d->frameFits(frame) || !d->doaFrame)
        return false;
    // A map of another size would be written out of bounds: refuse it.
    if (heatMap && !fitsMap(heatMap, c.imageResolutionRow, c.imageResolutionCol))
        return false;
    // The engine pointer is replaced by setDoaProgram under this lock.
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    if (!d->doaEngine)
        return false;
    d->pushDoaAudioFrame(frame);
    if (c.imageCorrectionFlag == 1 || !heatMap) {
        // Without a caller map the frame is still imaged (into the internal
        // map), so the target and distance readouts see this frame.
        d->doaEngine->executeDOA(d->doaFrame, *d->freqBands, d->heatMap);
        if (heatMap) {
            std::lock_guard<std::mutex> corLock(d->cordinateMutex);
            d->DoCodCor2D(d->heatMap, heatMap);
        }
    } else {
        d->doaEngine->executeDOA(d->doaFrame, *d->freqBands, heatMap);
    }
    if (heatMap && spectrum)
        d->doaEngine->powerSpec(spectrum, channel);
    return true;
}

bool AKUDoaKernel::readHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap, fpoint2d target, float& distance,
                               vec_fp32* spectrum, int channel)
{
    if (!readHeatMap(frame, heatMap, spectrum, channel))
        return false;
    if (!d->cfg.distanceMeasureEn || !d->distance)
        return false;
    const fpoint2d t = d->engineTarget(target);
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    d->distance->executeDoa(d->doaEngine->getFFTMean(), *d->freqBands, t, distance);
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
    d->doaEngine->findTargetFreqRange(akudoa_clamp_target(target), *d->freqBands, lowBin, highBin, power);
    return true;
}

bool AKUDoaKernel::readHeatMapExtra(mat2d_fp32* frame, mat2d_fp32* heatMap)
{
    const StCamCfg& c = d->cfg;
    if (c.initFlag != 1 || !c.extraEn || !d->extra || !d->frameFits(frame))
        return false;
    // The engine writes rows / 2 x cols / 2 cells.
    if (!heatMap || !heatMap->data || heatMap->rows < c.imageResolutionRow / 2 ||
        heatMap->cols < c.imageResolutionCol / 2)
        return false;
    // No kernel lock: the extended view has its own frame and engine, which
    // a program switch never replaces, and freqBands is handed on but not
    // read. setFFTWindow_doa reaches this engine through updateFFTWin, which
    // the engine serialises against executeDOA itself.
    d->pushExtraAudioFrame(frame);
    d->extra->executeDOA(d->extraFrame, *d->freqBands, heatMap);
    return true;
}

bool AKUDoaKernel::readLineHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap0, mat2d_fp32* heatMap1)
{
    if (d->cfg.initFlag != 1 || !d->lineEngine[0] || !d->lineEngine[1] || !d->frameFits(frame))
        return false;
    for (const mat2d_fp32* m : {heatMap0, heatMap1})
        if (m && !m->data)
            return false;
    std::lock_guard<std::mutex> lock(d->doaMutex);
    d->pushDoaAudioFrame(frame);
    d->lineEngine[0]->executeDOA(d->doaFrame, *d->freqBands, heatMap0);
    d->lineEngine[1]->executeDOA(d->doaFrame, *d->freqBands, heatMap1);
    return true;
}

bool AKUDoaKernel::readPickedUpAudio(mat2d_fp32* frame, vec_fp32* audio, fpoint2d target)
{
    if (d->cfg.initFlag != 1 || !d->pickup || !d->frameFits(frame) || !audio || !audio->data ||
        audio->n < d->frameSize)
        return false;
    d->pushPickUpAudioFrame(frame);
    // Corrected before the pickup lock: that lock never nests with another.
    const fpoint2d t = d->engineTarget(target);
    std::lock_guard<std::mutex> pickupLock(d->pickupMutex);
    d->pickup->initTargetPoint(t.x, t.y);
    d->pickup->executePickup(d->framePool.back(), *d->freqBands, audio);
    return true;
}

bool AKUDoaKernel::readPickedUpAudioAtCell(mat2d_fp32* frame, vec_fp32* audio, fpoint2d cell)
{
    if (d->cfg.initFlag != 1 || !d->pickup || !d->frameFits(frame) || !audio || !audio->data ||
        audio->n < d->frameSize)
        return false;
    fpoint2d target{};
    if (!d->pickupTargetForCell(cell, target))
        return false;
    d->pushPickUpAudioFrame(frame);
    std::lock_guard<std::mutex> lock(d->pickupMutex);
    d->pickup->steerTo(target.x, target.y);
    d->pickup->executePickup(d->framePool.back(), *d->freqBands, audio);
    return true;
}

fpoint2d AKUDoaKernel::getPaWithTarget(fpoint2d target)
{
    fpoint2d result = target;
    result.val = 0.0f;
    if (d->cfg.initFlag != 1)
        return result;
    const fpoint2d t = d->engineTarget(target);
    // The engine lock keeps a concurrent program switch from freeing the
    // engine under this read; it never nests with another lock here.
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    if (d->doaEngine)
        result.val = d->doaEngine->getPaWithTarget(t, *d->freqBands);
    return result;
}

// ---------------------------------------------------------------------------
// Program and engine control

DOAProgarm AKUDoaKernel::getDoaProgram()
{
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
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
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    // A planar engine needs the planar buffers: nothing to switch before
    // init or in linear-array mode.
    if (d->cfg.doaVersionSelect == info.stored || d->cfg.initFlag != 1 || !d->doaEngine)
        return;
    AKUDOA_LOG() << "AKUDoaKernel::setDoaProgram" << info.startMessage;
    delete d->doaEngine;
    d->doaEngine = nullptr;
    {
        // The program is read under either lock (the coordinate rebuild of
        // updateCordinateMat holds only cordinateMutex): write under both.
        std::lock_guard<std::mutex> corLock(d->cordinateMutex);
        d->cfg.doaVersionSelect = info.stored;
        d->rebuildCordinate();
    }
    d->doaEngine = akudoa_new_planar_engine(info.stored);
    d->doaEngine->doaInit(&d->cfg);
    d->doaEngine->setFocusRadiusMode(d->focusRadius);
    d->doaEngine->setSpectrumSelf(d->spectrumSelf);
    AKUFFTWindow window(d->frameSize, FFT_WINDOW_TUKEY, 0.0f, 0.0f, 0.2f);
    d->doaEngine->updateFFTWin(window.data()->data, window.data()->n);
    AKUDOA_LOG() << "AKUDoaKernel::setDoaProgram" << info.okMessage;
}

void AKUDoaKernel::setFocusDis(float distance, bool enable)
{
    if (!std::isfinite(distance) || distance < AKUDOA_FOCUS_MIN || distance > AKUDOA_FOCUS_MAX) {
        AKUDOA_LOG() << "doakernel setFocusDis: refused distance" << distance << ", accepted" << AKUDOA_FOCUS_MIN
                     << ".." << AKUDOA_FOCUS_MAX;
        return;
    }
    // The engines read both fields while imaging, under this lock.
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    d->cfg.focusDistanceEn = enable;
    d->cfg.focusDistance = distance;
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
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    return d->cfg.focusDistance;
}

bool AKUDoaKernel::getFocusDisEn()
{
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    return d->cfg.focusDistanceEn;
}

void AKUDoaKernel::setFFTWindow_doa(FFTWindowType type, float p1, float p2, float p3)
{
    if (!d->doaEngine)
        return;
    const std::unique_ptr<AKUFFTWindow> w = makeWindow("doakernel setFFTWindow_doa", d->frameSize, type, p1, p2, p3);
    if (!w)
        return;
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    if (d->doaEngine)
        d->doaEngine->updateFFTWin(w->data()->data, w->data()->n);
    if (d->cfg.extraEn && d->extra)
        d->extra->updateFFTWin(w->data()->data, w->data()->n);
}

void AKUDoaKernel::setFFTWindow_pickup(FFTWindowType type, float p1, float p2, float p3)
{
    if (!d->pickup)
        return;
    const std::unique_ptr<AKUFFTWindow> w = makeWindow("doakernel setFFTWindow_pickup", d->frameSize, type, p1, p2, p3);
    if (!w)
        return;
    std::lock_guard<std::mutex> pickupLock(d->pickupMutex);
    d->pickup->updateFFTWin(w->data()->data, w->data()->n);
}

void AKUDoaKernel::setFocusRadius(bool on)
{
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    d->focusRadius = on;
    if (d->doaEngine)
        d->doaEngine->setFocusRadiusMode(on);
}

bool AKUDoaKernel::focusRadius() const
{
    return d->focusRadius;
}

void AKUDoaKernel::setSpectrumSelf(bool on)
{
    std::lock_guard<std::mutex> doaLock(d->doaMutex);
    d->spectrumSelf = on;
    if (d->doaEngine)
        d->doaEngine->setSpectrumSelf(on);
}

bool AKUDoaKernel::spectrumSelf() const
{
    return d->spectrumSelf;
}

// ---------------------------------------------------------------------------
// Coordinate correction and accessors

void AKUDoaKernel::updateCordinateMat(CordinateMat m)
{
    for (float v : {m.rx1, m.rx2, m.rx3, m.ry1, m.ry2, m.ry3}) {
        if (!std::isfinite(v) || std::fabs(v) > AKUDOA_CORRECTION_MAX) {
            AKUDOA_LOG() << "doakernel updateCordinateMat: refused coefficient" << v << ", accepted"
                         << -AKUDOA_CORRECTION_MAX << ".." << AKUDOA_CORRECTION_MAX;
            return;
        }
    }
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
    return AKUDOA_KERNEL_VERSION;
}
