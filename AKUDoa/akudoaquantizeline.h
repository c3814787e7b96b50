#ifndef AKUDOA_AKUDOAQUANTIZELINE_H
#define AKUDOA_AKUDOAQUANTIZELINE_H

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/iakudoaquantize.h"

struct AKUDoaQuantizeLinePrivate;

// Imaging engine of a linear microphone array: a line map of beam power over
// 361 angles from -80 to +80 degrees across the array axis (step 4/9
// degree), instead of a two-dimensional heat map.
//
// The array is split into two groups of M = channelNum / 2 microphones
// (group 0: array positions 0 .. M-1, group 1: positions M .. 2M-1; for the
// 128-channel capture 64 each). One engine images one group, chosen with
// setGroupId. micRadius of a position is its signed place along the line in
// metres; micPhi is not used.
//
// Angle convention: at angle theta the wave reaches the microphone at
// position x with the delay x * sin(theta) / c, c = 363 m/s (this engine's
// own speed of sound), so positive angles lie toward the negative end of the
// line. The line map is written in reverse angle order: column j of a 1 x 361
// map is the angle 80 - j * 4/9 degrees (+80 first).
//
// Steering table: per FFT bin k and angle, M cosines then M sines of the
// phase k * w * x_m * sin(theta), w = 2 pi fs / (N * 363), quantized to int8
// with one scale per bin; each frame's spectra are quantized the same way
// and every beam is an int8 dot product. The table is built at doaInit and
// never cached.
//
// Not thread safe: the kernel serialises every call under its engine lock.
// Inside a call the work runs on the OpenMP pool; the line map of a frame
// does not depend on the number of threads.
class AKUDOA_EXPORT AKUDoaQuantizeLine : public IAKUDoaQuantize {
public:
    AKUDoaQuantizeLine();
    // Releases every container and plan that doaInit created.
    ~AKUDoaQuantizeLine() override;
    AKUDoaQuantizeLine(const AKUDoaQuantizeLine&) = delete;
    AKUDoaQuantizeLine& operator=(const AKUDoaQuantizeLine&) = delete;

    // Sizes from cfg (M = channelNum / 2, N = frameSize, B = N/2 + 1 or N/4 + 1
    // with frequency averaging), containers, one FFT plan per microphone of
    // both groups, and the steering table of the current group (group 1 until
    // setGroupId says otherwise). The window is all zero until set.
    void doaInit(StCamCfg* cfg) override;
    // Copies the window when length equals N; any other length is ignored.
    void updateFFTWin(float* window, int length) override;
    // frame: either the whole array (at least 2M rows, array order; the
    // group's own rows are read) or the group alone (M rows). heatMap: R x Q,
    // normally 1 x 361; heatMap[R-1-i][Q-1-j] = line[i*Q + j] for indices
    // below 361, other cells untouched. An empty band list returns at once
    // and leaves heatMap as it was. A null heatMap computes without writing.
    void executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap) override;
    // spectrum[n-1-k] = |X_channel[k]|^2 for k < n = spectrum->n (n <= N):
    // channel is the group's microphone 0 .. M-1; any other leaves it untouched.
    void powerSpec(vec_fp32* spectrum, int channel) override;
    // true: keep the microphones' self terms in the beam power.
    void setSpectrumSelf(bool on) override;
    // Stored only; the line engine has no radius mode.
    void setFocusRadiusMode(bool on) override;
    // B x 4M spectra of the last frame: re, -im, im, re blocks of M.
    mat2d_fp32* getFFTMean() override;
    // No target search on a line: lowFreq = highFreq = -1 and power = 0.
    void findTargetFreqRange(fpoint2d target, AKUDoaFreqBands& bands, int& lowFreq, int& highFreq,
                             float& power) override;
    // Amplitude of the beam at index target.x + target.y * 361 of the per-bin
    // powers (not reversed), summed over the band list without sensitivity
    // weights: sqrt(sum / ((M-1) M)) / N. 0 for an index outside the line;
    // NaN for a negative sum with the self terms kept, 0 without them.
    float getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands) override;

    // Selects the group (1: positions M .. 2M-1, anything else: 0 .. M-1).
    // Rebuilds the steering table only when the group's positions differ from
    // those it was built for; call it on the thread that owns the engine.
    void setGroupId(int id);

    // First stage of executeDOA: window, FFT and quantized spectra of the group.
    void executeFFT(mat2d_fp32* frame);
    // int8 beams of bin `row`: out[row][a] = real, out[row][361 + a] = imaginary
    // part of angle a, each times factor[row]. Every microphone is summed.
    void matRowDotInt8(mat2d_uint8* frameQ, mat2d_uint8* steerQ, vec_fp32* factor, mat2d_fp32* out,
                       int row);
    // With h = 4 * floor(in->cols / 8) (360 for 361 angles), for i < h:
    // out[row][i] = fma(in[row][h+i], in[row][h+i], fma(in[row][i], in[row][i], offset)).
    // Entry i therefore pairs the real part of angle i with the imaginary part
    // of angle i-1 (i = 0: the real part of angle 360), and out[row][360] is
    // never written. This pairing is the engine's defined output.
    void ComplexNormOffset(mat2d_fp32* in, mat2d_fp32* out, float offset, int row);

    // Engine state for tests and tools; the record is private to the library.
    AKUDoaQuantizeLinePrivate* privateData() const { return d; }

private:
    AKUDoaQuantizeLinePrivate* d;
};

#endif
