// AKUDoaPickupV4: target mapping, the fractional-delay
// taps, the vector FIR against its reference, the frame path against a plain
// double-precision model, and silence without bands or window.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numeric>
#include <random>

#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/akudoapickupv4_p.h"
#include "AKUDoa/base/akufftwindow.h"
#include "support/akudoagrid.h"

// White-box access to the pickup's private record.
struct AKUDoaPickupV4Access {
    static AKUDoaPickupV4Private* d(AKUDoaPickupV4& p) { return p.d; }
};

namespace {

constexpr double kPi = 3.14159265358979323846;

// The symmetric Hann window, the kernel's pickup default.
std::vector<float> hann(int n)
{
    AKUFFTWindow w(n, FFT_WINDOW_HANN, 0, 0, 0);
    return std::vector<float>(w.data()->data, w.data()->data + n);
}

// Output of a fresh pickup (Hann window of `win` samples, target (r, c))
// over an array-ordered recording of whole frames.
std::vector<float> listen(StCamCfg& cfg, AKUDoaFreqBands& bands, const mat2d_fp32* rec, int r, int c, int win)
{
    const int n = cfg.frameSize;
    std::vector<float> w = hann(win), all(rec->cols);
    std::vector<float*> rows(rec->rows);
    AKUDoaPickupV4 p;
    p.initPickup(&cfg);
    p.updateFFTWin(w.data(), win);
    p.initTargetPoint(r, c);
    for (int f = 0; f + n <= rec->cols; f += n) {
        for (int m = 0; m < rec->rows; ++m)
            rows[m] = rec->data[m] + f;
        mat2d_fp32 frame{rec->rows, n, rows.data()};
        vec_fp32 out{n, all.data() + f};
        p.executePickup(&frame, bands, &out);
    }
    return all;
}

double energy(const std::vector<float>& x, size_t from) { return std::inner_product(x.begin() + from, x.end(), x.begin() + from, 0.0); }

} // namespace

TEST(PickupV4, TargetMapping)
{
    // Whole samples per metre: 96000 / 340 is 282, not 282.35.
    StCamCfg cfg = akugrid_camera(8, 8, 6, 64);
    for (auto [rate, spm] : {std::pair<int, float>{48000, 141.f}, {44100, 129.f}, {96000, 282.f}}) {
        cfg.sampleFrequency = rate;
        AKUDoaPickupV4 r; // initPickup allocates afresh: once per object
        r.initPickup(&cfg);
        EXPECT_EQ(AKUDoaPickupV4Access::d(r)->micReach->data[3], cfg.micRadius[3] * spm) << rate;
    }
    AKUDoaPickupV4 p;
    p.initPickup(&cfg);
    AKUDoaPickupV4Private* d = AKUDoaPickupV4Access::d(p);
    EXPECT_TRUE(d->targetRow == 4 && d->targetCol == 3); // the centre, unmapped
    const struct { int mode, row, col, er, ec; } cases[] = {
        {0, 2, 5, 2, 5}, {1, 2, 5, 6, 1}, {2, 2, 5, 2, 1}, {3, 2, 5, 6, 5}, {1, 8, 6, 0, 0}, {1, 0, 0, 8, 6},
        {7, 1, 1, 0, 1},                                                  // unknown mode keeps the stored target
        {1, -1, 2, 4, 3}, {1, 9, 2, 4, 3}, {2, 3, -1, 4, 3}, {3, 3, 7, 4, 3}, // outside: the centre, unmapped
    };
    for (const auto& c : cases) {
        cfg.rotateMode = 0;
        p.initTargetPoint(0, 1);
        cfg.rotateMode = c.mode;
        p.initTargetPoint(c.row, c.col);
        EXPECT_TRUE(d->targetRow == c.er && d->targetCol == c.ec) << "mode " << c.mode << " (" << c.row << "," << c.col << ") gives " << d->targetRow << "," << d->targetCol;
    }
}

TEST(PickupV4, SincTapsAndVectorFir)
{
    // 24 taps of a delay d: raised-cosine windowed sinc centred on 11 + d,
    // stored reversed; whole-sample delays take the limit 1 at the centre.
    std::vector<float> ds = {0.25f, -3.6f, 7.5f, 0.999f, 0.f, -2.f};
    vec_fp32 delays{6, ds.data()};
    mat2d_fp32* taps = create_mat2d_fp32(6, 24);
    AKUDoaPickupV4Private::fir_sinctap_param_create(&delays, taps);
    for (int m = 0; m < 6; ++m)
        for (int t = 0; t < 24; ++t) {
            const double x = double(t) - ds[m] + 1.0, s = (x - 12.0) * kPi;
            EXPECT_NEAR(taps->data[m][23 - t], (0.54 - 0.46 * std::cos((x + 0.5) * 2 * kPi / 24.0)) * (s == 0.0 ? 1.0 : std::sin(s) / s), 2e-6) << ds[m] << " t " << t;
        }
    destroy_mat2d_fp32(taps);

    // Four fused lanes per output in the same order: bit-identical; 37 leaves a scalar tail.
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-1.f, 1.f);
    for (int nOut : {4, 37, 256}) {
        std::vector<float> h(8 * (nOut + 23)), t(8 * 24), a(nOut), b(nOut);
        std::vector<float*> hp, tp;
        for (std::vector<float>* v : {&h, &t, &a})
            for (float& x : *v)
                x = u(rng);
        for (int m = 0; m < 8; ++m)
            hp.push_back(&h[m * (nOut + 23)]), tp.push_back(&t[m * 24]);
        b = a;
        akudoa_pickup_fir_sum(hp.data(), tp.data(), 8, nOut, a.data());
        akudoa_pickup_fir_sum_ref(hp.data(), tp.data(), 8, nOut, b.data());
        EXPECT_EQ(a, b) << "n_out " << nOut;
    }
}

