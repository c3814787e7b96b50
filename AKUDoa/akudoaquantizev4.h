#ifndef AKUDOA_AKUDOAQUANTIZEV4_H
#define AKUDOA_AKUDOAQUANTIZEV4_H

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/iakudoaquantize.h"

struct AKUDoaQuantizeV4Private;

// Planar imaging engine of programs 4 and 54 (spatial-FFT gridding).
//
// For every bin of the band list each microphone's spectrum value is spread
// with a separable 9 x 9 Gaussian kernel onto a G x G grid of spatial
// frequencies, at the point where the microphone's position scaled by the
// bin's frequency falls; one 2-D FFT of the grid gives the beam of every
// direction at once, and a Gaussian deconvolution reads the image out of it.
// G = max(rows, cols) + 2. No steering tables are stored or cached: the
// gridding tables are computed at every doaInit.
//
// Not thread safe: the kernel serialises every call under its engine lock.
// Inside a call bins run on the OpenMP pool; per-bin images are summed in
// band order, so the heat map of a frame does not depend on the thread count.
class AKUDOA_EXPORT AKUDoaQuantizeV4 : public IAKUDoaQuantize {
public:
    AKUDoaQuantizeV4();
    ~AKUDoaQuantizeV4() override;
    AKUDoaQuantizeV4(const AKUDoaQuantizeV4&) = delete;
    AKUDoaQuantizeV4& operator=(const AKUDoaQuantizeV4&) = delete;

    // Sizes, buffers, FFT plans (made on the calling thread), gridding tables
    // and focus phases. Called once per object.
    void doaInit(StCamCfg* cfg) override;
    void updateFFTWin(float* window, int length) override;
    void executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap) override;
    // spectrum[n-1-k] = |X_channel[k]|^2 for k < n = spectrum->n (at most N):
    // the highest requested bin comes first. A channel outside 0..M-1 leaves
    // it untouched.
    void powerSpec(vec_fp32* spectrum, int channel) override;
    // true: keep the microphones' self terms in the pixel power.
    void setSpectrumSelf(bool on) override;
    // Stored only: this engine always images the whole grid.
    void setFocusRadiusMode(bool on) override;
    // B x 4M spectra of the last frame as real 2 x 2 blocks:
    // [Re X_m], [-Im X_m], [Im X_m], [Re X_m]. A frame builds only its
    // band's rows; the first call after it builds the others, so ask again
    // after each frame rather than keep the rows.
    mat2d_fp32* getFFTMean() override;
    void findTargetFreqRange(fpoint2d target, AKUDoaFreqBands& bands, int& lowFreq, int& highFreq,
                             float& power) override;
    float getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands) override;
    bool pickupTargetForCell(int row, int col, int& pickupRow, int& pickupCol) const override;

    // Recomputes the focus phases from cfg->focusDistance; does nothing while
    // focusDistanceEn is off (the raw spectra are then gridded).
    void focusDisUpdate();
    // Gridding tables: nearest grid node, cell weight and the nine kernel
    // weights per axis of every microphone at every bin, and the
    // deconvolution factors.
    void createQuantizeParam();
    // Focus phases (same as focusDisUpdate).
    void createFocusDisParam();
    // First stage of executeDOA: window, channel FFTs, per-bin spectra and
    // their real block form.
    void executeFFT(mat2d_fp32* frame);

    // Engine state for tests and tools; the record is private to the library.
    AKUDoaQuantizeV4Private* privateData() const { return d; }

private:
    AKUDoaQuantizeV4Private* d;
};

#endif
