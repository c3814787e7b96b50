#include "AKUDoa/base/akufftwindow.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

// 2*pi .. 8*pi in double; the cosine-sum windows are evaluated in double
// and stored as float.
const double kPi2 = 6.283185307179586;
const double kPi4 = 12.566370614359172;
const double kPi6 = 18.84955592153876;
const double kPi8 = 25.132741228718345;
const double kPi = 3.141592653589793;
// 1/pi rounded to single precision, as the Bohman window has always used it.
const double kInvPiF = 0.31830987334251404;

}  // namespace

AKUFFTWindow::AKUFFTWindow(int length, FFTWindowType type, float p1, float p2, float p3)
    : m_windowType(type), m_window(create_vec_fp32(length)) {
    setWindowType(type, p1, p2, p3);
}

AKUFFTWindow::AKUFFTWindow(float* samples, int length)
    : m_windowType(FFT_WINDOW_CUSTOM), m_window(create_vec_fp32(length)) {
    if (length > 0 && m_window->data != nullptr)
        std::memcpy(m_window->data, samples, sizeof(float) * static_cast<size_t>(length));
}

AKUFFTWindow::AKUFFTWindow(vec_fp32* samples)
    : AKUFFTWindow(samples->data, samples->n) {}

AKUFFTWindow::~AKUFFTWindow() { destroy_vec_fp32(m_window); }

FFTWindowType AKUFFTWindow::windowType() const { return m_windowType; }

int AKUFFTWindow::winLength() const { return m_window->n; }

vec_fp32* AKUFFTWindow::data() const { return m_window; }

bool AKUFFTWindow::setWindowType(FFTWindowType type, float p1, float p2, float p3) {
    (void)p2;  // accepted for interface stability, used by no window
    m_windowType = type;
    const int n = m_window->n;
    float* w = m_window->data;
    if (n > 0) std::memset(w, 0, sizeof(float) * static_cast<size_t>(n));
    switch (type) {
        case FFT_WINDOW_BARTLETT: return creatBartlettWin(n, w);
        case FFT_WINDOW_BARTLETT_HANN: return creatBartLettHannWin(n, w);
        case FFT_WINDOW_BLACKMAN: return creatBlackManWin(n, w);
        case FFT_WINDOW_BLACKMAN_HARRIS: return creatBlackManHarrisWin(n, w);
        case FFT_WINDOW_BOHMAN: return creatBohmanWin(n, w);
        case FFT_WINDOW_CHEBYSHEV: return creatChebyshevWin(n, p3, w);
        case FFT_WINDOW_FLAT_TOP: return creatFlatTopWin(n, w);
        case FFT_WINDOW_GAUSSIAN: return creatGaussianWin(n, p1, w);
        case FFT_WINDOW_HAMMING: return creatHammingWin(n, w);
        case FFT_WINDOW_HANN: return creatHannWin(n, w);
        case FFT_WINDOW_NUTTALL: return creatNuttalWin(n, w);
        case FFT_WINDOW_PARZEN: return creatParzenWin(n, w);
        case FFT_WINDOW_TRIANGULAR: return creatTriangularWin(n, w);
        case FFT_WINDOW_TUKEY: return creatTukeyWin(n, p3, w);
        default: return creatRectangularWin(n, w);
    }
}

bool AKUFFTWindow::linSpace(float a, float b, int n, float* out) {
    const float step = (b - a) / static_cast<float>(n - 1);
    for (int i = 0; i < n; ++i) out[i] = std::fmaf(static_cast<float>(i), step, a);
    return true;
}

bool AKUFFTWindow::creatRectangularWin(int N, float* out) {
    for (int i = 0; i < N; ++i) out[i] = 1.0f;
    return true;
}

bool AKUFFTWindow::creatBartlettWin(int N, float* out) {
    const int M = N - 1;
    const int h = M / 2;
    const float fM = static_cast<float>(M);
    for (int i = 0; i < N; ++i) {
        const float r = 2.0f * static_cast<float>(i) / fM;
        // For even N the split sits before the true centre; sample h then
        // exceeds 1. Kept on purpose.
        out[i] = (i < h) ? r : 2.0f - r;
    }
    return true;
}

