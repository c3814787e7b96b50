// AKUDoaPickupV4: documented edge cases, agreement of the vector FIR with its
// reference and of the whole frame path with a plain double-precision model,
// and physical truth with simulated plane waves on a ring array.
#include <gtest/gtest.h>

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/akudoapickupv4.h"
#include "AKUDoa/akudoapickupv4_p.h"
#include "AKUDoa/base/akudoamatrix.h"

// White-box access to the pickup's private record.
struct AKUDoaPickupV4Access {
    static AKUDoaPickupV4Private* d(AKUDoaPickupV4& p) { return p.d; }
};

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kSound = 340.0; // m/s, the speed the pickup assumes

// Symmetric Hann window (divides by N - 1), the kernel's pickup default.
std::vector<float> hann(int n)
{
    std::vector<float> w(n);
    for (int i = 0; i < n; ++i)
        w[i] = static_cast<float>(0.5 - 0.5 * std::cos(2.0 * kPi * i / (n - 1)));
    return w;
}

// Rings like the 128-microphone layout: rings of 17 at 0.0171 + 0.0071 k m
// and an inner ring of 9, keeping every second position (64 microphones).
void fillRingGeometry(StCamCfg& cfg, int mics)
{
    std::vector<double> phi, rad;
    for (int k = 0; k < 7; ++k)
        for (int j = 0; j < 17; ++j) {
            rad.push_back(0.0171 + 0.0071 * k);
            phi.push_back((k * 360.0 / 7 + j * 360.0 / 17) * kPi / 180.0);
        }
    for (int j = 0; j < 9; ++j) {
        rad.push_back(0.01);
        phi.push_back((80.0 + 40.0 * j) * kPi / 180.0);
    }
    const int stride = static_cast<int>(rad.size()) / mics;
    for (int m = 0; m < mics; ++m) {
        double p = std::remainder(phi[m * stride], 2 * kPi);
        cfg.micIndex[m] = m;
        cfg.micPhi[m] = static_cast<float>(p);
        cfg.micRadius[m] = static_cast<float>(rad[m * stride]);
    }
}

std::unique_ptr<StCamCfg> makeCfg(int mics, int rows, int cols, int frame, int rate = 96000)
{
    std::unique_ptr<StCamCfg> cfg(new StCamCfg());
    std::memset(cfg.get(), 0, sizeof(StCamCfg));
    cfg->sampleFrequency = rate;
    cfg->channelNum = mics;
    cfg->imageResolutionRow = rows;
    cfg->imageResolutionCol = cols;
    cfg->frameSize = frame;
    cfg->imageThetaXYFactor = 1.3f;
    cfg->eangleDomain = 43;
    cfg->rotateMode = 1;
    fillRingGeometry(*cfg, mics);
    return cfg;
}

struct Frame {
    mat2d_fp32* m;
    explicit Frame(int rows, int cols) : m(create_mat2d_fp32(rows, cols)) {}
    ~Frame() { destroy_mat2d_fp32(m); }
};

struct Vec {
    vec_fp32* v;
    explicit Vec(int n) : v(create_vec_fp32(n)) {}
    ~Vec() { destroy_vec_fp32(v); }
};

// Unit vector toward a far source, in the array's frame: x, y in the array
// plane (a microphone sits at radius * (cos phi, sin phi)), z the axis.
struct Dir {
    double x, y, z;
};

// Direction that the pickup steers to for a stored (already mapped) target,
// from the documented grid: rows and columns both scaled by the row count.
Dir pickupDirection(const StCamCfg& cfg, int r, int c)
{
    const double rows = cfg.imageResolutionRow, cols = cfg.imageResolutionCol;
    const double t = 0.70710677 / std::tan(cfg.eangleDomain * kPi / 180.0);
    const double v = ((r - rows * 0.5) + 0.5) / rows;
    const double u = ((c - cols * 0.5) + 0.5) / rows / cfg.imageThetaXYFactor;
    const double theta = std::atan2(std::sqrt(u * u + v * v), t);
    const double phi = std::atan2(u, v);
    return {std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)};
}

// Plane-wave simulator: band-limited Gaussian noise (or one tone) arriving
// from a direction, every channel delayed exactly in the frequency domain over
// one periodic block of `len` samples. ref is the signal at the array centre.
struct Simulated {
    std::vector<std::vector<float>> mic;
    std::vector<float> ref;
};

