#include "support/akudoasim.h"

#include <cmath>
#include <complex>
#include <random>

namespace {
constexpr double kPi = 3.14159265358979323846;

double wrapPi(double a)
{
    while (a > kPi)
        a -= 2.0 * kPi;
    while (a < -kPi)
        a += 2.0 * kPi;
    return a;
}
} // namespace

AkuSimArray akusim_array_from_cfg(const StCamCfg& cfg)
{
    AkuSimArray a;
    for (int m = 0; m < cfg.channelNum; ++m)
        a.x.push_back(static_cast<double>(cfg.micRadius[m]) * std::cos(static_cast<double>(cfg.micPhi[m]))),
            a.y.push_back(static_cast<double>(cfg.micRadius[m]) * std::sin(static_cast<double>(cfg.micPhi[m]))), a.z.push_back(0.0);
    return a;
}

bool akusim_fill_layout(StCamCfg& cfg, int micCount)
{
    static const int idx48[48] = {0,  2,  4,  6,  8,  10, 12, 14, 19, 25, 29, 34, 36, 38, 40, 42,
                                  45, 47, 49, 53, 58, 62, 66, 68, 70, 73, 75, 77, 79, 81, 83, 85,
                                  88, 90, 94, 98, 100, 103, 105, 107, 109, 111, 113, 115, 118, 120, 123, 126};
    static const int idx36[36] = {3,  6,  12, 15, 19, 22, 25, 28, 31, 33, 36, 39, 42, 45, 48, 50, 70, 73,
                                  76, 78, 81, 84, 87, 90, 92, 95, 98, 101, 104, 106, 109, 112, 115, 118, 119, 124};
    if (micCount != 8 && micCount != 16 && micCount != 36 && micCount != 48 && micCount != 64 && micCount != 128)
        return false;
    cfg.channelNum = micCount;
    for (int i = 0; i < micCount; ++i) {
        // Rings of 8 (0.025 m) and 16 (0.06 m); otherwise the seven rings of
        // 17 plus an inner ring of 9, or a subset of them.
        const int c = micCount == 64 ? 2 * i : micCount == 48 ? idx48[i] : micCount == 36 ? idx36[i] : i;
        const int k = c / 17, j = c % 17;
        cfg.micIndex[i] = c;
        cfg.micRadius[i] = static_cast<float>(micCount <= 16 ? (micCount == 8 ? 0.025 : 0.06) : c < 119 ? 0.0171 + 0.0071 * k : 0.01);
        cfg.micPhi[i] = static_cast<float>(wrapPi(micCount <= 16 ? i * 2.0 * kPi / micCount
                                                  : c < 119 ? (k * 360.0 / 7.0 + j * 360.0 / 17.0) * kPi / 180.0
                                                            : (80.0 + 40.0 * (c - 119)) * kPi / 180.0));
    }
    return true;
}

mat2d_fp32* akusim_frame(const AkuSimArray& array, const std::vector<AkuSimSource>& sources, int sampleRate, int frameSize)
{
    const int M = array.count(), N = frameSize, K = N / 2 + 1;
    // Spectrum of every microphone, accumulated over the sources.
    std::vector<std::vector<std::complex<double>>> X(static_cast<size_t>(M), std::vector<std::complex<double>>(static_cast<size_t>(K)));
    for (const AkuSimSource& s : sources) {
        std::mt19937 rng(s.seed);
        std::uniform_real_distribution<double> phase(-kPi, kPi);
        std::vector<std::complex<double>> S(static_cast<size_t>(K));
        for (int k = 1; k < K - 1; ++k) {
            const double f = static_cast<double>(k) * sampleRate / N;
            const double ph = phase(rng); // drawn for every bin: the band does not shift the sequence
            if (f >= s.lowHz && f <= s.highHz)
                S[k] = std::polar(s.amplitude, ph);
        }
        const double n = s.pointSource ? 1.0 : std::sqrt(s.x * s.x + s.y * s.y + s.z * s.z);
        const double ux = s.x / n, uy = s.y / n, uz = s.z / n;
        for (int m = 0; m < M; ++m) {
            const double dx = array.x[m] - s.x, dy = array.y[m] - s.y, dz = array.z[m] - s.z;
            const double r = std::sqrt(dx * dx + dy * dy + dz * dz);
            // A microphone further along a plane wave's arrival direction
            // hears it earlier; a point source spreads as 1/r.
            const double tau = s.pointSource ? r / kAkuSimSoundSpeed : -(array.x[m] * ux + array.y[m] * uy + array.z[m] * uz) / kAkuSimSoundSpeed;
            const double gain = s.pointSource ? 1.0 / r : 1.0;
            for (int k = 1; k < K - 1; ++k)
                if (S[k] != 0.0)
                    X[m][k] += S[k] * gain * std::polar(1.0, -2.0 * kPi * k * sampleRate / N * tau);
        }
    }
    // Real inverse DFT: x[n] = (1/N) * sum over k of 2 Re(X[k] e^{j 2 pi k n / N}).
    std::vector<double> c(static_cast<size_t>(N)), sn(static_cast<size_t>(N));
    for (int i = 0; i < N; ++i)
        c[i] = std::cos(2.0 * kPi * i / N), sn[i] = std::sin(2.0 * kPi * i / N);
    mat2d_fp32* frame = create_mat2d_fp32(M, N);
    for (int m = 0; m < M; ++m) {
        std::vector<int> active;
        for (int k = 1; k < K - 1; ++k)
            if (X[m][k] != 0.0)
                active.push_back(k);
        for (int n = 0; n < N; ++n) {
            double acc = 0.0;
            for (int k : active) {
                const int i = static_cast<int>((static_cast<long>(k) * n) % N);
                acc += X[m][k].real() * c[i] - X[m][k].imag() * sn[i];
            }
            frame->data[m][n] = static_cast<float>(2.0 * acc / N);
        }
    }
    return frame;
}