bool AKUFFTWindow::creatTriangularWin(int N, float* out) {
    if (N <= 0) return true;
    const float np1 = static_cast<float>(N + 1);
    if (N % 2 == 1) {
        const int h = (N - 1) / 2;
        for (int k = 1; k <= h; ++k) out[k - 1] = 2.0f * static_cast<float>(k) / np1;
        for (int i = h; i < N; ++i) out[i] = 2.0f * static_cast<float>(N - i) / np1;
    } else {
        const int h = N / 2;
        const float fN = static_cast<float>(N);
        for (int k = 0; k < h; ++k) out[k] = static_cast<float>(2 * k + 1) / fN;
        for (int i = h; i < N; ++i) out[i] = out[N - 1 - i];
    }
    return true;
}

bool AKUFFTWindow::creatBartLettHannWin(int N, float* out) {
    if (N <= 0) return true;
    const int M = N - 1;
    const float fM = static_cast<float>(M);
    for (int i = 0; i < N; ++i) {
        const float x = static_cast<float>(i) / fM - 0.5f;
        const double xd = x;
        out[i] = static_cast<float>(0.62 - 0.48 * std::fabs(xd) + 0.38 * std::cos(kPi2 * xd));
    }
    // The second half is the reference; the first is its mirror so that the
    // window is exactly symmetric.
    const int c = (N % 2 == 1) ? M / 2 : N / 2;
    for (int k = 0; k < c; ++k) out[k] = out[N - 1 - k];
    return true;
}

bool AKUFFTWindow::creatHannWin(int N, float* out) {
    const double M = N - 1;
    for (int i = 0; i < N; ++i) {
        const double x = static_cast<float>(i);
        out[i] = static_cast<float>(0.5 * (1.0 - std::cos(kPi2 * x / M)));
    }
    return true;
}

bool AKUFFTWindow::creatHammingWin(int N, float* out) {
    const double M = N - 1;
    for (int i = 0; i < N; ++i) {
        const double x = static_cast<float>(i);
        out[i] = static_cast<float>(0.54 - 0.46 * std::cos(kPi2 * x / M));
    }
    return true;
}

bool AKUFFTWindow::creatBlackManWin(int N, float* out) {
    const double M = N - 1;
    for (int i = 0; i < N; ++i) {
        const double x = static_cast<float>(i);
        out[i] = static_cast<float>(0.42 - 0.5 * std::cos(kPi2 * x / M) + 0.08 * std::cos(kPi4 * x / M));
    }
    return true;
}

bool AKUFFTWindow::creatNuttalWin(int N, float* out) {
    const double M = N - 1;
    for (int i = 0; i < N; ++i) {
        const double x = static_cast<float>(i);
        out[i] = static_cast<float>(0.3635819 - 0.4891775 * std::cos(kPi2 * x / M) +
                                    0.1365995 * std::cos(kPi4 * x / M) -
                                    0.0106411 * std::cos(kPi6 * x / M));
    }
    return true;
}

bool AKUFFTWindow::creatFlatTopWin(int N, float* out) {
    const double M = N - 1;
    for (int i = 0; i < N; ++i) {
        const double x = static_cast<float>(i);
        out[i] = static_cast<float>(0.215578995 - 0.41663158 * std::cos(kPi2 * x / M) +
                                    0.277263158 * std::cos(kPi4 * x / M) -
                                    0.083578947 * std::cos(kPi6 * x / M) +
                                    0.006947368 * std::cos(kPi8 * x / M));
    }
    return true;
}

bool AKUFFTWindow::creatBlackManHarrisWin(int N, float* out) {
    // Periodic: the divisor is N, so the spectrum of a block repeats cleanly.
    const double D = N;
    for (int i = 0; i < N; ++i) {
        const double x = static_cast<float>(i);
        out[i] = static_cast<float>(0.35875 - 0.48829 * std::cos(kPi2 * x / D) +
                                    0.14128 * std::cos(kPi4 * x / D) -
                                    0.01168 * std::cos(kPi6 * x / D));
    }
    return true;
}

bool AKUFFTWindow::creatBohmanWin(int N, float* out) {
    const float fM = static_cast<float>(N - 1);
    for (int i = 0; i < N; ++i) {
        const float x = 2.0f * static_cast<float>(i) / fM - 1.0f;
        const double a = std::fabs(x);
        const double s = std::sin(kPi * a);
        const double c = std::cos(kPi * a);
        out[i] = static_cast<float>((1.0 - a) * c + s * kInvPiF);
    }
    return true;
}