Simulated simulate(const StCamCfg& cfg, Dir dir, int len, double loHz, double hiHz, unsigned seed, bool tone = false)
{
    const int bins = len / 2 + 1;
    const double fs = cfg.sampleFrequency;
    std::vector<std::complex<double>> shape(bins);
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    for (int k = 0; k < bins; ++k) {
        const double f = k * fs / len;
        if (tone ? (k == static_cast<int>(std::lround(loHz * len / fs))) : (f >= loHz && f <= hiHz))
            shape[k] = tone ? std::complex<double>(len / 2.0, 0.0) : std::complex<double>(g(rng), g(rng));
    }
    float* in = fftwf_alloc_real(len);
    fftwf_complex* sp = fftwf_alloc_complex(bins);
    fftwf_plan plan = fftwf_plan_dft_c2r_1d(len, sp, in, FFTW_ESTIMATE);
    auto synth = [&](double tau, std::vector<float>& out) {
        for (int k = 0; k < bins; ++k) {
            // The wave reaches this point tau seconds before the centre.
            const std::complex<double> x = shape[k] * std::polar(1.0, 2 * kPi * k * fs / len * tau);
            sp[k][0] = static_cast<float>(x.real());
            sp[k][1] = static_cast<float>(x.imag());
        }
        fftwf_execute(plan);
        out.assign(in, in + len);
    };
    Simulated s;
    synth(0.0, s.ref);
    double e = 0;
    for (float v : s.ref)
        e += double(v) * v;
    const float norm = static_cast<float>(1.0 / std::sqrt(e / len));
    for (float& v : s.ref)
        v *= norm;
    s.mic.resize(cfg.channelNum);
    for (int m = 0; m < cfg.channelNum; ++m) {
        const double px = cfg.micRadius[m] * std::cos(cfg.micPhi[m]);
        const double py = cfg.micRadius[m] * std::sin(cfg.micPhi[m]);
        synth((px * dir.x + py * dir.y) / kSound, s.mic[m]);
        for (float& v : s.mic[m])
            v *= norm;
    }
    fftwf_destroy_plan(plan);
    fftwf_free(sp);
    fftwf_free(in);
    return s;
}

// Runs a whole simulated stream through the pickup frame by frame and returns
// the concatenated output.
std::vector<float> runStream(AKUDoaPickupV4& pickup, AKUDoaFreqBands& bands, const StCamCfg& cfg, const std::vector<std::vector<float>>& mic)
{
    const int n = cfg.frameSize, mics = cfg.channelNum;
    const int frames = static_cast<int>(mic[0].size()) / n;
    Frame fr(mics, n);
    Vec out(n);
    std::vector<float> all;
    for (int f = 0; f < frames; ++f) {
        for (int m = 0; m < mics; ++m)
            std::memcpy(fr.m->data[m], mic[m].data() + f * n, sizeof(float) * n);
        pickup.executePickup(fr.m, bands, out.v);
        all.insert(all.end(), out.v->data, out.v->data + n);
    }
    return all;
}

double energy(const std::vector<float>& x, size_t from)
{
    double e = 0;
    for (size_t i = from; i < x.size(); ++i)
        e += double(x[i]) * x[i];
    return e;
}

std::unique_ptr<AKUDoaFreqBands> makeBands(const StCamCfg& cfg, int lo, int hi)
{
    std::unique_ptr<AKUDoaFreqBands> b(new AKUDoaFreqBands(cfg.frameSize, cfg.sampleFrequency));
    b->updateBands({{lo, hi, 1}});
    return b;
}

// ----------------------------------------------------------------- edge cases

TEST(PickupV4Edge, SamplesPerMetreUsesWholeSamples)
{
    // Catches a float division: 96000 / 340 is 282.35 but the pickup uses 282.
    for (auto [rate, expect] : {std::pair<int, float>{96000, 282.f}, {48000, 141.f}, {44100, 129.f}}) {
        auto cfg = makeCfg(8, 8, 6, 64, rate);
        AKUDoaPickupV4 p;
        p.initPickup(cfg.get());
        AKUDoaPickupV4Private* d = AKUDoaPickupV4Access::d(p);
        EXPECT_EQ(d->samplesPerMetre, expect) << rate;
        EXPECT_EQ(d->micReach->data[3], cfg->micRadius[3] * expect);
    }
}

