#ifndef AKUDOA_IAKUDOAQUANTIZE_P_H
#define AKUDOA_IAKUDOAQUANTIZE_P_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/base/akudoamatrix.h"

// Row-level forms of the quantization primitives. The matrix primitives of
// IAKUDoaQuantize and the steering-table builders share them, so a table
// built one bin row at a time has exactly the bytes of one quantized as a
// whole matrix.

// Largest magnitude over the first 4*floor(cols/4) elements; the first four
// are always read.
float akudoa_row_maxabs(const float* x, int cols);
// 127 / akudoa_row_maxabs(x, cols).
float akudoa_row_quant_scale(const float* x, int cols);
// Quantizes the first 8*floor(cols/8) elements with the table rounding rule.
void akudoa_row_quantize(const float* x, int cols, float scale, int8_t* q);

// Power spectrum of one channel as every engine's powerSpec reports it: the
// first n = min(spectrum->n, available) complex values x (interleaved re, im),
// written in reverse order, spectrum[n - 1 - i] = re_i^2 + im_i^2.
void akudoa_reverse_power_spectrum(const float* x, int available, vec_fp32* spectrum);

// Row b of a frame's spectrum matrix from M transformed channels (spectra[m]
// holds channel m's bins): re of every channel, then -im, im and re again,
// in blocks of M, the layout the beam sums read; with averaging the bins 2b
// and 2b + 1 summed. `pairs`, when not null, receives (re, im) per channel.
void akudoa_spectrum_row(const akudoa_fftwf_complex* const* spectra, int M, int b, bool average, float* row,
                         akudoa_fftwf_complex* pairs = nullptr);

// Sensitivity gain of table row b (1 beyond the configured table).
float akudoa_bin_gain(const StCamCfg* cfg, int b);

// heat[p] = fma(in[p], w, heat[p]) for p < P: one row of an image sum.
void akudoa_add_row(float* heat, int P, const float* in, float w);

// The image of a frame: over the table rows `rows`, in their order, heat[p]
// accumulates maps[b][p] times the row's gain (times 1 without a
// configuration; fma with 1 is the plain sum). Each pixel sums its rows in
// band order, so the image does not depend on which thread made which row.
// The sum is made while the rows are still being imaged: a row is added as
// soon as it and every row before it are finished, mostly by the thread
// that just made it, while its values are still in that core's cache, and
// alongside the other threads' table streaming rather than after it.
class AKUDoaOrderedSum {
public:
    // Clears heat (P values); rows and maps stay the caller's until the frame ends.
    AKUDoaOrderedSum(float* heat, int P, const std::vector<int>& rows, float* const* maps, const StCamCfg* cfg);
    // Row e of `rows` is finished: adds it and the finished rows after it,
    // unless another thread is adding (that thread then takes them).
    void finished(int e);

private:
    float* heat_;
    int P_;
    const std::vector<int>& rows_;
    float* const* maps_;
    const StCamCfg* cfg_;
    std::unique_ptr<std::atomic<bool>[]> done_;
    std::atomic<int> next_{0};
    std::atomic<bool> busy_{false};
};

// Spectrum rows a frame leaves for later. The imaging reads only its band's
// rows of the per-bin spectra, so a frame builds those and marks the rest
// (about 300 of 513 rows at the defaults); the first getFFTMean after it
// builds them from the channel transforms, which stay until the next frame.
// A frame whose spectra nobody asks for skips that work. The mutex keeps
// getFFTMean a call that several threads may make at once.
class AKUDoaPendingSpectra {
public:
    // After a frame imaged `rows` of B: every other row is pending.
    void leave(const std::vector<int>& rows, int B, bool average)
    {
        inBand_.assign(static_cast<size_t>(B), 0);
        for (int b : rows)
            inBand_[static_cast<size_t>(b)] = 1;
        pending_ = static_cast<int>(rows.size()) < B;
        average_ = average;
    }
    // After every row was built.
    void clear() { pending_ = false; }
    // Builds each pending row b with build(b, average), in parallel.
    template <class Build>
    void complete(Build build)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!pending_)
            return;
        const int B = static_cast<int>(inBand_.size());
#pragma omp parallel for schedule(static)
        for (int b = 0; b < B; ++b)
            if (!inBand_[static_cast<size_t>(b)])
                build(b, average_);
        pending_ = false;
    }

private:
    std::vector<char> inBand_; // B flags of the last frame
    bool pending_ = false;
    bool average_ = false; // the last frame's averaging switch
    std::mutex mutex_;
};

// One element of the rounding rule: s2 = 2 * scale. In range |s2 * x| is at
// most 254; a non-finite or huge product (a NaN or infinite sample, a zero
// row) gives 0 instead of an undefined float-to-int conversion.
static inline int8_t akudoa_quantize_one(float x, float s2)
{
    const float y = s2 * x;
    const int32_t t = y > -32768.0f && y < 32768.0f ? static_cast<int32_t>(y) : 0; // truncates toward zero
    const int16_t u = static_cast<int16_t>(t);
    const int16_t h = static_cast<int16_t>(static_cast<int16_t>(u + 1) >> 1);
    return static_cast<int8_t>(h);
}

#endif