bool AKUFFTWindow::creatGaussianWin(int N, float alpha, float* out) {
    const int M = N - 1;
    // Even N: centred on sample N/2 rather than between the two middle
    // samples (kept for compatibility).
    const int centre = (N % 2 == 1) ? M / 2 : N / 2;
    const float scale = 2.0f * alpha;
    const float fM = static_cast<float>(M);
    for (int i = 0; i < N; ++i) {
        const float x = static_cast<float>(i - centre) * scale / fM;
        out[i] = std::exp(-0.5f * (x * x));
    }
    return true;
}

bool AKUFFTWindow::creatParzenWin(int N, float* out) {
    if (N <= 0) return true;
    const int M = N - 1;
    const float T = (N % 2 == 1) ? static_cast<float>(M >> 2) : 0.25f * static_cast<float>(M);
    const double dN = N;
    int n = -(M / 2);  // even N: -(N/2 - 1) .. N/2, asymmetric on purpose
    for (int i = 0; i < N; ++i, ++n) {
        const float a = static_cast<float>(std::abs(n));
        const double x = 2.0 * static_cast<double>(a) / dN;
        double w;
        if (a <= T) {
            w = 1.0 - 6.0 * x * x + 6.0 * x * x * x;
        } else {
            const double r = 1.0 - x;
            w = 2.0 * r * r * r;
        }
        out[i] = static_cast<float>(w);
    }
    return true;
}

bool AKUFFTWindow::creatTukeyWin(int N, float ratio, float* out) {
    if (N <= 0) return true;
    const size_t bytes = sizeof(float) * static_cast<size_t>(N);
    float* t = static_cast<float*>(std::malloc(bytes));
    if (t == nullptr) return false;
    linSpace(0.0f, 1.0f, N, t);

    if (ratio <= 0.0f || ratio >= 1.0f) {
        float* tmp = static_cast<float*>(std::malloc(bytes));
        if (tmp == nullptr) {
            std::free(t);
            return false;
        }
        if (ratio <= 0.0f)
            creatRectangularWin(N, tmp);
        else
            creatHannWin(N, tmp);
        std::memcpy(out, tmp, bytes);
        std::free(tmp);
        std::free(t);
        return true;
    }

    const float h = ratio * 0.5f;
    const double r = ratio;
    for (int i = 0; i < N; ++i) {
        const float u = t[i];
        if (u < h) {
            out[i] = 0.5f * static_cast<float>(std::cos(kPi2 * static_cast<double>(u - h) / r) + 1.0);
        } else if (u < 1.0f - h) {
            out[i] = 1.0f;
        } else {
            out[i] = 0.5f * static_cast<float>(std::cos(kPi2 * static_cast<double>(u - 1.0f + h) / r) + 1.0);
        }
    }
    std::free(t);
    return true;
}

bool AKUFFTWindow::creatChebyshevWin(int N, float attenuationDb, float* out) {
    if (N <= 0) return true;
    // The series needs at least one computed sample besides w[0] to
    // normalise by; shorter windows would come out as infinities.
    if (N <= 2) return false;
    const int M = N - 1;
    const float fM = static_cast<float>(M);
    const float x0 = std::cosh(std::acosh(std::pow(10.0f, std::fabs(attenuationDb) / 20.0f)) / fM);
    const float q = 1.0f - 1.0f / (x0 * x0);
    const float c = fM * q;
    const int h = (N + 1) / 2;

    out[1] = c;  // h >= 2 for N >= 3
    for (int k = 2; k < h; ++k) {
        float s = 1.0f;
        for (int j = 1; j < k; ++j) {
            const float num = static_cast<float>(j) * static_cast<float>(M - 2 * k + j);
            const float den = static_cast<float>((k + 1 - j) * (k - j));
            s = std::fmaf(q * s, num / den, 1.0f);
        }
        out[k] = c * s;
    }
    // Normalise by the centre sample (w[h-1]) so that it becomes exactly 1.
    const float z = out[h - 1];
    out[0] = 1.0f;
    for (int k = 0; k < h; ++k) out[k] /= z;
    for (int i = h; i < N; ++i) out[i] = out[N - 1 - i];
    return true;
}