TEST(PickupV4Edge, TargetMappingAndOutOfImage)
{
    auto cfg = makeCfg(8, 8, 6, 64);
    AKUDoaPickupV4 p;
    p.initPickup(cfg.get());
    AKUDoaPickupV4Private* d = AKUDoaPickupV4Access::d(p);
    // initPickup steers at the centre, stored without the rotation mapping.
    EXPECT_EQ(d->targetRow, 4);
    EXPECT_EQ(d->targetCol, 3);

    struct Case {
        int mode, row, col, er, ec;
    };
    // Orientation faults: each mode flips its own axes. rows, cols are inside.
    const Case cases[] = {
        {0, 2, 5, 2, 5}, {1, 2, 5, 6, 1}, {2, 2, 5, 2, 1}, {3, 2, 5, 6, 5},
        {1, 8, 6, 0, 0}, {1, 0, 0, 8, 6},
        {7, 1, 1, 4, 3}, // unknown mode keeps the stored target (the centre here)
    };
    for (const Case& c : cases) {
        p.initTargetPoint(-1, -1); // back to the centre
        cfg->rotateMode = c.mode;
        p.initTargetPoint(c.row, c.col);
        EXPECT_EQ(d->targetRow, c.er) << "mode " << c.mode << " (" << c.row << "," << c.col << ")";
        EXPECT_EQ(d->targetCol, c.ec) << "mode " << c.mode << " (" << c.row << "," << c.col << ")";
    }
    // Outside the image: the centre, unmapped, whatever the mode.
    cfg->rotateMode = 1;
    for (auto [r, c] : {std::pair<int, int>{-1, 2}, {9, 2}, {3, -1}, {3, 7}}) {
        p.initTargetPoint(0, 0);
        p.initTargetPoint(r, c);
        EXPECT_EQ(d->targetRow, 4) << r << "," << c;
        EXPECT_EQ(d->targetCol, 3) << r << "," << c;
    }
    // The centre's delays equal those of steering at the centre directly.
    std::vector<float> outside(d->micDelay->data, d->micDelay->data + 8);
    cfg->rotateMode = 0;
    p.initTargetPoint(1, 1);
    p.initTargetPoint(4, 3);
    for (int m = 0; m < 8; ++m)
        EXPECT_EQ(d->micDelay->data[m], outside[m]);
}

TEST(PickupV4Edge, SameTargetRecomputesNothing)
{
    auto cfg = makeCfg(8, 8, 6, 64);
    cfg->rotateMode = 0;
    AKUDoaPickupV4 p;
    p.initPickup(cfg.get());
    AKUDoaPickupV4Private* d = AKUDoaPickupV4Access::d(p);
    p.initTargetPoint(2, 5);
    const float steered = d->micDelay->data[0];
    d->micDelay->data[0] = 99.f;
    d->taps->data[0][0] = 99.f;
    p.initTargetPoint(2, 5);
    EXPECT_EQ(d->micDelay->data[0], 99.f);
    EXPECT_EQ(d->taps->data[0][0], 99.f);
    p.initTargetPoint(2, 4);
    p.initTargetPoint(2, 5);
    EXPECT_EQ(d->micDelay->data[0], steered);
    // The shortcut compares the caller's point with the stored, already
    // mapped target: in mode 1 the point (6, 1) after (2, 5) stored (6, 1)
    // and is taken as unchanged, not mapped to (2, 5).
    cfg->rotateMode = 1;
    p.initTargetPoint(0, 0);
    p.initTargetPoint(2, 5);
    EXPECT_EQ(d->targetRow, 6);
    p.initTargetPoint(6, 1);
    EXPECT_EQ(d->targetRow, 6);
    EXPECT_EQ(d->targetCol, 1);
    // An out-of-image target while the centre is stored also returns at once.
    p.initTargetPoint(4, 3);
    d->micDelay->data[0] = 99.f;
    p.initTargetPoint(-5, 100);
    EXPECT_EQ(d->micDelay->data[0], 99.f);
}

TEST(PickupV4Edge, SteerToBypassesMappingAndShortcut)
{
    auto cfg = makeCfg(8, 8, 6, 64);
    AKUDoaPickupV4 a, b;
    a.initPickup(cfg.get());
    b.initPickup(cfg.get());
    AKUDoaPickupV4Private* da = AKUDoaPickupV4Access::d(a);
    AKUDoaPickupV4Private* db = AKUDoaPickupV4Access::d(b);
    // Mode 1: initTargetPoint(2, 5) stores (6, 1); steerTo(6, 1) is the same.
    a.initTargetPoint(2, 5);
    b.steerTo(6, 1);
    EXPECT_EQ(db->targetRow, 6);
    EXPECT_EQ(db->targetCol, 1);
    for (int m = 0; m < 8; ++m)
        EXPECT_EQ(da->micDelay->data[m], db->micDelay->data[m]);
    // Where initTargetPoint(6, 1) would be skipped (equal to the stored
    // target), steerTo(2, 5) steers there.
    b.steerTo(2, 5);
    EXPECT_EQ(db->targetRow, 2);
    EXPECT_EQ(db->targetCol, 5);
    EXPECT_NE(da->micDelay->data[1], db->micDelay->data[1]);
    b.steerTo(-1, 3);
    EXPECT_EQ(db->targetRow, 4);
    EXPECT_EQ(db->targetCol, 3);
}