// Plain double-precision model of the frame path: FIR delay-and-sum over the
// carried history, the current and half-overlapped blocks windowed, the bin
// mask weighted by the window, inverse DFT, half-overlap add, output scale.
TEST(PickupV4, FramePathMatchesPlainModel)
{
    const int n = 64, mics = 8;
    StCamCfg cfg = akugrid_camera(mics, 8, 6, n);
    AKUDoaFreqBands bands(n, 96000);
    bands.updateBands({{15000, 30000, 1}, {40000, 41000, 1}});
    const std::vector<float> w = hann(n);
    AKUDoaPickupV4 p; // the taps of target (1, 5)
    p.initPickup(&cfg);
    p.initTargetPoint(1, 5);
    float* const* taps = AKUDoaPickupV4Access::d(p)->taps->data;
    auto filtered = [&](const std::vector<double>& x) {
        std::vector<double> out(n, 0.0);
        for (const doaFreqInfo& f : bands.data()) {
            std::complex<double> X = 0;
            for (int i = 0; i < n; ++i)
                X += x[i] * w[i] * std::polar(1.0, -2 * kPi * f.bin * i / n);
            for (int i = 0; i < n; ++i) // real inverse: DC and Nyquist once, the others with their mirror
                out[i] += (f.bin == 0 || 2 * f.bin == n ? 1.0 : 2.0) * (X * double(w[f.bin]) * std::polar(1.0, 2 * kPi * f.bin * i / n)).real();
        }
        return out;
    };
    std::vector<double> prevSum(n), prevOut(n);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-1.f, 1.f);
    mat2d_fp32* rec = create_mat2d_fp32(mics, 5 * n);
    for (int m = 0; m < mics; ++m)
        std::generate(rec->data[m], rec->data[m] + 5 * n, [&] { return u(rng); });
    const std::vector<float> got = listen(cfg, bands, rec, 1, 5, n);
    for (int f = 0; f < 5; ++f) {
        std::vector<double> sum(n, 0.0), half(n), want(n);
        for (int m = 0; m < mics; ++m) // over the 23 samples carried from the previous frame (zeros at first)
            for (int i = 0; i < n; ++i)
                for (int k = 0, t = f * n + i - 23; k < 24; ++k, ++t)
                    sum[i] += t < 0 ? 0.0 : rec->data[m][t] * taps[m][k];
        for (int i = 0; i < n / 2; ++i)
            half[i] = prevSum[n / 2 + i], half[n / 2 + i] = sum[i];
        const std::vector<double> o0 = filtered(sum), o1 = filtered(half);
        double peak = 0;
        for (int i = 0; i < n; ++i) {
            want[i] = (i < n / 2 ? prevOut[n / 2 + i] + o1[i] : o1[i] + o0[i - n / 2]) * 4.0 / (n * std::sqrt(double(mics)));
            peak = std::max(peak, std::fabs(want[i]));
        }
        ASSERT_GT(peak, 1e-3);
        for (int i = 0; i < n; ++i)
            ASSERT_NEAR(got[f * n + i], want[i], 2e-5 * peak + 1e-6) << "frame " << f << " sample " << i;
        prevSum = sum, prevOut = o0;
    }
    destroy_mat2d_fp32(rec);
}

// Silence: an empty band list (unless the full band is asked for) and a
// window of the wrong length (the window starts all zero).
TEST(PickupV4, SilentWithoutBandsOrWindow)
{
    StCamCfg cfg = akugrid_camera(16, 8, 6, 256);
    AkuSimSource src = akugrid_far_source(cfg, 4, 3, 7);
    src.lowHz = 1000, src.highHz = 45000;
    mat2d_fp32* rec = akusim_frame(akusim_array_from_cfg(cfg), {src}, 96000, 256 * 6);
    AKUDoaFreqBands empty(256, 96000);
    empty.updateBands({});
    const struct { bool full; int windowLength; bool silent; } cases[] = {{false, 256, true}, {true, 256, false}, {true, 255, true}};
    for (const auto& c : cases) {
        cfg.pickupFullBand = c.full;
        const double e = energy(listen(cfg, empty, rec, 4, 3, c.windowLength), 512);
        EXPECT_TRUE(c.silent ? e == 0.0 : e > 1.0) << "full band " << c.full << " window " << c.windowLength << " energy " << e;
    }
    destroy_mat2d_fp32(rec);
}
