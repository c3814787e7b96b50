#ifndef AKUDOA_AKUDOAQUANTIZEV3_H
#define AKUDOA_AKUDOAQUANTIZEV3_H

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/iakudoaquantize.h"

struct AKUDoaQuantizeV3Private;

// Planar imaging engine of programs 3 and 53.
//
// For every FFT bin and image pixel it keeps the phase of a plane wave (far
// field) or of a spherical wave from a point at the focus distance (near
// field) at each microphone, as int8 cosines and sines with one scale per
// bin (steering table, B x 2*M*P bytes). Each frame the channel spectra are
// quantized the same way and every pixel's beam sum is an int8 dot product.
//
// Not thread safe: the kernel serialises every call under its engine lock.
// Inside a call the work runs on the OpenMP pool; the heat map of a frame
// does not depend on the number of threads.
class AKUDOA_EXPORT AKUDoaQuantizeV3 : public IAKUDoaQuantize {
public:
    AKUDoaQuantizeV3();
    ~AKUDoaQuantizeV3() override;
    AKUDoaQuantizeV3(const AKUDoaQuantizeV3&) = delete;
    AKUDoaQuantizeV3& operator=(const AKUDoaQuantizeV3&) = delete;

    void doaInit(StCamCfg* cfg) override;
    void updateFFTWin(float* window, int length) override;
    void executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap) override;
    // spectrum[n-1-i] = |X_channel[i]|^2 for i < n = spectrum->n: the highest
    // requested bin comes first. A channel outside 0..M-1 leaves it untouched.
    void powerSpec(vec_fp32* spectrum, int channel) override;
    // true: keep the microphones' self terms in the pixel power.
    void setSpectrumSelf(bool on) override;
    // true: image only the central square of pixels.
    void setFocusRadiusMode(bool on) override;
    // B x 4M spectra of the last frame in dot-product layout (not a mean).
    // A frame builds only its band's rows; the first call after it builds
    // the others, so ask again after each frame rather than keep the rows.
    mat2d_fp32* getFFTMean() override;
    void findTargetFreqRange(fpoint2d target, AKUDoaFreqBands& bands, int& lowFreq, int& highFreq,
                             float& power) override;
    float getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands) override;
    bool pickupTargetForCell(int row, int col, int& pickupRow, int& pickupCol) const override;

    // Loads the tables for the current focus settings from the cache, else
    // builds them (near field when focusDistanceEn is set). Returns the result
    // of the last step (a built table that could not be cached gives false
    // but is in use).
    bool focusDisUpdate();
    // Far-field table, then saveQuantizeParam(); returns its result.
    bool createQuantizeParam();
    // Near-field table for cfg->focusDistance, then saveQuantizeParam().
    bool createQuantizeFocusDisParam();
    // Cache pair of the current mode (see akudoaquantizeparam.h).
    bool saveQuantizeParam();
    bool loadQuantizeParam();

    // Euclidean distance, sqrt(fma(dz, dz, fma(dx, dx, dy * dy))).
    float posDistance(float x1, float y1, float z1, float x2, float y2, float z2);

    // First stage of executeDOA: window, FFT, per-bin spectra and their
    // quantization.
    void executeFFT(mat2d_fp32* frame);
    // int8 beam sums of table row `row` into out (real parts of all pixels,
    // then imaginary parts), scaled by factor[row].
    void matRowDotInt8(mat2d_uint8* fftQ, mat2d_uint8* steerQ, vec_fp32* factor, mat2d_fp32* out, int row);
    // Same for the central square of pixels only; the others keep their values.
    void matRowDotInt8WithRadius(mat2d_uint8* fftQ, mat2d_uint8* steerQ, vec_fp32* factor,
                                 mat2d_fp32* out, int row);
    // out[row][p] = fma(im, im, fma(re, re, offset)) for p < (in->cols / 8) * 4.
    void ComplexNormOffset(mat2d_fp32* in, mat2d_fp32* out, float offset, int row);

    // Engine state for tests and tools; the record is private to the library.
    AKUDoaQuantizeV3Private* privateData() const { return d; }

private:
    AKUDoaQuantizeV3Private* d;
};

#endif