TEST(PickupV4Edge, DelaysFollowTheSteeringDirection)
{
    // Sign and axis faults in the delay formula: compare with the direction
    // computed independently in double precision.
    auto cfg = makeCfg(64, 16, 12, 256);
    cfg->rotateMode = 0;
    AKUDoaPickupV4 p;
    p.initPickup(cfg.get());
    AKUDoaPickupV4Private* d = AKUDoaPickupV4Access::d(p);
    for (auto [r, c] : {std::pair<int, int>{0, 0}, {3, 10}, {15, 1}, {16, 12}, {9, 5}}) {
        p.initTargetPoint(r, c);
        const Dir dir = pickupDirection(*cfg, r, c);
        for (int m = 0; m < 64; ++m) {
            const double px = cfg->micRadius[m] * std::cos(cfg->micPhi[m]);
            const double py = cfg->micRadius[m] * std::sin(cfg->micPhi[m]);
            const double expect = (px * dir.x + py * dir.y) * 282.0;
            EXPECT_NEAR(d->micDelay->data[m], expect, 2e-5 * 282 * 0.06) << r << "," << c << " mic " << m;
        }
    }
}

TEST(PickupV4Edge, SincTapsAndTheZeroDelayHole)
{
    // The 24 taps of a delay d: raised-cosine windowed sinc centred on
    // 11 + d, stored reversed. A zero delay takes the limit 1 at t = 11.
    vec_fp32* delays = create_vec_fp32(4);
    mat2d_fp32* taps = create_mat2d_fp32(4, 24);
    const float ds[4] = {0.f, 0.25f, -3.6f, 7.5f};
    std::memcpy(delays->data, ds, sizeof ds);
    AKUDoaPickupV4Private::fir_sinctap_param_create(delays, taps);
    for (int m = 0; m < 4; ++m)
        for (int t = 0; t < 24; ++t) {
            const double x = double(t) - ds[m] + 1.0;
            const float got = taps->data[m][23 - t];
            const double s = (x - 12.0) * kPi;
            const double sinc = (x == 0.0 || s == 0.0) ? 1.0 : std::sin(s) / s;
            const double w = 0.54 - 0.46 * std::cos((x + 0.5) * 2 * kPi / 24.0);
            EXPECT_NEAR(got, w * sinc, 2e-6) << "delay " << ds[m] << " t " << t;
        }
    // x == 0 exactly (t = 0 with d = 1) takes the sinc value 1, not sinc(-12).
    delays->data[0] = 1.f;
    AKUDoaPickupV4Private::fir_sinctap_param_create(delays, taps);
    EXPECT_FLOAT_EQ(taps->data[0][23], static_cast<float>(0.54 - 0.46 * std::cos(0.5 * 2 * kPi / 24.0)));
    destroy_vec_fp32(delays);
    destroy_mat2d_fp32(taps);
}

TEST(PickupV4Edge, HistoryCarries23SamplesAcrossFrames)
{
    auto cfg = makeCfg(8, 8, 6, 64);
    AKUDoaPickupV4 p;
    p.initPickup(cfg.get());
    AKUDoaPickupV4Private* d = AKUDoaPickupV4Access::d(p);
    auto bands = makeBands(*cfg, 20000, 40000);
    Frame a(8, 64), b(8, 64);
    for (int m = 0; m < 8; ++m)
        for (int i = 0; i < 64; ++i) {
            a.m->data[m][i] = float(1000 * m + i);
            b.m->data[m][i] = float(-1000 * m - i);
        }
    Vec out(64);
    p.executePickup(a.m, *bands, out.v);
    p.executePickup(b.m, *bands, out.v);
    for (int m = 0; m < 8; ++m) {
        for (int i = 0; i < 23; ++i)
            ASSERT_EQ(d->history->data[m][i], a.m->data[m][64 - 23 + i]);
        for (int i = 0; i < 64; ++i)
            ASSERT_EQ(d->history->data[m][23 + i], b.m->data[m][i]);
    }
}

