#ifndef AKUDOA_AKUDOADISTANCE_H
#define AKUDOA_AKUDOADISTANCE_H

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoamatrix.h"

struct AKUDoaDistancePrivate;

// Distance to a sound source by a near-field focus sweep.
//
// initDistance precomputes, for every pixel of a small measurement grid
// around the image centre, every candidate distance (0.10 m to 2.65 m in
// 1 cm steps) and every microphone, the phase k * (|P - mic| - |P|) of the
// focal point P relative to its own path to the array centre
// (k = 2 pi * 96000 / (N * 340) rad per metre and bin; the 96 kHz and the
// 340 m/s are part of the model whatever the configured sample rate). A
// candidate distance is the depth of P: P = d * (tan row, tan col, 1), so an
// off-axis source is reported at its distance from the array plane, as the
// imaging engines' focus distance is.
// Why relative: the common part |P| cancels in the power of a single phasor,
// but the averaged weights below are the mean of two phasors t apart, whose
// magnitude |cos(t/2)| on the absolute path damped every candidate's power by
// cos^2(0.87 d) (zero near 1.8 m) and pulled the sweep toward short
// candidates whatever the source did. On the relative path t is at most
// about 0.1 rad and the mean keeps its magnitude at every candidate.
// executeDoa then beamforms the engine's per-bin spectra (the layout of
// getFFTMean: [re, -im, im, re] of the M channels) toward the target pixel at
// 16 candidates 16 cm apart, and again at the 16 candidates around the best
// of them, and reports the candidate with the largest summed power.
//
// Target mapping. The target is a heat-map pixel (x = row, y = column) as the
// caller sees the map, i.e. after the engine's rotate_mode copy. It is first
// brought back to the engine's own pixel (i, j), which is the inverse of that
// copy (each mode is its own inverse):
//   mode 1: i = NR-1-x, j = NC-1-y     mode 2: i = x,      j = NC-1-y
//   mode 3: i = NR-1-x, j = y          mode 0 and any other: i = x, j = y
// (for modes outside 0..3 the engine leaves the map alone; the raw engine
// orientation is used then). Engine pixel (i, j) looks along the offsets
// oi = i + 0.5 - NR/2 and oj = j + 0.5 - NC/2 (in pixel pitches of 2/NR),
// measurement cell (r, c) along r - 1 - R/2 and c - C/2 (pitches of
// 2/max(NR, NC), R x C the measurement grid; the extra row offset is part of
// the table). The target therefore uses the cell
//   r = round(oi * g + 1 + R/2),  c = round(oj * g + C/2),  g = max(NR, NC)/NR,
// halves rounded up, which is the cell whose direction is nearest the
// direction the heat map shows at the pixel. Bound test: the target is
// measured only when 0 <= r < R and 0 <= c < C; otherwise `distance` is left
// untouched.
//
// Weights. Spectrum row b of the engine is FFT bin b, or the sum of bins 2b
// and 2b+1 with frequency averaging. Without averaging a microphone's weight
// is the single phasor of the bin, e^{j t b}; with averaging it is the mean of
// the phasors at 2b - 1 and 2b, the factors the planar engine steers those
// rows with (t = table phase of the microphone):
//   wr + j wi = e^{j t b}   or   0.5 (e^{j t (2b-1)} + e^{j t 2b}),
//   Re = sum(wr re - wi im), Im = sum(wr im + wi re).
// Both passes use the full complex weight: dropping the sine weight (cosine
// weights alone) mixes in the mirrored steering and biased averaged
// estimates by about a decimetre.
//
// Thread safety: one measurement at a time per object (the kernel holds its
// engine lock). executeDoa forks the OpenMP pool over the band entries.
class AKUDOA_EXPORT AKUDoaDistance {
public:
    AKUDoaDistance();
    ~AKUDoaDistance();
    AKUDoaDistance(const AKUDoaDistance&) = delete;
    AKUDoaDistance& operator=(const AKUDoaDistance&) = delete;

    // Euclidean distance in single precision (metres in, metres out).
    float posDistance(float x1, float y1, float z1, float x2, float y2, float z2);

    // Copies the settings and the geometry from cfg (not kept) and builds the
    // candidate list and the phase table. Call once; M must be a multiple of 4.
    void initDistance(StCamCfg* cfg);

    // spectra: the engine's getFFTMean matrix (bin rows of 4M floats), read
    // only. Writes the estimate in metres into `distance`; leaves it alone
    // before initDistance and for targets outside the measurement grid.
    void executeDoa(mat2d_fp32* spectra, AKUDoaFreqBands& bands, fpoint2d target, float& distance);

    // Sum of squares of the first 4 * floor(n / 4) values (four lanes, fused
    // multiply-add, combined (l0 + l1) + (l2 + l3)); 0 when n < 4.
    float vec_power_fp32(float* a, unsigned int n);

    // acc[i] += re^2 + im^2 + bias for i < acc->n, where re = m[row][i] and
    // im = m[row][m->cols / 2 + i].
    void ComplexAddCpx(mat2d_fp32* m, vec_fp32* acc, float bias, int row);

    // Coarse pass of spectrum row `row` toward measurement cell `pixel`
    // (r * C + c): clears the row of the coarse result table and fills the
    // candidates 7, 23, 39, ... (real part at i, imaginary part at C + i).
    void matRowDotFp32L1(mat2d_fp32* spectra, int pixel, int row);
    // Fine pass: the same into the fine result table for the candidates
    // first .. last - 1.
    void matRowDotFp32L2(mat2d_fp32* spectra, int pixel, int row, int first, int last);

private:
    // Measurement cell of a heat-map target (see the mapping above); false
    // when the target lies outside the grid or initDistance has not run.
    bool targetCell(fpoint2d target, int& row, int& col) const;

    friend class AKUDoaDistanceInspector; // white-box access for tests
    AKUDoaDistancePrivate* d;
};

#endif
