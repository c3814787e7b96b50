#include "scene.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <fftw3.h>
#include <memory>
#include <random>

#include "common.h"
#include "ini.h"
#include "wavio.h"

namespace akutool {

namespace {

const char* const kSceneKeys[] = {"duration", "sample_rate", "seed", "speed_of_sound", "mic_noise_db"};
const char* const kSourceKeys[] = {"position", "direction", "pixel", "distance", "signal", "band",
                                   "frequency", "file", "channel", "level_db"};

template <size_t N>
void checkKeys(const IniFile& ini, const std::string& section, const char* const (&allowed)[N])
{
    for (const std::string& k : ini.keys(section)) {
        if (std::find_if(std::begin(allowed), std::end(allowed), [&](const char* a) { return k == a; }) ==
            std::end(allowed))
            throw ToolError(ini.where(section, k) + ": unknown key");
    }
}

Vec3 vec3(const IniFile& ini, const std::string& s, const std::string& key)
{
    std::vector<double> v = ini.getList(s, key, 3);
    return {v[0], v[1], v[2]};
}

// Independent, reproducible random streams: one per source and one per
// capture channel, derived from the scene seed.
uint64_t splitmix(uint64_t x)
{
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Gaussian numbers by the Box-Muller transform on the fully specified
// 64-bit Mersenne Twister, so that a seed gives the same signal with every
// standard library.
class Gauss {
public:
    Gauss(uint64_t seed, uint64_t stream) : eng_(splitmix(seed ^ splitmix(stream + 1))) {}
    double uniform() // (0, 1]
    {
        return (static_cast<double>(eng_() >> 11) + 1.0) * (1.0 / 9007199254740992.0);
    }
    double next()
    {
        if (have_) {
            have_ = false;
            return spare_;
        }
        double r = std::sqrt(-2.0 * std::log(uniform()));
        double a = 2.0 * M_PI * uniform();
        spare_ = r * std::sin(a);
        have_ = true;
        return r * std::cos(a);
    }

private:
    std::mt19937_64 eng_;
    bool have_ = false;
    double spare_ = 0;
};

struct FftwFree {
    void operator()(void* p) const { fftw_free(p); }
};

} // namespace

Scene parseScene(const IniFile& ini)
{
    Scene sc;
    for (const std::string& sec : ini.sections()) {
        if (sec.empty()) {
            if (!ini.keys(sec).empty())
                throw ToolError(ini.where(sec, ini.keys(sec).front()) + ": key outside any section");
            continue;
        }
        if (sec == "scene") {
            checkKeys(ini, sec, kSceneKeys);
            sc.duration = ini.getDouble(sec, "duration", sc.duration);
            if (!(sc.duration > 0.0) || sc.duration > 3600.0)
                throw ToolError(ini.where(sec, "duration") + ": must lie in (0, 3600] seconds");
            long rate = ini.getLong(sec, "sample_rate", 0);
            if (rate < 0 || rate > 1000000)
                throw ToolError(ini.where(sec, "sample_rate") + ": out of range");
            sc.sampleRate = static_cast<int>(rate);
            long seed = ini.getLong(sec, "seed", 1);
            sc.seed = static_cast<uint64_t>(seed);
            sc.speedOfSound = ini.getDouble(sec, "speed_of_sound", sc.speedOfSound);
            if (!(sc.speedOfSound > 0))
                throw ToolError(ini.where(sec, "speed_of_sound") + ": must be positive");
            if (ini.has(sec, "mic_noise_db")) {
                sc.micNoise = true;
                sc.micNoiseDb = ini.getDouble(sec, "mic_noise_db", -200);
            }
            continue;
        }
        if (sec.compare(0, 6, "source") != 0)
            throw ToolError(ini.name() + ": unknown section [" + sec + "] (expected [scene] or [source ...])");
        checkKeys(ini, sec, kSourceKeys);
        SourceSpec s;
        s.name = sec;
        int places = ini.has(sec, "position") + ini.has(sec, "direction") + ini.has(sec, "pixel");
        if (places != 1)
            throw ToolError(ini.name() + ": [" + sec + "] needs exactly one of position, direction, pixel");
        if (ini.has(sec, "position")) {
            s.placement = Placement::Position;
            s.position = vec3(ini, sec, "position");
            if (s.position.z <= 0.0)
                throw ToolError(ini.where(sec, "position") + ": z must be positive (in front of the array)");
            if (ini.has(sec, "distance"))
                throw ToolError(ini.where(sec, "distance") + ": a position already fixes the distance");
        } else if (ini.has(sec, "direction")) {
            s.placement = Placement::Direction;
            s.direction = vec3(ini, sec, "direction");
            if (!(norm(s.direction) > 0.0) || s.direction.z <= 0.0)
                throw ToolError(ini.where(sec, "direction") + ": needs a positive z component");
        } else {
            s.placement = Placement::Pixel;
            std::vector<double> p = ini.getList(sec, "pixel", 2);
            s.row = p[0];
            s.col = p[1];
        }
        s.distance = ini.getDouble(sec, "distance", 0.0);
        if (ini.has(sec, "distance") && !(s.distance > 0.0))
            throw ToolError(ini.where(sec, "distance") + ": must be positive");

        std::string kind = toLower(ini.get(sec, "signal", "noise"));
        if (kind == "noise") {
            s.signal = SignalKind::Noise;
            if (ini.has(sec, "band")) {
                std::vector<double> b = ini.getList(sec, "band", 2);
                if (!(b[0] >= 0.0 && b[1] > b[0]))
                    throw ToolError(ini.where(sec, "band") + ": expected 'low high' in Hz with low < high");
                s.bandLow = b[0];
                s.bandHigh = b[1];
            }
        } else if (kind == "tone") {
            s.signal = SignalKind::Tone;
            if (!ini.has(sec, "frequency"))
                throw ToolError(ini.name() + ": [" + sec + "] a tone needs 'frequency'");
            s.frequency = ini.getDouble(sec, "frequency", 0);
            if (!(s.frequency > 0.0))
                throw ToolError(ini.where(sec, "frequency") + ": must be positive");
        } else if (kind == "file") {
            s.signal = SignalKind::File;
            std::string f = ini.get(sec, "file", "");
            if (f.empty())
                throw ToolError(ini.name() + ": [" + sec + "] a file signal needs 'file'");
            s.file = (f.front() == '/') ? f : joinPath(dirName(ini.name()), f);
            s.fileChannel = static_cast<int>(ini.getLong(sec, "channel", 0));
        } else {
            throw ToolError(ini.where(sec, "signal") + ": '" + kind + "' is not noise, tone or file");
        }
        if (s.signal != SignalKind::Noise && ini.has(sec, "band"))
            throw ToolError(ini.where(sec, "band") + ": only noise signals take a band");
        if (s.signal != SignalKind::Tone && ini.has(sec, "frequency"))
            throw ToolError(ini.where(sec, "frequency") + ": only tones take a frequency");
        if (s.signal != SignalKind::File && (ini.has(sec, "file") || ini.has(sec, "channel")))
            throw ToolError(ini.name() + ": [" + sec + "] 'file' and 'channel' belong to signal = file");
        s.levelDb = ini.getDouble(sec, "level_db", s.signal == SignalKind::File ? 0.0 : -20.0);
        sc.sources.push_back(s);
    }
    if (sc.sources.empty())
        throw ToolError(ini.name() + ": no [source ...] section");
    return sc;
}

ResolvedSource resolveSource(const SourceSpec& s, const ImageGeometry& image)
{
    ResolvedSource r;
    r.spec = s;
    switch (s.placement) {
    case Placement::Position:
        r.planeWave = false;
        r.v = s.position;
        return r;
    case Placement::Direction:
        r.v = (1.0 / norm(s.direction)) * s.direction;
        break;
    case Placement::Pixel: {
        if (s.row < -0.5 || s.col < -0.5 || s.row > image.rows - 0.5 || s.col > image.cols - 0.5)
            throw ToolError("[" + s.name + "] pixel (" + std::to_string(s.row) + ", " + std::to_string(s.col) +
                            ") lies outside the " + std::to_string(image.rows) + " x " +
                            std::to_string(image.cols) + " image");
        PixelTarget t = pixelTarget(image, s.row, s.col);
        if (t.nearField && s.distance <= 0.0) {
            r.planeWave = false;
            r.v = t.v;
            return r;
        }
        r.v = (1.0 / norm(t.v)) * t.v;
        break;
    }
    }
    if (s.distance > 0.0) {
        r.planeWave = false;
        r.v = s.distance * r.v;
    }
    return r;
}

std::vector<std::vector<float>> simulateScene(const Scene& scene, const std::vector<ResolvedSource>& sources,
                                              const ArrayLayout& array, int fs)
{
    const int mics = static_cast<int>(array.position.size());
    const long len = std::lround(scene.duration * fs);
    if (len < 1)
        throw ToolError("the scene is shorter than one sample");
    const double c = scene.speedOfSound;

    // Per source and microphone: delay in seconds after the arrival at the
    // array centre, and amplitude factor.
    std::vector<std::vector<double>> tau(sources.size(), std::vector<double>(mics));
    std::vector<std::vector<double>> gain(sources.size(), std::vector<double>(mics));
    double maxShift = 0;
    for (size_t s = 0; s < sources.size(); ++s) {
        const ResolvedSource& src = sources[s];
        for (int m = 0; m < mics; ++m) {
            const Vec3& p = array.position[m];
            if (src.planeWave) {
                tau[s][m] = -dot(p, src.v) / c;
                gain[s][m] = 1.0;
            } else {
                double r = norm(src.v - p);
                if (r < 0.01)
                    throw ToolError("[" + src.spec.name + "] lies within 1 cm of a microphone");
                tau[s][m] = (r - norm(src.v)) / c;
                gain[s][m] = 1.0 / r;
            }
            maxShift = std::max(maxShift, std::fabs(tau[s][m]) * fs);
        }
    }

    // Signals are made on a longer, periodic support so that the circular
    // fractional delays never wrap into the part that is kept.
    const long pad = static_cast<long>(std::ceil(maxShift)) + 64;
    long lp = len + 2 * pad;
    lp += lp & 1;
    const long bins = lp / 2 + 1;
    std::unique_ptr<double, FftwFree> time(fftw_alloc_real(static_cast<size_t>(lp)));
    std::unique_ptr<fftw_complex, FftwFree> spec(fftw_alloc_complex(static_cast<size_t>(bins)));
    std::unique_ptr<fftw_complex, FftwFree> work(fftw_alloc_complex(static_cast<size_t>(bins)));
    fftw_plan fwd = fftw_plan_dft_r2c_1d(static_cast<int>(lp), time.get(), spec.get(), FFTW_ESTIMATE);
    fftw_plan inv = fftw_plan_dft_c2r_1d(static_cast<int>(lp), work.get(), time.get(), FFTW_ESTIMATE);
    std::unique_ptr<fftw_plan_s, void (*)(fftw_plan)> fwdGuard(fwd, fftw_destroy_plan);
    std::unique_ptr<fftw_plan_s, void (*)(fftw_plan)> invGuard(inv, fftw_destroy_plan);

    // Each microphone's signal goes straight into the plane of its capture
    // channel (float, as written to the file).
    const double bytes = 4.0 * array.captureChannels * static_cast<double>(len);
    if (bytes > 8e9)
        throw ToolError("the recording would take " + std::to_string(static_cast<long>(bytes / 1e9)) +
                        " GB; shorten the duration");
    std::vector<std::vector<float>> planes(static_cast<size_t>(array.captureChannels),
                                           std::vector<float>(static_cast<size_t>(len), 0.0f));
    std::vector<int> owner(static_cast<size_t>(array.captureChannels), -1);
    for (int m = 0; m < mics; ++m) {
        int ch = array.channel[m];
        if (ch < 0 || ch >= array.captureChannels)
            throw ToolError("microphone " + std::to_string(m) + " is wired to channel " + std::to_string(ch) +
                            ", outside the recording");
        if (owner[ch] >= 0)
            throw ToolError("microphones " + std::to_string(owner[ch]) + " and " + std::to_string(m) +
                            " share capture channel " + std::to_string(ch));
        owner[ch] = m;
    }
    for (size_t s = 0; s < sources.size(); ++s) {
        const SourceSpec& sp = sources[s].spec;
        Gauss rng(scene.seed, s + 1);
        if (sp.signal == SignalKind::Tone) {
            if (sp.frequency >= fs * 0.5)
                throw ToolError("[" + sp.name + "] tone at " + std::to_string(sp.frequency) +
                                " Hz is not below half the sample rate");
            // A tone is delayed analytically: exact, and free of the ringing
            // a non-periodic tone would get from a circular delay.
            const double amp = std::sqrt(2.0) * std::pow(10.0, sp.levelDb / 20.0);
            const double phase0 = 2.0 * M_PI * rng.uniform();
            const double w = 2.0 * M_PI * sp.frequency;
            for (int m = 0; m < mics; ++m) {
                float* out = planes[static_cast<size_t>(array.channel[m])].data();
                for (long n = 0; n < len; ++n)
                    out[n] += static_cast<float>(amp * gain[s][m] *
                                                 std::sin(w * (static_cast<double>(n) / fs - tau[s][m]) + phase0));
            }
            continue;
        }
        double* x = time.get();
        double scale = 1.0;
        if (sp.signal == SignalKind::Noise) {
            for (long n = 0; n < lp; ++n)
                x[n] = rng.next();
        } else {
            int rate = 0;
            std::vector<float> mono = readMono(sp.file, sp.fileChannel, rate);
            if (rate != fs)
                throw ToolError(sp.file + " is sampled at " + std::to_string(rate) + " Hz, the scene at " +
                                std::to_string(fs) + " Hz");
            std::fill(x, x + lp, 0.0);
            // Sample 0 of the file arrives at the array centre at time 0.
            for (long n = 0; n < len + pad && n < static_cast<long>(mono.size()); ++n)
                x[pad + n] = mono[static_cast<size_t>(n)];
            scale = std::pow(10.0, sp.levelDb / 20.0);
        }
        fftw_execute(fwd);
        fftw_complex* S = spec.get();
        S[bins - 1][0] = S[bins - 1][1] = 0.0; // Nyquist: a delay would make it complex
        if (sp.signal == SignalKind::Noise) {
            if (sp.bandHigh > 0.0) {
                for (long k = 0; k < bins; ++k) {
                    double f = static_cast<double>(k) * fs / lp;
                    if (f < sp.bandLow || f > sp.bandHigh)
                        S[k][0] = S[k][1] = 0.0;
                }
            }
            // Parseval on the periodic support: mean power of the
            // (band-limited) noise, scaled to the requested RMS.
            double energy = S[0][0] * S[0][0] + S[0][1] * S[0][1];
            for (long k = 1; k < bins - 1; ++k)
                energy += 2.0 * (S[k][0] * S[k][0] + S[k][1] * S[k][1]);
            double rms = std::sqrt(energy / lp / lp);
            if (!(rms > 0.0))
                throw ToolError("[" + sp.name + "] the band holds no frequency of the recording");
            scale = std::pow(10.0, sp.levelDb / 20.0) / rms;
        }
        for (int m = 0; m < mics; ++m) {
            fftw_complex* Y = work.get();
            const double g = scale * gain[s][m] / lp; // 1/lp: FFTW's inverse is unnormalised
            const double step = -2.0 * M_PI * tau[s][m] * fs / lp;
            for (long k = 0; k < bins; ++k) {
                std::complex<double> e = std::polar(g, step * static_cast<double>(k));
                std::complex<double> v = std::complex<double>(S[k][0], S[k][1]) * e;
                Y[k][0] = v.real();
                Y[k][1] = v.imag();
            }
            fftw_execute(inv);
            float* out = planes[static_cast<size_t>(array.channel[m])].data();
            for (long n = 0; n < len; ++n)
                out[n] += static_cast<float>(x[pad + n]);
        }
    }

    if (scene.micNoise) {
        const double sigma = std::pow(10.0, scene.micNoiseDb / 20.0);
        for (int ch = 0; ch < array.captureChannels; ++ch) {
            Gauss rng(scene.seed, 0x100000ull + static_cast<uint64_t>(ch));
            for (long n = 0; n < len; ++n)
                planes[ch][n] += static_cast<float>(sigma * rng.next());
        }
    }
    return planes;
}

} // namespace akutool