TEST(PickupV4Edge, EmptyBandListIsSilentUnlessFullBand)
{
    auto cfg = makeCfg(16, 8, 6, 256);
    Simulated s = simulate(*cfg, pickupDirection(*cfg, 4, 3), 256 * 6, 1000, 45000, 7);
    AKUDoaFreqBands empty(256, 96000);
    empty.updateBands({});
    std::vector<float> window = hann(256);
    for (bool full : {false, true}) {
        cfg->pickupFullBand = full;
        AKUDoaPickupV4 p;
        p.initPickup(cfg.get());
        p.updateFFTWin(window.data(), 256);
        std::vector<float> out = runStream(p, empty, *cfg, s.mic);
        if (full)
            EXPECT_GT(energy(out, 512), 1.0);
        else
            EXPECT_EQ(energy(out, 0), 0.0);
    }
}

TEST(PickupV4Edge, WindowOfOtherLengthIsIgnored)
{
    // The window starts all zero: a rejected window keeps the output silent.
    auto cfg = makeCfg(16, 8, 6, 256);
    cfg->pickupFullBand = true;
    Simulated s = simulate(*cfg, pickupDirection(*cfg, 4, 3), 256 * 4, 1000, 45000, 8);
    AKUDoaFreqBands bands(256, 96000);
    AKUDoaPickupV4 p;
    p.initPickup(cfg.get());
    std::vector<float> window = hann(255);
    p.updateFFTWin(window.data(), 255);
    EXPECT_EQ(energy(runStream(p, bands, *cfg, s.mic), 0), 0.0);
}

// ------------------------------------------------ reference of the frame path

// Plain double-precision model of one frame: FIR delay-and-sum from the taps,
// the two windowed blocks, the window-weighted bin mask, the inverse DFT, the
// half-overlap add and the output scale.
struct ModelPickup {
    int n, mics;
    std::vector<std::vector<double>> hist;
    std::vector<double> prevSum, prevOut;
    explicit ModelPickup(int n_, int m_) : n(n_), mics(m_), hist(m_, std::vector<double>(n_ + 23)), prevSum(n_), prevOut(n_) {}

    std::vector<double> filtered(const std::vector<double>& x, const std::vector<float>& w, const std::vector<int>& bins)
    {
        std::vector<double> out(n, 0.0);
        for (int k : bins) {
            if (k > n / 2)
                continue;
            std::complex<double> X = 0;
            for (int i = 0; i < n; ++i)
                X += x[i] * w[i] * std::polar(1.0, -2 * kPi * k * i / n);
            X *= w[k];
            // Real inverse: DC and Nyquist once, the others with their mirror.
            const double mult = (k == 0 || 2 * k == n) ? 1.0 : 2.0;
            for (int i = 0; i < n; ++i)
                out[i] += mult * (X * std::polar(1.0, 2 * kPi * k * i / n)).real();
        }
        return out;
    }

    std::vector<double> step(mat2d_fp32* frame, float* const* taps, const std::vector<float>& w, const std::vector<int>& bins)
    {
        std::vector<double> sum(n, 0.0);
        for (int m = 0; m < mics; ++m) {
            std::copy(hist[m].begin() + n, hist[m].end(), hist[m].begin());
            for (int i = 0; i < n; ++i)
                hist[m][23 + i] = frame->data[m][i];
            for (int i = 0; i < n; ++i)
                for (int k = 0; k < 24; ++k)
                    sum[i] += hist[m][i + k] * taps[m][k];
        }
        std::vector<double> halfBlock(n);
        for (int i = 0; i < n / 2; ++i) {
            halfBlock[i] = prevSum[n / 2 + i];
            halfBlock[n / 2 + i] = sum[i];
        }
        std::vector<double> o0 = filtered(sum, w, bins), o1 = filtered(halfBlock, w, bins);
        std::vector<double> out(n);
        for (int i = 0; i < n / 2; ++i) {
            out[i] = prevOut[n / 2 + i] + o1[i];
            out[n / 2 + i] = o1[n / 2 + i] + o0[i];
        }
        for (double& v : out)
            v *= 4.0 / (n * std::sqrt(double(mics)));
        prevSum = sum;
        prevOut = o0;
        return out;
    }
};

