#include "check.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <fftw3.h>
#include <memory>
#include <stdexcept>

#include "render.h"

namespace akutool {

namespace {

using cplx = std::complex<double>;

double median(std::vector<double> v)
{
    if (v.empty())
        return 0.0;
    const size_t h = v.size() / 2;
    std::nth_element(v.begin(), v.begin() + static_cast<long>(h), v.end());
    double m = v[h];
    if (v.size() % 2 == 0)
        m = 0.5 * (m + *std::max_element(v.begin(), v.begin() + static_cast<long>(h)));
    return m;
}

// A real-to-complex transform of a fixed length, planned once.
class RealFft {
public:
    explicit RealFft(int n) : n_(n), in_(fftw_alloc_real(n)), out_(fftw_alloc_complex(n / 2 + 1))
    {
        if (!in_ || !out_)
            throw std::bad_alloc();
        plan_ = fftw_plan_dft_r2c_1d(n, in_, out_, FFTW_ESTIMATE);
    }
    ~RealFft()
    {
        fftw_destroy_plan(plan_);
        fftw_free(in_);
        fftw_free(out_);
    }
    RealFft(const RealFft&) = delete;
    RealFft& operator=(const RealFft&) = delete;
    double* in() { return in_; }
    cplx bin(int k) const { return {out_[k][0], out_[k][1]}; }
    void run() { fftw_execute(plan_); }

private:
    int n_;
    double* in_;
    fftw_complex* out_;
    fftw_plan plan_;
};

} // namespace

std::vector<std::vector<int>> nearestNeighbours(const std::vector<Vec3>& pos, int k)
{
    std::vector<std::vector<int>> out(pos.size());
    for (size_t i = 0; i < pos.size(); ++i) {
        std::vector<std::pair<double, int>> d;
        for (size_t j = 0; j < pos.size(); ++j)
            if (j != i)
                d.push_back({norm(pos[j] - pos[i]), static_cast<int>(j)});
        std::sort(d.begin(), d.end());
        for (int n = 0; n < k && n < static_cast<int>(d.size()); ++n)
            out[i].push_back(d[n].second);
    }
    return out;
}

void checkLevels(const std::vector<std::vector<float>>& sig, const std::vector<std::vector<int>>& neighbours,
                 int frameSize, int sampleRate, double lowHz, double highHz, const CheckLimits& lim,
                 std::vector<MicReport>& mics)
{
    const size_t m = sig.size();
    const size_t len = sig.empty() ? 0 : sig[0].size();
    for (size_t i = 0; i < m; ++i) {
        double sum = 0, sq = 0, peak = 0;
        for (float v : sig[i]) {
            sum += v;
            sq += double(v) * v;
            peak = std::max(peak, std::fabs(double(v)));
        }
        // A clipped channel sits at its own extreme value again and again; a
        // healthy one reaches it once or twice.
        size_t atPeak = 0;
        if (peak > 0)
            for (float v : sig[i])
                atPeak += std::fabs(double(v)) >= peak * (1 - 1e-6);
        MicReport& r = mics[i];
        r.dc = len ? sum / len : 0.0;
        r.rmsDb = std::max(-200.0, amplitudeDb(len ? std::sqrt(sq / len) : 0.0));
        r.peakDb = std::max(-200.0, amplitudeDb(peak));
        r.clippedPct = len ? 100.0 * atPeak / len : 0.0;
    }

    // Welch magnitude-squared coherence over the imaged band: Hann-windowed
    // frames with half overlap, averaged over the band's bins.
    const int hop = frameSize / 2;
    const int segs = len >= static_cast<size_t>(frameSize) ? static_cast<int>((len - frameSize) / hop) + 1 : 0;
    const int k0 = std::max(1, static_cast<int>(std::ceil(lowHz * frameSize / sampleRate)));
    const int k1 = std::min(frameSize / 2 - 1, static_cast<int>(std::floor(highHz * frameSize / sampleRate)));
    const int bins = std::max(0, k1 - k0 + 1);
    // Per microphone and bin the cross-spectral matrix of the group
    // {itself, its neighbours}, one segment at a time so memory does not grow
    // with the recording.
    std::vector<std::vector<cplx>> spec(m, std::vector<cplx>(bins));
    std::vector<std::vector<cplx>> group(m);
    const auto members = [&](size_t i, size_t a) { return a == 0 ? i : static_cast<size_t>(neighbours[i][a - 1]); };
    for (size_t i = 0; i < m; ++i)
        group[i].assign(static_cast<size_t>(bins) * (neighbours[i].size() + 1) * (neighbours[i].size() + 1), 0.0);
    RealFft fft(frameSize);
    for (int s = 0; s < segs; ++s) {
        for (size_t i = 0; i < m; ++i) {
            for (int t = 0; t < frameSize; ++t)
                fft.in()[t] = sig[i][static_cast<size_t>(s) * hop + t] * (0.5 - 0.5 * std::cos(2 * M_PI * t / frameSize));
            fft.run();
            for (int b = 0; b < bins; ++b)
                spec[i][b] = fft.bin(k0 + b);
        }
        for (size_t i = 0; i < m; ++i) {
            const size_t g = neighbours[i].size() + 1;
            for (int b = 0; b < bins; ++b)
                for (size_t r = 0; r < g; ++r)
                    for (size_t c = 0; c < g; ++c)
                        group[i][(static_cast<size_t>(b) * g + r) * g + c] +=
                            spec[members(i, r)][b] * std::conj(spec[members(i, c)][b]);
        }
    }
    // Multiple coherence: the share of the microphone's power that a linear
    // combination of its neighbours explains, per bin, averaged over the
    // band. Unlike the coherence of one pair it stays near 1 with as many
    // sources as neighbours; independent noise gets about neighbours/segments.
    for (size_t i = 0; i < m; ++i) {
        const size_t n = neighbours[i].size();
        double sum = 0;
        for (int b = 0; b < bins; ++b) {
            const cplx* c = &group[i][static_cast<size_t>(b) * (n + 1) * (n + 1)];
            const double own = c[0].real();
            double trace = 0;
            for (size_t r = 1; r <= n; ++r)
                trace += c[r * (n + 1) + r].real();
            if (!(own > 0) || !(trace > 0))
                continue;
            // Solve A w = v (A: the neighbours' matrix, v: their cross-spectra
            // with this one) by Gaussian elimination, lightly regularised for
            // a silent neighbour.
            std::vector<cplx> a(n * (n + 1));
            for (size_t r = 0; r < n; ++r) {
                for (size_t k = 0; k < n; ++k)
                    a[r * (n + 1) + k] = c[(r + 1) * (n + 1) + k + 1] + (r == k ? 1e-9 * trace : 0.0);
                a[r * (n + 1) + n] = c[(r + 1) * (n + 1)];
            }
            for (size_t k = 0; k < n; ++k) {
                size_t p = k;
                for (size_t r = k + 1; r < n; ++r)
                    if (std::abs(a[r * (n + 1) + k]) > std::abs(a[p * (n + 1) + k]))
                        p = r;
                for (size_t q = 0; q <= n; ++q)
                    std::swap(a[k * (n + 1) + q], a[p * (n + 1) + q]);
                for (size_t r = 0; r < n; ++r)
                    if (r != k) {
                        const cplx f = a[r * (n + 1) + k] / a[k * (n + 1) + k];
                        for (size_t q = k; q <= n; ++q)
                            a[r * (n + 1) + q] -= f * a[k * (n + 1) + q];
                    }
            }
            double explained = 0;
            for (size_t r = 0; r < n; ++r)
                explained += (std::conj(c[(r + 1) * (n + 1)]) * a[r * (n + 1) + n] / a[r * (n + 1) + r]).real();
            sum += std::clamp(explained / own, 0.0, 1.0);
        }
        mics[i].coherence = bins ? sum / bins : 0.0;
    }

    std::vector<double> levels, cohs;
    for (const MicReport& r : mics) {
        levels.push_back(r.rmsDb);
        cohs.push_back(r.coherence);
    }
    const double medLevel = median(levels), medCoh = median(cohs);
    for (MicReport& r : mics) {
        const bool incoherent = r.coherence < lim.coherenceShare * medCoh;
        if (r.rmsDb < medLevel - lim.deadBelowDb || (incoherent && r.rmsDb < medLevel - lim.quietBelowDb))
            r.status = "dead";
        else if (r.clippedPct > 100 * lim.clippedShare)
            r.status = "clipped";
        else if (incoherent || r.rmsDb > medLevel + lim.noisyAboveDb)
            r.status = "noisy";
    }
}

void checkDelays(const std::vector<std::vector<float>>& sig, const std::vector<float>& beam,
                 const std::vector<double>& predictedS, int sampleRate, double lowHz, double highHz,
                 const CheckLimits& lim, std::vector<MicReport>& mics)
{
    const size_t m = sig.size();
    const size_t len = beam.size();
    int n = 1;
    while (static_cast<size_t>(n) < 2 * len)
        n *= 2;
    const int k0 = std::max(1, static_cast<int>(std::ceil(lowHz * n / sampleRate)));
    const int k1 = std::min(n / 2 - 1, static_cast<int>(std::floor(highHz * n / sampleRate)));
    RealFft fft(n);
    auto spectrum = [&](const std::vector<float>& x) {
        std::fill(fft.in(), fft.in() + n, 0.0);
        std::copy(x.begin(), x.end(), fft.in());
        fft.run();
        std::vector<cplx> s(static_cast<size_t>(k1 - k0 + 1));
        for (int k = k0; k <= k1; ++k)
            s[k - k0] = fft.bin(k);
        return s;
    };
    const std::vector<cplx> b = spectrum(beam);

    std::unique_ptr<fftw_complex[], void (*)(void*)> spec(fftw_alloc_complex(n), fftw_free);
    std::unique_ptr<fftw_complex[], void (*)(void*)> corr(fftw_alloc_complex(n), fftw_free);
    fftw_plan inverse = fftw_plan_dft_1d(n, spec.get(), corr.get(), FFTW_BACKWARD, FFTW_ESTIMATE);
    // The band's centre, radians per sample: the correlation's carrier.
    const double carrier = M_PI * (k0 + k1) / n;
    std::vector<double> raw(m, 0.0);
    for (size_t i = 0; i < m; ++i) {
        if (mics[i].status != "ok")
            continue;
        // GCC-PHAT: the cross-spectrum whitened to unit magnitude in the
        // band, so the correlation peak is sharp whatever the source's colour.
        const std::vector<cplx> x = spectrum(sig[i]);
        std::vector<cplx> g(x.size());
        for (size_t k = 0; k < x.size(); ++k) {
            const cplx c = x[k] * std::conj(b[k]);
            g[k] = std::abs(c) > 1e-30 ? c / std::abs(c) : 0.0;
        }
        // Positive frequencies only: the analytic correlation, whose
        // magnitude is the smooth envelope and whose phase the carrier. In a
        // band far from 0 Hz the real correlation has side lobes half a
        // carrier period away almost as high as its peak, so the envelope
        // locates the peak and the phase gives the fine delay and the sign.
        std::fill(&spec[0][0], &spec[0][0] + 2 * n, 0.0);
        for (size_t k = 0; k < g.size(); ++k) {
            spec[k0 + k][0] = g[k].real();
            spec[k0 + k][1] = g[k].imag();
        }
        fftw_execute(inverse);
        auto mag = [&](int l) { return std::hypot(corr[l][0], corr[l][1]); };
        int best = 0;
        for (int l = 1; l < n; ++l)
            if (mag(l) > mag(best))
                best = l;
        auto at = [&](double tau) {
            const cplx rot = std::polar(1.0, 2 * M_PI * tau / n);
            cplx p = std::polar(1.0, 2 * M_PI * tau * k0 / n), s = 0;
            for (const cplx& gk : g) {
                s += gk * p;
                p *= rot;
            }
            return s;
        };
        const double ym = mag((best + n - 1) % n), y0 = mag(best), yp = mag((best + 1) % n);
        const double den = ym - 2 * y0 + yp;
        double tau = best + (den < 0 ? 0.5 * (ym - yp) / den : 0.0);
        const double phase = std::arg(at(tau));
        const bool inverted = std::fabs(phase) > 0.5 * M_PI;
        const double fine = inverted ? std::remainder(phase - M_PI, 2 * M_PI) : phase;
        tau -= fine / carrier;
        if (tau > n / 2)
            tau -= n;
        raw[i] = tau / sampleRate;
        mics[i].polarity = inverted ? -1.0 : 1.0;
        mics[i].delayKnown = true;
    }
    fftw_destroy_plan(inverse);

    // What all microphones share (the beam's latency, a source slightly off
    // the cell centre) is a plane over the array: fit it robustly to the
    // residuals and leave it out, so that only a single microphone's
    // deviation remains.
    std::vector<double> res(m, 0.0), fit(3, 0.0);
    std::vector<bool> use(m);
    for (size_t i = 0; i < m; ++i) {
        use[i] = mics[i].delayKnown;
        res[i] = raw[i] - predictedS[i];
    }
    double sigma = 0;
    for (int pass = 0; pass < 4; ++pass) {
        double a[3][4] = {};
        for (size_t i = 0; i < m; ++i) {
            if (!use[i])
                continue;
            const double row[3] = {1.0, mics[i].position.x, mics[i].position.y};
            for (int r = 0; r < 3; ++r) {
                for (int c = 0; c < 3; ++c)
                    a[r][c] += row[r] * row[c];
                a[r][3] += row[r] * res[i];
            }
        }
        // Gauss-Jordan with partial pivoting on the 3 x 3 normal equations.
        for (int c = 0; c < 3; ++c) {
            int p = c;
            for (int r = c + 1; r < 3; ++r)
                if (std::fabs(a[r][c]) > std::fabs(a[p][c]))
                    p = r;
            std::swap(a[c], a[p]);
            if (std::fabs(a[c][c]) < 1e-30)
                continue;
            for (int r = 0; r < 3; ++r)
                if (r != c) {
                    const double f = a[r][c] / a[c][c];
                    for (int k = c; k < 4; ++k)
                        a[r][k] -= f * a[c][k];
                }
        }
        for (int c = 0; c < 3; ++c)
            fit[c] = std::fabs(a[c][c]) < 1e-30 ? 0.0 : a[c][3] / a[c][c];
        std::vector<double> dev;
        for (size_t i = 0; i < m; ++i)
            if (mics[i].delayKnown && use[i])
                dev.push_back(std::fabs(res[i] - fit[0] - fit[1] * mics[i].position.x - fit[2] * mics[i].position.y));
        sigma = 1.4826 * median(dev);
        const double tol = std::max(lim.delaySpread * sigma, lim.delayFloorSamples / sampleRate);
        for (size_t i = 0; i < m; ++i)
            use[i] = mics[i].delayKnown &&
                     std::fabs(res[i] - fit[0] - fit[1] * mics[i].position.x - fit[2] * mics[i].position.y) <= tol;
    }
    const double tol = std::max(lim.delaySpread * sigma, lim.delayFloorSamples / sampleRate);
    std::vector<double> meas(m), pred(m);
    for (size_t i = 0; i < m; ++i) {
        meas[i] = raw[i] - fit[0];
        pred[i] = predictedS[i] + fit[1] * mics[i].position.x + fit[2] * mics[i].position.y;
        mics[i].delayUs = 1e6 * meas[i];
        mics[i].predictedUs = 1e6 * pred[i];
    }
    auto off = [&](size_t i) { return mics[i].delayKnown && std::fabs(meas[i] - pred[i]) > tol; };
    for (size_t i = 0; i < m; ++i) {
        if (!off(i))
            continue;
        // Swapped: each one's delay fits the other's place.
        double bestErr = 2 * tol;
        for (size_t j = 0; j < m; ++j) {
            if (j == i || !off(j))
                continue;
            const double e1 = std::fabs(meas[i] - pred[j]), e2 = std::fabs(meas[j] - pred[i]);
            if (e1 <= tol && e2 <= tol && e1 + e2 < bestErr) {
                bestErr = e1 + e2;
                mics[i].swappedWith = static_cast<int>(j);
            }
        }
    }
    for (size_t i = 0; i < m; ++i) {
        MicReport& r = mics[i];
        if (!r.delayKnown)
            continue;
        // Only a pair that names each other counts as swapped.
        if (r.swappedWith >= 0 && mics[static_cast<size_t>(r.swappedWith)].swappedWith == static_cast<int>(i))
            r.status = "swapped with " + std::to_string(r.swappedWith);
        else if (off(i))
            r.status = "misplaced";
        else if (r.polarity < 0)
            r.status = "inverted";
        if (r.status.rfind("swapped", 0) != 0)
            r.swappedWith = -1;
    }
}

} // namespace akutool
