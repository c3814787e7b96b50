#ifndef AKUDOA_AKUDOAQUANTIZEV3_P_H
#define AKUDOA_AKUDOAQUANTIZEV3_P_H

#include <fftw3.h>

#include <vector>

#include "AKUDoa/akucluster.h"
#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoadot_p.h"
#include "AKUDoa/base/akudoamatrix.h"

// State of AKUDoaQuantizeV3. NR x NC image (P pixels), M microphones, frame
// of N samples, B table rows (N/2+1, or N/4+1 with frequency averaging).
// Everything is created in doaInit and released by the engine's destructor.
struct AKUDoaQuantizeV3Private {
    int imageRows = 64;
    int imageCols = 48;
    int micNum = 128;
    int sampleRate = 96000; // Hz
    int frameSize = 1024;   // samples, also the FFT length
    int binNum = 513;

    vec_fp32* fftWindow = nullptr;     // N samples, all zero until a window is set
    vec_fp32* steerScale = nullptr;    // B quantization scales of the steering rows
    mat2d_uint8* steerQuant = nullptr; // B x 2MP: per pixel M cosines then M sines (int8)
    mat2d_fp32* beamComplex = nullptr; // B x 2P: real parts of all pixels, then imaginary
    mat2d_fp32* beamPower = nullptr;   // B x P: power of each pixel
    mat1d_fp32* gprImage = nullptr;    // NR x NC interpolation image
    mat2d_int32* beamInt = nullptr;    // B x 2P, unused by the imaging itself
    mat2d_fp32* fftData = nullptr;     // B x 4M: re, -im, im, re of every channel
    mat2d_uint8* fftQuant = nullptr;   // B x 4M: fftData quantized
    vec_fp32* fftScale = nullptr;      // B quantization scales of the fftData rows
    vec_fp32* binWork = nullptr;       // B, unused by the imaging itself
    vec_fp32* dequantFactor = nullptr; // B: 1 / (fftScale * steerScale)
    vec_fp32* heatSum = nullptr;       // P: accumulated image of the frame
    vec_fp32* binWork2 = nullptr;      // B, unused by the imaging itself
    fftwf_plan* fftPlans = nullptr;    // M real-to-complex plans, system heap
    mat2d_fp32* timeBuf = nullptr;     // M x N windowed samples (plan input)
    mat2d_fftwfcplx* specBuf = nullptr; // M x N complex (plan output, N/2+1 used)
    bool spectrumSelf = false;
    bool focusRadiusMode = false;
    AKUCluster* cluster = nullptr; // target-frequency clustering (created in doaInit)
    StCamCfg* cfg = nullptr; // the kernel's record, not owned

    // Interpolated image of each table row (programs 53 and 54): B x P, so
    // that the bins of one frame are summed in band order whatever thread
    // produced them. Created when the program needs it.
    mat2d_fp32* gprBins = nullptr;
    // int8 beam-sum kernel chosen for this CPU at doaInit.
    AKUDoaDot8Path dot8 = {"ref", akudoa_dot8_ref};
};

#endif