TEST(PickupV4Reference, FramePathMatchesPlainModel)
{
    // Catches faults in the overlap bookkeeping (which half goes where), the
    // bin mask and its window weight, the output scale and the carried state.
    const int n = 64, mics = 8;
    auto cfg = makeCfg(mics, 8, 6, n);
    for (int c = 0; c < mics; ++c) { // an 8-microphone ring, 25 mm
        cfg->micRadius[c] = 0.025f;
        cfg->micPhi[c] = static_cast<float>(std::remainder(c * kPi / 4, 2 * kPi));
    }
    AKUDoaFreqBands bands(n, 96000);
    bands.updateBands({{15000, 30000, 1}, {40000, 41000, 1}});
    std::vector<int> bins;
    for (const doaFreqInfo& f : bands.data())
        bins.push_back(f.bin);
    std::vector<float> w = hann(n);
    AKUDoaPickupV4 p;
    p.initPickup(cfg.get());
    p.updateFFTWin(w.data(), n);
    p.initTargetPoint(1, 5);
    AKUDoaPickupV4Private* d = AKUDoaPickupV4Access::d(p);
    ModelPickup model(n, mics);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-1.f, 1.f);
    Frame fr(mics, n);
    Vec out(n);
    for (int f = 0; f < 5; ++f) {
        for (int m = 0; m < mics; ++m)
            for (int i = 0; i < n; ++i)
                fr.m->data[m][i] = u(rng);
        p.executePickup(fr.m, bands, out.v);
        std::vector<double> expect = model.step(fr.m, d->taps->data, w, bins);
        double peak = 0;
        for (double v : expect)
            peak = std::max(peak, std::fabs(v));
        ASSERT_GT(peak, 1e-3);
        for (int i = 0; i < n; ++i)
            ASSERT_NEAR(out.v->data[i], expect[i], 2e-5 * peak + 1e-6) << "frame " << f << " sample " << i;
    }
}

TEST(SimdPickupFir, VectorSumEqualsReferenceBitForBit)
{
    // Bit-exact: same four fused-multiply-add chains per output and the same
    // lane order; lengths that leave a tail exercise the scalar remainder.
    const int mics = 8;
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-1.f, 1.f);
    for (int nOut : {4, 37, 256}) {
        std::vector<std::vector<float>> h(mics, std::vector<float>(nOut + 23)), t(mics, std::vector<float>(24));
        std::vector<float*> hp, tp;
        for (int m = 0; m < mics; ++m) {
            for (float& v : h[m])
                v = u(rng);
            for (float& v : t[m])
                v = u(rng);
            hp.push_back(h[m].data());
            tp.push_back(t[m].data());
        }
        std::vector<float> a(nOut), b(nOut);
        for (int i = 0; i < nOut; ++i)
            a[i] = b[i] = u(rng);
        akudoa_pickup_fir_sum(hp.data(), tp.data(), mics, nOut, a.data());
        akudoa_pickup_fir_sum_ref(hp.data(), tp.data(), mics, nOut, b.data());
        for (int i = 0; i < nOut; ++i)
            ASSERT_EQ(a[i], b[i]) << "n_out " << nOut << " sample " << i;
    }
}

// ------------------------------------------------------------------- physics

constexpr int kPhysMics = 64, kPhysRows = 16, kPhysCols = 12, kPhysN = 1024;
constexpr int kWarm = 2; // frames before history and overlap state are full

TEST(PickupV4Physics, FavoursTheTargetOverAnInterferer)
{
    auto cfg = makeCfg(kPhysMics, kPhysRows, kPhysCols, kPhysN);
    cfg->rotateMode = 0;
    auto bands = makeBands(*cfg, 20000, 40000);
    std::vector<float> w = hann(kPhysN);
    const int len = kPhysN * 8;
    // Two uncorrelated sources of equal level at different pixels.
    const Simulated a = simulate(*cfg, pickupDirection(*cfg, 4, 3), len, 20000, 40000, 21);
    const Simulated b = simulate(*cfg, pickupDirection(*cfg, 11, 8), len, 20000, 40000, 22);
    auto listen = [&](const Simulated& s) {
        AKUDoaPickupV4 p;
        p.initPickup(cfg.get());
        p.updateFFTWin(w.data(), kPhysN);
        p.initTargetPoint(4, 3);
        return energy(runStream(p, *bands, *cfg, s.mic), kWarm * kPhysN);
    };
    const double gainDb = 10 * std::log10(listen(a) / listen(b));
    // One microphone hears both alike.
    const double oneMicDb = 10 * std::log10(energy(a.mic[0], kWarm * kPhysN) / energy(b.mic[0], kWarm * kPhysN));
    RecordProperty("separation_db", std::to_string(gainDb));
    EXPECT_GE(gainDb, 10.0);
    EXPECT_NEAR(oneMicDb, 0.0, 0.5);
}

// Correlation of out[lag + i] with ref[i] over the settled part.
double correlation(const std::vector<float>& out, const std::vector<float>& ref, int lag, int from)
{
    double xy = 0, xx = 0, yy = 0;
    for (size_t i = from; i + lag < out.size(); ++i) {
        xy += double(out[i + lag]) * ref[i];
        xx += double(out[i + lag]) * out[i + lag];
        yy += double(ref[i]) * ref[i];
    }
    return xy / std::sqrt(xx * yy);
}

