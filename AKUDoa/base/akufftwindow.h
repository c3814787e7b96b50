#ifndef AKUDOA_BASE_AKUFFTWINDOW_H
#define AKUDOA_BASE_AKUFFTWINDOW_H

// Analysis windows multiplied into each audio block before the FFT.
//
// Every generator is symmetric (it divides by N - 1) except the periodic
// Blackman-Harris one (divides by N). A few generators deliberately differ
// from the textbook form; they are kept as they are for compatibility with
// existing hosts:
//   - Bartlett, even N: the rising half ends one sample early, so sample
//     (N-1)/2 exceeds 1 (N = 4 gives 0, 4/3, 2/3, 0).
//   - Gaussian, even N: centred on sample N/2, one sample off the middle.
//   - Parzen, even N: integer offsets -(N/2-1) .. N/2, asymmetric.
//   - Flat top: constant term 0.215578995.
// Chebyshev is built from a closed-form series in single precision, not by
// an inverse FFT.

#include <cstdint>

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoamatrix.h"

enum FFTWindowType : int32_t {
    FFT_WINDOW_RECTANGULAR = 0,
    FFT_WINDOW_BARTLETT = 1,
    FFT_WINDOW_BARTLETT_HANN = 2,
    FFT_WINDOW_BLACKMAN = 3,
    FFT_WINDOW_BLACKMAN_HARRIS = 4,  // periodic
    FFT_WINDOW_BOHMAN = 5,
    FFT_WINDOW_CHEBYSHEV = 6,        // third parameter: side-lobe attenuation, dB
    FFT_WINDOW_FLAT_TOP = 7,
    FFT_WINDOW_GAUSSIAN = 8,         // first parameter: alpha
    FFT_WINDOW_HAMMING = 9,
    FFT_WINDOW_HANN = 10,
    FFT_WINDOW_NUTTALL = 11,
    FFT_WINDOW_PARZEN = 12,
    FFT_WINDOW_TRIANGULAR = 13,
    FFT_WINDOW_TUKEY = 14,           // third parameter: taper ratio, 0..1
    FFT_WINDOW_CUSTOM = 15           // samples supplied by the caller
};

// Owns one vec_fp32 of fixed length holding the window samples. Not thread
// safe: regenerate (setWindowType) only while nobody reads data().
class AKUDOA_EXPORT AKUFFTWindow {
public:
    // Any type outside 1..14 gives the rectangular window; the type is stored
    // as passed. The second parameter is accepted and used by no window.
    AKUFFTWindow(int length, FFTWindowType type, float p1, float p2, float p3);
    // Copies length samples; the type becomes FFT_WINDOW_CUSTOM.
    AKUFFTWindow(float* samples, int length);
    // Copies the vector's samples (the vector stays the caller's).
    explicit AKUFFTWindow(vec_fp32* samples);
    ~AKUFFTWindow();

    AKUFFTWindow(const AKUFFTWindow&) = delete;
    AKUFFTWindow& operator=(const AKUFFTWindow&) = delete;

    FFTWindowType windowType() const;
    int winLength() const;
    // The owned vector itself (not a copy); valid for the object's lifetime.
    vec_fp32* data() const;

    // Stores the type, zeroes all samples and regenerates them in place.
    // False only when the Tukey generator cannot allocate its scratch.
    bool setWindowType(FFTWindowType type, float p1, float p2, float p3);

    // Generators: write N samples into out and return true; N <= 0 writes
    // nothing. They do not depend on the object's state.
    static bool creatRectangularWin(int N, float* out);
    static bool creatBartlettWin(int N, float* out);
    static bool creatBartLettHannWin(int N, float* out);
    static bool creatBlackManWin(int N, float* out);
    static bool creatBlackManHarrisWin(int N, float* out);
    static bool creatBohmanWin(int N, float* out);
    // attenuationDb: side-lobe level below the main lobe (sign ignored).
    // N = 1 and N = 2 are rejected (false, nothing written): the series
    // normalises by a sample it never computes for them.
    static bool creatChebyshevWin(int N, float attenuationDb, float* out);
    static bool creatFlatTopWin(int N, float* out);
    static bool creatGaussianWin(int N, float alpha, float* out);
    static bool creatHammingWin(int N, float* out);
    static bool creatHannWin(int N, float* out);
    static bool creatNuttalWin(int N, float* out);
    static bool creatParzenWin(int N, float* out);
    static bool creatTriangularWin(int N, float* out);
    // ratio <= 0 gives rectangular, >= 1 gives Hann. False when the scratch
    // arrays cannot be allocated.
    static bool creatTukeyWin(int N, float ratio, float* out);

    // n evenly spaced values from a to b: out[i] = fma(i, step, a) with
    // step = (b - a) / (n - 1) in single precision. n = 1 gives NaN (0 * inf).
    static bool linSpace(float a, float b, int n, float* out);

private:
    FFTWindowType m_windowType;
    vec_fp32* m_window;
};

#endif
