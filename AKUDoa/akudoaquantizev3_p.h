#ifndef AKUDOA_AKUDOAQUANTIZEV3_P_H
#define AKUDOA_AKUDOAQUANTIZEV3_P_H

#include <fftw3.h>

#include <vector>

#include "AKUDoa/akucluster.h"
#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoadot_p.h"
#include "AKUDoa/base/akudoamatrix.h"
#include "AKUDoa/iakudoaquantize_p.h"

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
    // Mirror-pair layout of a far-field table (DOA:compact_steering):
    // steerQuant keeps the blocks of pixels 0 .. (P+1)/2 - 1 only, pixel
    // P-1-p being the conjugate of pixel p; the bytes kept are those of the
    // full table. Set before akudoa_planar_create sizes the table.
    bool compact = false;
    // fftData rows outside the last frame's band, built by getFFTMean.
    AKUDoaPendingSpectra pending;
    // int8 beam-sum kernel chosen for this CPU at doaInit.
    AKUDoaDot8Path dot8 = {"ref", akudoa_dot8_ref, akudoa_dot8pair_ref};
};

class IAKUDoaQuantize;

// Planar imaging steps on a record of this layout, shared by the V3 engine
// and the extended view (which keeps the same record with its own image size
// and flags), so both run the very same arithmetic. `average` is the
// engine's frequency-averaging switch; `q` supplies the quantization
// primitives (they use no engine state).

// Creates every container and FFT plan for the record's current
// imageRows, imageCols, micNum, frameSize and binNum; gprBins only when
// `regression` is set.
void akudoa_planar_create(AKUDoaQuantizeV3Private* d, bool regression);
// Destroys what akudoa_planar_create made (each only if present) and the
// cluster helper; the record itself stays.
void akudoa_planar_release(AKUDoaQuantizeV3Private* d);
// sqrt(fma(dz, dz, fma(dx, dx, dy * dy))).
float akudoa_pos_distance(float x1, float y1, float z1, float x2, float y2, float z2);
// Builds steerQuant and steerScale from the path terms dist (P x Mp floats,
// Mp = M rounded up to four): row b uses phase coefficient factor * dist,
// times k in the near field (dist in metres), factor b - 1 or the mean of
// 2b - 1 and 2b with averaging.
void akudoa_planar_build_steering(AKUDoaQuantizeV3Private* d, const std::vector<float>& dist, bool nearField,
                                  float k, bool average);
// Windows and transforms channel ch of the frame (nothing for a channel the
// frame does not have).
void akudoa_planar_window_fft(AKUDoaQuantizeV3Private* d, mat2d_fp32* frame, const float* win, int ch);
// Row b of fftData (re, -im, im, re per channel; the pair of bins 2b, 2b+1
// summed with averaging) from the transformed channels, its scale and its
// quantized row.
void akudoa_planar_spectrum_row(AKUDoaQuantizeV3Private* d, int b, bool average);
// Every channel, then every row of fftData and its quantization.
void akudoa_planar_fft(AKUDoaQuantizeV3Private* d, mat2d_fp32* frame, const float* win, bool average);
// int8 beam sums of table row `row` (all pixels, or only the central square).
void akudoa_planar_dot_row(AKUDoaQuantizeV3Private* d, mat2d_uint8* fftQ, mat2d_uint8* steerQ, vec_fp32* factor,
                           mat2d_fp32* out, int row);
void akudoa_planar_dot_row_radius(AKUDoaQuantizeV3Private* d, mat2d_uint8* fftQ, mat2d_uint8* steerQ,
                                  vec_fp32* factor, mat2d_fp32* out, int row);
// out[row][p] = fma(im, im, fma(re, re, offset)) for p < (in->cols / 8) * 4.
void akudoa_planar_norm_offset(mat2d_fp32* in, mat2d_fp32* out, float offset, int row);
// One table row of a frame: dequantization factor, beam sums, pixel power
// into beamPower[b] (without the self terms unless `self`).
void akudoa_planar_row(IAKUDoaQuantize& q, AKUDoaQuantizeV3Private* d, int b, bool radius, bool self);
// Over a full far-field table: bytes of each mirror block (pixel P-1-p)
// that differ from the conjugate of pixel p's block by one unit, and by
// more than one.
void akudoa_planar_mirror_diff(const AKUDoaQuantizeV3Private* d, long& oneUnit, long& larger);
// One frame: channel FFTs, the spectra of the table rows `rows` (distinct,
// in band order; the others are left pending), those rows into beamPower (and gprBins with `regression`), their sum in
// that order into heatSum, then akudoa_planar_finish into heatMap.
void akudoa_planar_frame(IAKUDoaQuantize& q, AKUDoaQuantizeV3Private* d, mat2d_fp32* frame, const float* win,
                         bool average, const std::vector<int>& rows, bool regression, mat2d_fp32* heatMap);
// heatSum -> amplitude (scale by 1/((M-1)M), floor at 0 unless `self`,
// square root, 1/N), copied into heatMap by cfg->rotateMode.
void akudoa_planar_finish(AKUDoaQuantizeV3Private* d, bool self, mat2d_fp32* heatMap);
// spectrum[n-1-i] = |specBuf[channel][i]|^2; a bad channel is ignored.
void akudoa_planar_power_spec(AKUDoaQuantizeV3Private* d, vec_fp32* spectrum, int channel);

#endif