TEST(PickupV4Physics, OutputFollowsTheSourceWithHalfFrameLag)
{
    auto cfg = makeCfg(kPhysMics, kPhysRows, kPhysCols, kPhysN);
    auto bands = makeBands(*cfg, 20000, 40000);
    std::vector<float> w = hann(kPhysN);
    // rotateMode 1: the target (rows - r, cols - c) steers to (r, c).
    const Simulated s = simulate(*cfg, pickupDirection(*cfg, 5, 9), kPhysN * 8, 22000, 38000, 31);
    AKUDoaPickupV4 p;
    p.initPickup(cfg.get());
    p.updateFFTWin(w.data(), kPhysN);
    p.initTargetPoint(kPhysRows - 5, kPhysCols - 9);
    const std::vector<float> out = runStream(p, *bands, *cfg, s.mic);
    // Half a frame of block latency plus the FIR's 11 samples of bulk delay.
    const int lag = kPhysN / 2 + 11;
    const double c = correlation(out, s.ref, lag, kWarm * kPhysN);
    RecordProperty("correlation", std::to_string(c));
    EXPECT_GT(c, 0.9);
    for (int other : {lag - 3, lag - 1, lag + 1, lag + 3, kPhysN / 2, 11})
        EXPECT_LT(correlation(out, s.ref, other, kWarm * kPhysN), c) << other;
}

TEST(PickupV4Physics, ToneHasNoClicksAtFrameBorders)
{
    auto cfg = makeCfg(kPhysMics, kPhysRows, kPhysCols, kPhysN);
    auto bands = makeBands(*cfg, 20000, 40000);
    std::vector<float> w = hann(kPhysN);
    const int len = kPhysN * 16;
    // 25 kHz, between the frame's FFT bins.
    const Simulated s = simulate(*cfg, pickupDirection(*cfg, 7, 7), len, 25000, 0, 41, true);
    const double f = std::lround(25000.0 * len / 96000) * 96000.0 / len;
    AKUDoaPickupV4 p;
    p.initPickup(cfg.get());
    p.updateFFTWin(w.data(), kPhysN);
    p.initTargetPoint(kPhysRows - 7, kPhysCols - 7);
    const std::vector<float> out = runStream(p, *bands, *cfg, s.mic);
    const size_t from = kWarm * kPhysN;
    double peak = 0;
    for (size_t i = from; i < out.size(); ++i)
        peak = std::max(peak, double(std::fabs(out[i])));
    ASSERT_GT(peak, 0.1);
    // A sine of amplitude A never moves more than 2 A sin(pi f / fs) between
    // two samples; allow 10 % for the block filter's amplitude ripple.
    const double maxStep = 2 * peak * std::sin(kPi * f / 96000) * 1.10;
    double worst = 0;
    size_t where = 0;
    for (size_t i = from; i + 1 < out.size(); ++i) {
        const double jump = std::fabs(double(out[i + 1]) - out[i]);
        if (jump > worst) {
            worst = jump;
            where = i;
        }
    }
    EXPECT_LE(worst, maxStep) << "at sample " << where << " (frame offset " << where % kPhysN << ")";
}

} // namespace

// ------------------------------------------- where does a pixel listen?

