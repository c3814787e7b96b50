#ifndef AKUDOA_AKUDOAEXTRA_H
#define AKUDOA_AKUDOAEXTRA_H

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/iakudoaquantize.h"

struct AKUDoaExtraPrivate;

// Extended (wide, coarse) view: half the configured image resolution in each
// direction (R' = rows / 2, C' = cols / 2), spanning +-90 degrees on both
// axes on a sine grid, focused on the plane 2 m in front of the array, and
// summed over every fifth FFT bin from 15 kHz up to (excluding) 40 kHz. The
// band list handed to executeDOA is not used.
//
// Data layout, quantization and per-row arithmetic are those of the planar
// V3 engine (the same code runs). Its own flags: self-spectrum on at
// construction, focus-radius mode off, frequency averaging always on (B =
// N/4 + 1 table rows). No target analysis: getFFTMean returns null,
// getPaWithTarget 0, findTargetFreqRange returns without writing.
//
// Thread safety: updateFFTWin may run on another thread while executeDOA is
// running (the window is copied under the engine's own lock at the start of
// a frame); every other call must be serialised by the caller.
class AKUDOA_EXPORT AKUDoaExtra : public IAKUDoaQuantize {
public:
    AKUDoaExtra();
    ~AKUDoaExtra() override;
    AKUDoaExtra(const AKUDoaExtra&) = delete;
    AKUDoaExtra& operator=(const AKUDoaExtra&) = delete;

    // Takes R', C', M, fs and N from cfg (kept, not owned), creates the
    // buffers and FFT plans and builds the steering table. The table is
    // always built, never loaded from the cache.
    void doaInit(StCamCfg* cfg) override;
    void updateFFTWin(float* window, int length) override;
    // heatMap is expected to be R' x C'; cells outside the engine's image
    // are left untouched.
    void executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap) override;
    // spectrum[n-1-i] = |X_channel[i]|^2 of the last frame (as V3).
    void powerSpec(vec_fp32* spectrum, int channel) override;
    void setSpectrumSelf(bool on) override;
    void setFocusRadiusMode(bool on) override;
    mat2d_fp32* getFFTMean() override;
    void findTargetFreqRange(fpoint2d target, AKUDoaFreqBands& bands, int& lowFreq, int& highFreq,
                             float& power) override;
    float getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands) override;

    // Builds the near-field steering table for the 2 m sine grid.
    void createQuantizeExtraParam();

    // Cache pair of the extended view, for the host application (the
    // library itself never calls them): "ExtraQuantizeScaleParam_v3..." and
    // "ExtraQuantizeParam_v3..." (with "_fodis_<distance>" when
    // focusDistanceEn is set), then _rows_C'_mics_angle_thetaXY_B.data, in
    // the cache directory. Same layout as the V3 pair; the files are written
    // to a temporary name and renamed, and a load accepts only files of
    // exactly the table's size. No free-space check on save.
    bool saveQuantizeParam();
    bool loadQuantizeParam();

    // Euclidean distance, sqrt(fma(dz, dz, fma(dx, dx, dy * dy))).
    float posDistance(float x1, float y1, float z1, float x2, float y2, float z2);

    // Engine state for tests and tools; the record is private to the library.
    AKUDoaExtraPrivate* privateData() const { return d; }

private:
    AKUDoaExtraPrivate* d;
};

#endif
