#ifndef AKUDOA_AKUDOAPICKUPV4_H
#define AKUDOA_AKUDOAPICKUPV4_H

#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoamatrix.h"

struct StCamCfg;
struct AKUDoaPickupV4Private;

// Delay-and-sum pickup toward one image point. Every microphone is delayed by
// its own fractional delay (a 24-tap windowed-sinc FIR, 11 samples of bulk
// delay plus the steering delay), the channels are summed, and the sum is
// band-limited to the band manager's bins by a half-overlapped FFT filter.
//
// Latency: an output block lags its input frame by half a frame, plus the
// FIR's 11 samples. The first frames after initPickup mix with zeros.
//
// Where a target listens: the target (row, col) is first mapped by the
// configuration's rotateMode (1: (rows - row, cols - col)) and the mapped
// point is steered with the same direction formula as the imaging grid. A
// source that the planar imaging engines draw at heat-map cell (i, j) is
// therefore heard best with the target (rows - i, cols - j) in rotateMode 1
// (generally: rows - i on a flipped axis, rows - 1 - i on an unflipped one),
// that is, at the cell mirrored through the image centre. Equivalently,
// steerTo(i, j) in mode 1 ((rows - 1 - i) on an unflipped axis) listens at
// heat-map cell (i, j); the kernel's readPickedUpAudioAtCell uses that.
//
// Not thread safe: the kernel serialises every call under its pickup lock.
// Runs on the calling thread; allocates and plans only in initPickup.
class AKUDOA_EXPORT AKUDoaPickupV4 {
public:
    AKUDoaPickupV4();
    ~AKUDoaPickupV4();
    AKUDoaPickupV4(const AKUDoaPickupV4&) = delete;
    AKUDoaPickupV4& operator=(const AKUDoaPickupV4&) = delete;

    // Keeps cfg (not owned, must outlive the pickup), allocates every buffer,
    // plans both FFTs and steers at the image centre. Call once.
    void initPickup(StCamCfg* cfg);
    // Steers at an image point. A point outside 0..rows x 0..cols (both ends
    // inclusive) is replaced by the centre; a point equal to the last stored
    // target recomputes nothing.
    void initTargetPoint(int row, int col);
    // Steers at a point given after the rotation mapping (the coordinates
    // initTargetPoint stores), bypassing the mapping and its shortcut, which
    // compares the caller's point with the stored, mapped one. Out-of-image
    // points go to the centre; an unchanged target recomputes nothing.
    void steerTo(int row, int col);
    // Copies the analysis window when length equals the frame size; any other
    // length is ignored. The window is all zero (silence) until set.
    void updateFFTWin(float* window, int length);
    // frame: microphones x frameSize samples in array order; out receives
    // frameSize samples (the caller owns both).
    void executePickup(mat2d_fp32* frame, AKUDoaFreqBands& bands, vec_fp32* out);

private:
    friend struct AKUDoaPickupV4Access; // white-box inspection in the tests
    AKUDoaPickupV4Private* d;
};

#endif
