#ifndef AKUDOA_AKUDOAQUANTIZELINE_P_H
#define AKUDOA_AKUDOAQUANTIZELINE_P_H

#include <fftw3.h>

#include <vector>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoadot_p.h"
#include "AKUDoa/base/akudoamatrix.h"

// State of AKUDoaQuantizeLine. M microphones per group, N samples per frame,
// B bins (N/2+1, or N/4+1 with frequency averaging), A = 361 angles.
// Everything is created in doaInit and released by the engine's destructor.
struct AKUDoaQuantizeLinePrivate {
    static constexpr int kAngleNum = 361;
    static constexpr float kAngleFrom = -80.0f; // degrees
    static constexpr float kAngleTo = 80.0f;
    // m/s. The line array's own constant (the planar engines use 340); the
    // calibrated line maps depend on it.
    static constexpr double kSoundSpeed = 363.0;

    int micNum = 128;     // M; channelNum halved when groupNum is 2
    int groupNum = 2;     // fixed by the constructor
    int groupId = 1;      // 1: positions M .. 2M-1, otherwise 0 .. M-1
    int sampleRate = 96000; // Hz
    int frameSize = 1024; // N, samples per frame and FFT length
    int binNum = 513;     // B
    int angleNum = kAngleNum;
    bool spectrumSelf = false;
    bool focusRadiusMode = false; // stored, not read

    mat2d_uint8* steerQ = nullptr;   // B x 2MA: per angle M cosines then M sines (int8)
    vec_fp32* steerScale = nullptr;  // B quantization scales of steerQ
    vec_fp32* frameScale = nullptr;  // B quantization scales of the frame spectra
    vec_fp32* dotFactor = nullptr;   // B: 1 / (frameScale * steerScale)
    vec_fp32* fftWindow = nullptr;   // N samples, all zero until a window is set
    mat2d_fp32* dotOut = nullptr;    // B x 2A: real parts of all angles, then imaginary
    mat2d_fp32* binMaps = nullptr;   // B x A: beam power per angle
    mat2d_fp32* fftMean = nullptr;   // B x 4M: re, -im, im, re of the group's microphones
    mat2d_uint8* frameQ = nullptr;   // B x 4M: fftMean quantized
    fftwf_plan* micPlans = nullptr;  // 2M plans, windowed[r] -> micSpectra[r]
    int planCount = 0;
    // groupNum * M rows: group g uses rows g*M .. g*M+M-1, so both groups have
    // rows of their own whichever group an engine serves.
    mat2d_fp32* windowed = nullptr;
    mat2d_fftwfcplx* micSpectra = nullptr; // same rows, N complex (N/2+1 used)
    vec_fp32* heatAcc = nullptr;     // exactly A: the frame's line map being summed
    StCamCfg* cfg = nullptr;         // the kernel's record, not owned

    // Positions (metres) the steering table was built for.
    std::vector<float> tablePositions;
    // int8 beam-sum kernel chosen for this CPU at doaInit.
    AKUDoaDot8Path dot8 = {"ref", akudoa_dot8_ref};

    // First array position (and frame row of a whole-array frame) of the
    // engine's group.
    int rowBase() const { return groupId == 1 ? micNum : 0; }

    // v[i] = fma(i, (to - from) / (n - 1), from); nothing for a null or empty
    // vector.
    static void array_linespace(vec_fp32* v, float from, float to);
    // v[i] = sin((i * step + from) * pi / 180) with the same step, the sine
    // taken in double precision.
    static void array_linespace_sin(vec_fp32* v, float from, float to);

    // Builds steerQ and steerScale for the current group's positions.
    void createQuantizeParam();
    // Destroys every container and plan (each only if present).
    void release();
};

#endif
