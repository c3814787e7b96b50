#ifndef AKUDOA_IAKUDOAQUANTIZE_H
#define AKUDOA_IAKUDOAQUANTIZE_H

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoamatrix.h"

// Interface of every imaging engine (planar V3/V4, linear array, extended
// view). The kernel owns one engine through a pointer to this class and
// drives it only through the virtual operations below; their order is the
// slot order of the interface and must not change.
//
// The class also carries the int8 quantization primitives shared by the
// engines. Quantized matrices are mat2d_uint8 rows holding signed
// two's-complement bytes in -127..127, with one float scale per row (the
// factor applied before rounding). None of the primitives touches member
// state; they are safe to call from several threads on distinct rows.
class AKUDOA_EXPORT IAKUDoaQuantize {
public:
    virtual ~IAKUDoaQuantize();

    // Called once right after construction. The engine keeps cfg (owned by
    // the kernel, which outlives the engine), allocates its per-frame
    // buffers and FFT plans and loads or builds its steering tables.
    virtual void doaInit(StCamCfg* cfg) = 0;
    // Copies the analysis window when length equals the frame size; any
    // other length is ignored.
    virtual void updateFFTWin(float* window, int length) = 0;
    // frame: channels x samples in array order; heatMap: image rows x cols.
    virtual void executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap) = 0;
    // Power spectrum of one channel of the last frame.
    virtual void powerSpec(vec_fp32* spectrum, int channel) = 0;
    virtual void setSpectrumSelf(bool on) = 0;
    virtual void setFocusRadiusMode(bool on) = 0;
    // Per-bin channel spectra of the last frame; owned by the engine.
    virtual mat2d_fp32* getFFTMean() = 0;
    // Frequency range (Hz) in which a source near target is active and its
    // amplitude; both bounds are -1 when none is found. power is added to.
    virtual void findTargetFreqRange(fpoint2d target, AKUDoaFreqBands& bands, int& lowFreq,
                                     int& highFreq, float& power) = 0;
    // Amplitude arriving from the target pixel in the last frame.
    virtual float getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands) = 0;
    // Pickup steering point (AKUDoaPickupV4::steerTo coordinates) that
    // listens in the direction this engine draws at cell (row, col) of its
    // own map, inside the grid. False for engines without a pickup.
    virtual bool pickupTargetForCell(int row, int col, int& pickupRow, int& pickupCol) const;

    // scale[r] = 127 / max|m[r][c]| over the first 4*floor(cols/4) columns
    // (a row must hold at least four). A zero row gets an infinite scale.
    void quantizeScale(mat2d_fp32* m, vec_fp32* scale);
    // As above, and maxAbs[r] = the row's largest magnitude.
    void quantizeScale(mat2d_fp32* m, vec_fp32* scale, vec_fp32* maxAbs);
    // q[r][c] = floor((trunc(2*scale[r]*m[r][c]) + 1) / 2) in 16-bit
    // arithmetic, low byte stored; only the first 8*floor(cols/8) columns are
    // written. Positive halves round up, negative ones toward zero: the
    // asymmetry is part of the table format and must stay.
    void quantize(mat2d_fp32* m, vec_fp32* scale, mat2d_uint8* q);
    // out[i] = 1 / (a[i] * b[i]): turns a product of two quantized values
    // back into the product of the floats.
    void dequantizeScale(vec_fp32* a, vec_fp32* b, vec_fp32* out, int i);
    // out[row][c] = float(acc[row][c]) * factor[row], first 4*floor(cols/4).
    void dequantize(mat2d_int32* acc, vec_fp32* factor, mat2d_fp32* out, int row);
    // sum[i] += m[row][i] for i < sum->n.
    void ComplexAdd(mat2d_fp32* m, vec_fp32* sum, int row);
    void ComplexAdd(mat1d_fp32* m, vec_fp32* sum);
    // sum[i] = fma(m[row][i], w, sum[i]) for i < sum->n.
    void ComplexAddWithScale(mat2d_fp32* m, vec_fp32* sum, float w, int row);
    void ComplexAddWithScale(mat1d_fp32* m, vec_fp32* sum, float w);
    // Sum of squares of the first 4*floor(n/4) elements in four lanes
    // (fused multiply-adds), combined as (l0 + l1) + (l2 + l3); 0 for n < 4.
    float vec_power_fp32(float* x, unsigned n);
};

#endif