namespace {

// Plain far-field beamformer laid out like the planar imaging engine: raw
// pixel (k, c) steers with phases (b - 1) * kr * sin(theta) * cos(phi - phi_m),
// phi = atan2(col offset, row offset), and the raw image is turned into the
// displayed one by the rotation mode. Returns the displayed peak cell.
std::pair<int, int> heatMapPeak(const StCamCfg& cfg, const std::vector<std::vector<float>>& mic, int start)
{
    const int n = cfg.frameSize, mics = cfg.channelNum;
    const int rows = cfg.imageResolutionRow, cols = cfg.imageResolutionCol;
    const double fs = cfg.sampleFrequency;
    const int lo = static_cast<int>(20000.0 * n / fs), hi = static_cast<int>(40000.0 * n / fs);
    std::vector<float> w = hann(n);
    std::vector<std::vector<std::complex<double>>> X(mics, std::vector<std::complex<double>>(hi + 1));
    float* in = fftwf_alloc_real(n);
    fftwf_complex* sp = fftwf_alloc_complex(n / 2 + 1);
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(n, in, sp, FFTW_ESTIMATE);
    for (int m = 0; m < mics; ++m) {
        for (int i = 0; i < n; ++i)
            in[i] = mic[m][start + i] * w[i];
        fftwf_execute(plan);
        for (int b = lo; b <= hi; ++b)
            X[m][b] = {sp[b][0], sp[b][1]};
    }
    fftwf_destroy_plan(plan);
    fftwf_free(sp);
    fftwf_free(in);
    const double D = 0.70710677 / std::tan(cfg.eangleDomain * kPi / 180.0);
    const double k = 2 * kPi * fs / (n * 340.0);
    double best = -1;
    std::pair<int, int> at{-1, -1};
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) {
            const double u = ((i - rows * 0.5) + 0.5) / rows;
            const double v = (((j - cols * 0.5) + 0.5) / rows) / cfg.imageThetaXYFactor;
            const double theta = std::atan2(std::sqrt(u * u + v * v), D), phi = std::atan2(v, u);
            double power = 0;
            for (int b = lo; b <= hi; ++b) {
                std::complex<double> beam = 0;
                for (int m = 0; m < mics; ++m) {
                    const double dm = cfg.micRadius[m] * k * std::cos(phi - cfg.micPhi[m]) * std::sin(theta);
                    beam += std::polar(1.0, (b - 1) * dm) * X[m][b];
                }
                power += std::norm(beam);
            }
            if (power > best) {
                best = power;
                // Displayed position of raw pixel (i, j).
                switch (cfg.rotateMode) {
                case 0: at = {i, j}; break;
                case 1: at = {rows - 1 - i, cols - 1 - j}; break;
                case 2: at = {i, cols - 1 - j}; break;
                default: at = {rows - 1 - i, j}; break;
                }
            }
        }
    return at;
}

// Sweeps every pickup target (0..rows x 0..cols) and returns the one whose
// output carries the most energy of the simulated source.
std::pair<int, int> loudestTarget(const StCamCfg& cfg, AKUDoaFreqBands& bands, const std::vector<std::vector<float>>& mic)
{
    std::vector<float> w = hann(cfg.frameSize);
    double best = -1;
    std::pair<int, int> at{-1, -1};
    for (int r = 0; r <= cfg.imageResolutionRow; ++r)
        for (int c = 0; c <= cfg.imageResolutionCol; ++c) {
            AKUDoaPickupV4 p;
            p.initPickup(const_cast<StCamCfg*>(&cfg));
            p.updateFFTWin(w.data(), cfg.frameSize);
            p.initTargetPoint(r, c);
            const double e = energy(runStream(p, bands, cfg, mic), kWarm * cfg.frameSize);
            if (e > best) {
                best = e;
                at = {r, c};
            }
        }
    return at;
}

} // namespace

TEST(PickupV4WhereItListens, MirroredThroughTheCentreOfTheHeatMap)
{
    // A source drawn by the imaging grid at displayed cell (i, j) is heard
    // best with the pickup target (rows - i, cols - j) in the default
    // rotation mode 1, and (rows - 1 - i, cols - 1 - j) in mode 0: the pickup
    // steers toward the mirror image of what the heat map shows.
    const int n = 512;
    auto cfg = makeCfg(kPhysMics, kPhysRows, kPhysCols, n);
    auto bands = makeBands(*cfg, 20000, 40000);
    struct Case {
        int mode, i, j;
    };
    for (const Case& c : {Case{1, 3, 2}, Case{1, 12, 9}, Case{1, 6, 10}, Case{0, 3, 2}, Case{0, 12, 7}}) {
        cfg->rotateMode = c.mode;
        // The physical direction the heat map shows at displayed (i, j): the
        // beam uses exp(+j psi), so a raw pixel shows the wave from the
        // direction opposite its steering vector; mode 1 flips that back.
        const int ri = (c.mode == 1 || c.mode == 3) ? kPhysRows - 1 - c.i : c.i;
        const int rj = (c.mode == 1 || c.mode == 2) ? kPhysCols - 1 - c.j : c.j;
        Dir dir = pickupDirection(*cfg, ri, rj);
        dir.x = -dir.x;
        dir.y = -dir.y;
        const Simulated s = simulate(*cfg, dir, n * 4, 20000, 40000, 50 + c.i);
        ASSERT_EQ(heatMapPeak(*cfg, s.mic, 2 * n), std::make_pair(c.i, c.j)) << "mode " << c.mode;
        const std::pair<int, int> heard = loudestTarget(*cfg, *bands, s.mic);
        const std::pair<int, int> expect = c.mode == 1 ? std::make_pair(kPhysRows - c.i, kPhysCols - c.j)
                                                       : std::make_pair(kPhysRows - 1 - c.i, kPhysCols - 1 - c.j);
        EXPECT_EQ(heard, expect) << "mode " << c.mode << " heat-map cell " << c.i << "," << c.j;
    }
}
