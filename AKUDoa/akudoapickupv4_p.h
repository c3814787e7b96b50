#ifndef AKUDOA_AKUDOAPICKUPV4_P_H
#define AKUDOA_AKUDOAPICKUPV4_P_H

#include <fftw3.h>

#include "AKUDoa/akudoapickupv4.h"

struct StCamCfg;

// Number of FIR taps per microphone; 23 history samples are carried across
// frame borders.
constexpr int AKUDOA_PICKUP_TAPS = 24;

struct AKUDoaPickupV4Private {
    StCamCfg* cfg = nullptr;      // not owned
    int micNum = 0;               // M
    int rows = 0;
    int cols = 0;
    int rotateMode = 1;           // copy; the target mapping reads cfg's live value
    int frameSize = 1024;         // N
    int sampleRate = 192000;      // Hz
    mat2d_fp32* taps = nullptr;   // M x 24, stored reversed
    mat2d_fp32* tapsSpare = nullptr;
    int targetRow = 0;            // last target applied (after the rotation mapping)
    int targetCol = 0;
    float samplesPerMetre = 0.f;  // integer sampleRate / 340: 282 at 96 kHz
    vec_fp32* micReach = nullptr; // M: radius in samples
    vec_fp32* micDelay = nullptr; // M: current steering delay in samples
    vec_fp32* micPhi = nullptr;   // M: azimuth, radians
    vec_fp32* spare = nullptr;
    mat2d_fp32* history = nullptr; // M x (N + 23): 23 kept samples, then the frame
    vec_fp32* fftIn = nullptr;    // N
    vec_fftwfcplx* spectrum = nullptr; // N (N/2 + 1 written by the transform)
    vec_fftwfcplx* masked = nullptr;   // N; overwritten by the inverse transform
    vec_fp32* fftOut = nullptr;   // N
    fftwf_plan forwardPlan = nullptr;
    fftwf_plan inversePlan = nullptr;
    vec_fp32* fftWindow = nullptr; // N
    mat2d_fp32* sumBuf = nullptr;  // 3 x N: current sum, half-overlapped block, previous sum
    mat2d_fp32* outBuf = nullptr;  // 3 x N: filtered rows 0 and 1, previous row 0

    ~AKUDoaPickupV4Private();

    // taps[m][23 - t] = window(x) * sinc(x - 12), x = t - delays[m] + 1.
    static void fir_sinctap_param_create(vec_fp32* delays, mat2d_fp32* taps);
    void copyPre(mat2d_fp32* frame);
    void processPickup(AKUDoaFreqBands& bands, vec_fp32* out);
    // The steering delays of the stored target into micDelay.
    void computeDelays(float sinTheta, float phi);
    // Delays and taps for (targetRow, targetCol).
    void applyTarget();
};

// Delay-and-sum of one frame: acc[n] += sum_k hist[m][n + k] * taps[m][k] over
// microphones m in order, n < n_out. Per output and microphone the 24
// products go into four lanes by fused multiply-add (lane i takes k = i mod 4)
// and the lanes are added as (l0 + l1) + (l2 + l3). The vector version is
// bit-identical to the reference. n_out must be a multiple of four for the
// vector version.
void akudoa_pickup_fir_sum(float* const* hist, float* const* taps, int mics, int n_out, float* acc);
void akudoa_pickup_fir_sum_ref(float* const* hist, float* const* taps, int mics, int n_out, float* acc);

// delay[m] = (reach[m] * sinTheta) * cos(phi - micPhi[m]) with the four-lane
// cosine, four microphones at a time (M a multiple of four).
void akudoa_pickup_delays(const float* reach, const float* micPhi, int mics, float sinTheta, float phi, float* delay);

// Pickup steering point (stored coordinates, for steerTo) nearest to the
// direction that the gridding engine of programs 4 and 54 draws at its
// accumulator cell (rowA, colA), before that engine's orientation step.
// That engine's cell k of an axis shows the direction sine
// k' * 2 sin(alpha) / G (k' the signed spatial-frequency index of the cell,
// columns further divided by the angle scale factor); the pickup's grid is
// finer near the centre, so the two differ by a scale, not by a mirror.
void akudoa_pickup_target_for_gridded_cell(const StCamCfg& cfg, int rowA, int colA, int& row, int& col);

#endif
