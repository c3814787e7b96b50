// Python module "akudoa": the kernel over numpy arrays.
//
// Every argument is checked here, with the GIL held, before the library
// sees it: the library trusts its caller (sizes, ranges, life cycle), Python
// users must get an exception instead. Frame calls then release the GIL.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include <iniparser.h>
#include <unistd.h>

#include "AKUDoa/akudoakernel.h"
#include "AKUDoa/base/akudoalogging.h"
#include "AKUDoa/base/akudoamatrix.h"

namespace py = pybind11;

namespace {

// ---------------------------------------------------------------------------
// Log lines. The handler stays installed for the life of the process so that
// a failed init can quote the library's last line; lines reach Python's
// logging only while forwarding is on.

std::atomic<bool> g_forward{false};
thread_local std::string t_lastLine;

std::string stripLine(const char* message)
{
    std::string s = message ? message : "";
    const std::string tag = "[AKUDOALIB] ";
    if (s.compare(0, tag.size(), tag) == 0)
        s.erase(0, tag.size());
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
        s.pop_back();
    return s;
}

void logHandler(const char*, int, const char*, const char* message)
{
    std::string line = stripLine(message);
    if (g_forward.load(std::memory_order_relaxed) && Py_IsInitialized()) {
        // May run on an OpenMP worker or a thread that released the GIL.
        py::gil_scoped_acquire gil;
        try {
            py::module_::import("logging").attr("getLogger")("akudoa").attr("info")(line);
        } catch (py::error_already_set&) {
            // A failing Python handler must not unwind through the library.
        }
    }
    t_lastLine = std::move(line);
}

// FFTW's planner is not thread-safe: every call that builds engines (init,
// program switch, focus change) runs under this one lock, across kernels.
std::mutex g_plannerMutex;

// A caller-owned mat2d_fp32 over numpy rows: row pointers only, no copy.
struct RowView {
    std::vector<float*> rows;
    mat2d_fp32 m{};
    RowView(float* base, py::ssize_t rowStride, int nRows, int nCols)
    {
        rows.resize(static_cast<size_t>(nRows));
        for (int r = 0; r < nRows; ++r)
            rows[static_cast<size_t>(r)] = reinterpret_cast<float*>(reinterpret_cast<char*>(base) + rowStride * r);
        m.rows = nRows;
        m.cols = nCols;
        m.data = rows.data();
    }
};

py::array_t<float> newMap(int rows, int cols)
{
    py::array_t<float> a({static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(cols)});
    std::fill(a.mutable_data(), a.mutable_data() + a.size(), 0.0f);
    return a;
}

RowView viewOf(py::array_t<float>& a)
{
    return RowView(a.mutable_data(), a.strides(0), static_cast<int>(a.shape(0)), static_cast<int>(a.shape(1)));
}

const char* const kProgramKey = "DOA:DOAVersionSelect";

class Kernel {
public:
    explicit Kernel(const std::string& path)
    {
        if (access(path.c_str(), R_OK) != 0)
            throw py::value_error("cannot read the configuration " + path);
        precheck(path);
        auto k = std::make_unique<AKUDoaKernel>();
        bool ok;
        {
            py::gil_scoped_release nogil;
            std::lock_guard<std::mutex> planner(g_plannerMutex);
            t_lastLine.clear();
            ok = k->init(path.c_str());
        }
        if (!ok)
            throw std::runtime_error("the library could not initialise from " + path + ": " + t_lastLine);
        k_ = std::move(k);
        open_ = true;
        const StCamCfg* c = k_->camConfig();
        rows_ = c->imageResolutionRow;
        cols_ = c->imageResolutionCol;
        frameSize_ = c->frameSize;
        mics_ = c->channelNum;
        linear_ = rows_ == 1;
        extra_ = c->extraEn;
        distance_ = c->distanceMeasureEn;
        for (int m = 0; m < mics_; ++m)
            inputChannels_ = std::max(inputChannels_, c->micIndex[m] + 1);
        spectrum_.assign(static_cast<size_t>(frameSize_ / 2 + 1), 0.0f);
    }

    void close()
    {
        py::gil_scoped_release nogil;
        std::lock_guard<std::mutex> lock(mutex_);
        std::lock_guard<std::mutex> planner(g_plannerMutex);
        open_ = false;
        k_.reset();
    }
    bool closed() const { return !open_; }

    py::array_t<float> heatMap(const py::object& frame, int channel)
    {
        RowView in = frameView(frame);
        planarOnly("heat_map");
        checkChannel(channel);
        py::array_t<float> out = newMap(rows_, cols_);
        RowView o = viewOf(out);
        run("heat_map", [&](AKUDoaKernel& k) { return readWithSpectrum(k, in, o, channel); });
        return out;
    }

    std::tuple<py::array_t<float>, float> heatMapWithDistance(const py::object& frame, int row, int col)
    {
        RowView in = frameView(frame);
        planarOnly("heat_map_with_distance");
        checkCell(row, col);
        if (!distance_)
            throw std::runtime_error("heat_map_with_distance: distance measurement is off in this configuration "
                                     "(AcousticCameraParam:distanceMeasure_en)");
        py::array_t<float> out = newMap(rows_, cols_);
        RowView o = viewOf(out);
        float distance = 0.0f;
        run("heat_map_with_distance", [&](AKUDoaKernel& k) {
            vec_fp32 s{static_cast<int32_t>(spectrum_.size()), spectrum_.data()};
            const bool ok = k.readHeatMap(&in.m, &o.m, fpoint2d{0.0f, row, col}, distance, &s, 0);
            haveSpectrum_ = haveSpectrum_ || ok;
            return ok;
        });
        return {out, distance};
    }

    std::tuple<py::array_t<float>, int, int, float> heatMapWithRange(const py::object& frame, int row, int col)
    {
        RowView in = frameView(frame);
        planarOnly("heat_map_with_range");
        checkCell(row, col);
        py::array_t<float> out = newMap(rows_, cols_);
        RowView o = viewOf(out);
        int low = 0, high = 0;
        float power = 0.0f;
        run("heat_map_with_range", [&](AKUDoaKernel& k) {
            vec_fp32 s{static_cast<int32_t>(spectrum_.size()), spectrum_.data()};
            const bool ok = k.readHeatMap(&in.m, &o.m, fpoint2d{0.0f, row, col}, low, high, power, &s, 0);
            haveSpectrum_ = haveSpectrum_ || ok;
            return ok;
        });
        return {out, low, high, power};
    }

    float targetPower(int row, int col)
    {
        planarOnly("target_power");
        checkCell(row, col);
        float power = 0.0f;
        run("target_power", [&](AKUDoaKernel& k) {
            power = k.getPaWithTarget(fpoint2d{0.0f, row, col}).val;
            return true;
        });
        return power;
    }

    py::array_t<float> pickup(const py::object& frame, int row, int col, bool atCell)
    {
        RowView in = frameView(frame);
        planarOnly("pickup");
        checkCell(row, col);
        py::array_t<float> audio(static_cast<py::ssize_t>(frameSize_));
        std::fill(audio.mutable_data(), audio.mutable_data() + audio.size(), 0.0f);
        vec_fp32 a{frameSize_, audio.mutable_data()};
        run("pickup", [&](AKUDoaKernel& k) {
            const fpoint2d t{0.0f, row, col};
            return atCell ? k.readPickedUpAudioAtCell(&in.m, &a, t) : k.readPickedUpAudio(&in.m, &a, t);
        });
        return audio;
    }

    std::tuple<py::array_t<float>, py::array_t<float>> lineMaps(const py::object& frame)
    {
        RowView in = frameView(frame);
        if (!linear_)
            throw std::runtime_error("line_maps: this is a planar configuration (image_resolution_row > 1); "
                                     "use heat_map");
        py::array_t<float> m0 = newMap(rows_, cols_), m1 = newMap(rows_, cols_);
        RowView o0 = viewOf(m0), o1 = viewOf(m1);
        run("line_maps", [&](AKUDoaKernel& k) { return k.readLineHeatMap(&in.m, &o0.m, &o1.m); });
        return {m0, m1};
    }

    py::array_t<float> extraMap(const py::object& frame)
    {
        RowView in = frameView(frame);
        planarOnly("extra_map");
        if (!extra_)
            throw std::runtime_error("extra_map: the extended view is off in this configuration (DOA:extra_en)");
        py::array_t<float> out = newMap(rows_ / 2, cols_ / 2);
        RowView o = viewOf(out);
        run("extra_map", [&](AKUDoaKernel& k) { return k.readHeatMapExtra(&in.m, &o.m); });
        return out;
    }

    py::array_t<float> powerSpectrum()
    {
        py::array_t<float> out(static_cast<py::ssize_t>(spectrum_.size()));
        run("power_spectrum", [&](AKUDoaKernel&) {
            std::copy(spectrum_.begin(), spectrum_.end(), out.mutable_data());
            return haveSpectrum_;
        }, "no heat map has been read yet");
        return out;
    }

    int program()
    {
        int v = 0;
        run("program", [&](AKUDoaKernel& k) {
            v = k.camConfig()->doaVersionSelect;
            return true;
        });
        return v;
    }

    void setProgram(int stored)
    {
        static const int kStored[4] = {3, 4, 53, 54};
        int index = -1;
        for (int i = 0; i < 4; ++i)
            if (kStored[i] == stored)
                index = i;
        if (index < 0)
            throw py::value_error("program must be 3, 4, 53 or 54");
        planarOnly("program");
        run("program", [&](AKUDoaKernel& k) {
            std::lock_guard<std::mutex> planner(g_plannerMutex);
            k.setDoaProgram(static_cast<DOAProgarm>(index));
            return k.camConfig()->doaVersionSelect == stored;
        });
    }

    float focusDistance()
    {
        float v = 0.0f;
        run("focus_distance", [&](AKUDoaKernel& k) {
            v = k.getFocusDis();
            return true;
        });
        return v;
    }
    bool focusEnabled()
    {
        bool v = false;
        run("focus_enabled", [&](AKUDoaKernel& k) {
            v = k.getFocusDisEn();
            return true;
        });
        return v;
    }
    void setFocus(float distance, bool enable)
    {
        // Bounded so that delays derived from it stay far inside int range.
        if (!(distance >= 0.01f && distance <= 1.0e4f))
            throw py::value_error("focus_distance must lie in 0.01 ... 10000 metres");
        run("focus", [&](AKUDoaKernel& k) {
            std::lock_guard<std::mutex> planner(g_plannerMutex);
            k.setFocusDis(distance, enable);
            return true;
        });
    }
    void setFocusDistance(float d) { setFocus(d, focusEnabled()); }
    void setFocusEnabled(bool on) { setFocus(focusDistance(), on); }

    bool spectrumSelf()
    {
        bool v = false;
        run("spectrum_self", [&](AKUDoaKernel& k) {
            v = k.spectrumSelf();
            return true;
        });
        return v;
    }
    void setSpectrumSelf(bool on)
    {
        run("spectrum_self", [&](AKUDoaKernel& k) {
            k.setSpectrumSelf(on);
            return true;
        });
    }
    bool focusRadius()
    {
        bool v = false;
        run("focus_radius", [&](AKUDoaKernel& k) {
            v = k.focusRadius();
            return true;
        });
        return v;
    }
    void setFocusRadius(bool on)
    {
        run("focus_radius", [&](AKUDoaKernel& k) {
            k.setFocusRadius(on);
            return true;
        });
    }

    // The library has no window getters: the last window set is remembered.
    py::tuple doaWindow() const { return doaWindow_; }
    py::tuple pickupWindow() const { return pickupWindow_; }
    void setDoaWindow(const py::tuple& w)
    {
        const auto [type, p1, p2, p3] = window(w);
        run("doa_window", [&](AKUDoaKernel& k) {
            k.setFFTWindow_doa(type, p1, p2, p3);
            return true;
        });
        doaWindow_ = py::make_tuple(static_cast<int>(type), p1, p2, p3);
    }
    void setPickupWindow(const py::tuple& w)
    {
        const auto [type, p1, p2, p3] = window(w);
        run("pickup_window", [&](AKUDoaKernel& k) {
            k.setFFTWindow_pickup(type, p1, p2, p3);
            return true;
        });
        pickupWindow_ = py::make_tuple(static_cast<int>(type), p1, p2, p3);
    }

    py::tuple coordinateMatrix()
    {
        CordinateMat m{};
        run("coordinate_matrix", [&](AKUDoaKernel& k) {
            m = k.cordinateMat();
            return true;
        });
        return py::make_tuple(m.rx1, m.rx2, m.rx3, m.ry1, m.ry2, m.ry3);
    }
    void setCoordinateMatrix(const py::sequence& s)
    {
        if (py::len(s) != 6)
            throw py::value_error("coordinate_matrix takes six numbers: rx1, rx2, rx3, ry1, ry2, ry3");
        float v[6];
        for (int i = 0; i < 6; ++i) {
            v[i] = s[static_cast<size_t>(i)].cast<float>();
            // Mapped positions are rounded to int: keep them far inside range.
            if (!(std::fabs(v[i]) <= 1.0e4f))
                throw py::value_error("coordinate_matrix entries must lie in -10000 ... 10000");
        }
        planarOnly("coordinate_matrix");
        run("coordinate_matrix", [&](AKUDoaKernel& k) {
            k.updateCordinateMat(CordinateMat{v[0], v[1], v[2], v[3], v[4], v[5]});
            return true;
        });
    }

    // Array geometry in array order: input channel, x and y in metres.
    py::tuple microphones()
    {
        py::array_t<int> channel(static_cast<py::ssize_t>(mics_));
        py::array_t<double> xy({static_cast<py::ssize_t>(mics_), static_cast<py::ssize_t>(2)});
        run("microphones", [&](AKUDoaKernel& k) {
            const StCamCfg* c = k.camConfig();
            for (int m = 0; m < mics_; ++m) {
                channel.mutable_at(m) = c->micIndex[m];
                xy.mutable_at(m, 0) = c->micRadius[m] * std::cos(static_cast<double>(c->micPhi[m]));
                xy.mutable_at(m, 1) = c->micRadius[m] * std::sin(static_cast<double>(c->micPhi[m]));
            }
            return true;
        });
        return py::make_tuple(channel, xy);
    }

    int rows() { return accessor([](AKUDoaKernel& k) { return k.imgRows(); }); }
    int cols() { return accessor([](AKUDoaKernel& k) { return k.imgCols(); }); }
    int channels() { return accessor([](AKUDoaKernel& k) { return k.channelsCount(); }); }
    int neededChannels() { return accessor([](AKUDoaKernel& k) { return k.neededChannelsCount(); }); }
    int inputChannels() { return accessor([this](AKUDoaKernel&) { return inputChannels_; }); }
    int frameSize() { return accessor([](AKUDoaKernel& k) { return k.audioRecoverLength(); }); }
    int sampleRate() { return accessor([](AKUDoaKernel& k) { return k.samlpeRate(); }); }

    // Seconds per readHeatMap of the same frame called straight from C++
    // (buffers made once), the baseline for the binding's own overhead.
    double cxxFrameSeconds(const py::object& frame, int repeats)
    {
        RowView in = frameView(frame);
        planarOnly("_cxx_frame_seconds");
        py::array_t<float> out = newMap(rows_, cols_);
        RowView o = viewOf(out);
        double seconds = 0.0;
        run("_cxx_frame_seconds", [&](AKUDoaKernel& k) {
            vec_fp32 s{static_cast<int32_t>(spectrum_.size()), spectrum_.data()};
            bool ok = true;
            const auto t0 = std::chrono::steady_clock::now();
            for (int i = 0; i < repeats && ok; ++i)
                ok = k.readHeatMap(&in.m, &o.m, &s, 0);
            seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() /
                      std::max(repeats, 1);
            return ok;
        });
        return seconds;
    }

    // Wall time spent inside the library by heat_map so far: the rest of a
    // heat_map call is the binding's own cost.
    double kernelSeconds()
    {
        double v = 0.0;
        run("_kernel_seconds", [&](AKUDoaKernel&) {
            v = kernelSeconds_;
            return true;
        });
        return v;
    }

private:
    // Keys whose wrong values the library does not report: an unsupported
    // microphone count ends the process, frames above 1024 samples overrun
    // the per-bin gains. Read with the library's own INI reader.
    static void precheck(const std::string& path)
    {
        dictionary* ini = iniparser_load(path.c_str());
        if (!ini)
            return; // init reports it, with the library's reason
        const int mics = iniparser_getint(ini, "AudioRecordingParam:channel_num", 128);
        const int frame = iniparser_getint(ini, "AudioRecordingParam:frame_size", 1024);
        const int rows = iniparser_getint(ini, "AcousticCameraParam:image_resolution_row", 64);
        const int cols = iniparser_getint(ini, "AcousticCameraParam:image_resolution_col", 48);
        const int rate = iniparser_getint(ini, "AudioRecordingParam:sample_frequency", 96000);
        const int program = iniparser_getint(ini, kProgramKey, 3);
        iniparser_freedict(ini);
        const std::string where = path + ": ";
        if (mics != 8 && mics != 16 && mics != 36 && mics != 48 && mics != 64 && mics != 128)
            throw py::value_error(where + "channel_num = " + std::to_string(mics) +
                                  ": the library supports 8, 16, 36, 48, 64 or 128 microphones");
        if (frame < 16 || frame > 1024)
            throw py::value_error(where + "frame_size = " + std::to_string(frame) + ": must lie in 16 ... 1024");
        if (rows < 1 || cols < 1 || rows > 4096 || cols > 4096)
            throw py::value_error(where + "image_resolution_row/col must lie in 1 ... 4096");
        if (rate < 1000)
            throw py::value_error(where + "sample_frequency = " + std::to_string(rate) + ": too low");
        if (rows > 1 && program != 3 && program != 4 && program != 53 && program != 54)
            throw py::value_error(where + "DOAVersionSelect = " + std::to_string(program) +
                                  ": must be 3, 4, 53 or 54");
    }

    RowView frameView(const py::object& obj) const
    {
        if (!open_)
            throw std::runtime_error("the kernel is closed");
        if (!py::isinstance<py::array>(obj))
            throw py::type_error("frame must be a numpy.ndarray of float32, shape (channels, samples)");
        py::array a = py::reinterpret_borrow<py::array>(obj);
        if (!a.dtype().is(py::dtype::of<float>()))
            throw py::type_error("frame must be float32 (native byte order), not " +
                                 py::str(a.dtype()).cast<std::string>());
        const std::string want = "(" + std::to_string(inputChannels_) + " or more channels, " +
                                 std::to_string(frameSize_) + " samples)";
        if (a.ndim() != 2)
            throw py::value_error("frame must be two-dimensional " + want);
        if (a.shape(1) != frameSize_ || a.shape(0) < inputChannels_) {
            std::string msg = "frame has shape (" + std::to_string(a.shape(0)) + ", " + std::to_string(a.shape(1)) +
                              "), expected " + want;
            if (a.shape(0) == frameSize_ && a.shape(1) >= inputChannels_)
                msg += "; for interleaved (samples, channels) audio pass numpy.ascontiguousarray(frame.T)";
            throw py::value_error(msg);
        }
        const auto addr = reinterpret_cast<uintptr_t>(a.data());
        if (a.strides(1) != static_cast<py::ssize_t>(sizeof(float)) || addr % alignof(float) != 0 ||
            a.strides(0) % static_cast<py::ssize_t>(sizeof(float)) != 0)
            throw py::value_error("the samples of each channel must be contiguous and aligned; pass "
                                  "numpy.ascontiguousarray(frame)");
        return RowView(const_cast<float*>(static_cast<const float*>(a.data())), a.strides(0),
                       static_cast<int>(a.shape(0)), frameSize_);
    }

    void planarOnly(const char* what) const
    {
        if (!open_)
            throw std::runtime_error("the kernel is closed");
        if (linear_)
            throw std::runtime_error(std::string(what) +
                                     ": not available for a linear-array configuration (use line_maps)");
    }
    void checkCell(int row, int col) const
    {
        if (row < 0 || row >= rows_ || col < 0 || col >= cols_)
            throw py::index_error("cell (" + std::to_string(row) + ", " + std::to_string(col) +
                                  ") lies outside the " + std::to_string(rows_) + " x " + std::to_string(cols_) +
                                  " heat map");
    }
    void checkChannel(int channel) const
    {
        if (channel < 0 || channel >= mics_)
            throw py::index_error("channel " + std::to_string(channel) + " outside 0 ... " +
                                  std::to_string(mics_ - 1));
    }

    bool readWithSpectrum(AKUDoaKernel& k, RowView& in, RowView& o, int channel)
    {
        vec_fp32 s{static_cast<int32_t>(spectrum_.size()), spectrum_.data()};
        const auto t0 = std::chrono::steady_clock::now();
        const bool ok = k.readHeatMap(&in.m, &o.m, &s, channel);
        kernelSeconds_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        haveSpectrum_ = haveSpectrum_ || ok;
        return ok;
    }

    // Runs fn on the kernel without the GIL, serialised with the other calls
    // on this object (the library takes frames from one thread at a time,
    // and close() must wait for a running frame). False from fn raises.
    template <typename Fn>
    void run(const char* what, Fn&& fn, const char* reason = "the library refused the call")
    {
        bool ok = false;
        bool open = true;
        {
            py::gil_scoped_release nogil;
            std::lock_guard<std::mutex> lock(mutex_);
            if (!k_)
                open = false;
            else
                ok = fn(*k_);
        }
        if (!open)
            throw std::runtime_error("the kernel is closed");
        if (!ok)
            throw std::runtime_error(std::string(what) + ": " + reason);
    }
    template <typename Fn>
    int accessor(Fn&& fn)
    {
        int v = 0;
        run("accessor", [&](AKUDoaKernel& k) {
            v = fn(k);
            return true;
        });
        return v;
    }

    static std::tuple<FFTWindowType, float, float, float> window(const py::tuple& w)
    {
        if (py::len(w) != 4)
            throw py::value_error("a window is (type, p1, p2, p3)");
        const int type = w[0].cast<int>();
        if (type < 0 || type >= 15)
            throw py::value_error("window type must lie in 0 ... 14 (akudoa.Window)");
        const float p1 = w[1].cast<float>(), p2 = w[2].cast<float>(), p3 = w[3].cast<float>();
        if (!std::isfinite(p1) || !std::isfinite(p2) || !std::isfinite(p3))
            throw py::value_error("window parameters must be finite");
        return {static_cast<FFTWindowType>(type), p1, p2, p3};
    }

    std::unique_ptr<AKUDoaKernel> k_; // guarded by mutex_
    std::atomic<bool> open_{false};   // for the checks made with the GIL held
    std::mutex mutex_;
    int rows_ = 0, cols_ = 0, frameSize_ = 0, mics_ = 0, inputChannels_ = 0;
    bool linear_ = false, extra_ = false, distance_ = false, haveSpectrum_ = false;
    std::vector<float> spectrum_;
    double kernelSeconds_ = 0.0; // inside readHeatMap during heat_map calls
    py::tuple doaWindow_ = py::make_tuple(static_cast<int>(FFT_WINDOW_TUKEY), 0.0f, 0.0f, 0.2f);
    py::tuple pickupWindow_ = py::make_tuple(static_cast<int>(FFT_WINDOW_HANN), 0.0f, 0.0f, 1.0f);
};

} // namespace

PYBIND11_MODULE(akudoa, m)
{
    m.doc() = "Acoustic camera imaging: heat maps, target power, pickup audio over numpy arrays.";
    InstallDoaMessageHandler(logHandler);
    m.attr("__version__") = AKUDoaKernel::DoaVersion();
    m.def("enable_logging", [](bool on) { g_forward = on; }, py::arg("on") = true,
          "Route the library's log lines to the Python logger \"akudoa\" (level INFO).");
    // Lines logged while Python shuts down must not reach a dying interpreter.
    py::module_::import("atexit").attr("register")(py::cpp_function([]() { g_forward = false; }));

    py::enum_<FFTWindowType>(m, "Window", "Analysis window kinds for doa_window and pickup_window.")
        .value("RECTANGULAR", FFT_WINDOW_RECTANGULAR)
        .value("BARTLETT", FFT_WINDOW_BARTLETT)
        .value("BARTLETT_HANN", FFT_WINDOW_BARTLETT_HANN)
        .value("BLACKMAN", FFT_WINDOW_BLACKMAN)
        .value("BLACKMAN_HARRIS", FFT_WINDOW_BLACKMAN_HARRIS)
        .value("BOHMAN", FFT_WINDOW_BOHMAN)
        .value("CHEBYSHEV", FFT_WINDOW_CHEBYSHEV)
        .value("FLAT_TOP", FFT_WINDOW_FLAT_TOP)
        .value("GAUSSIAN", FFT_WINDOW_GAUSSIAN)
        .value("HAMMING", FFT_WINDOW_HAMMING)
        .value("HANN", FFT_WINDOW_HANN)
        .value("NUTTALL", FFT_WINDOW_NUTTALL)
        .value("PARZEN", FFT_WINDOW_PARZEN)
        .value("TRIANGULAR", FFT_WINDOW_TRIANGULAR)
        .value("TUKEY", FFT_WINDOW_TUKEY);

    const char* frameDoc = "frame: float32 array of shape (channels, frame_size), channels >= input_channels "
                           "(one row per capture channel, samples of a row contiguous; not copied).";
    py::class_<Kernel>(m, "Kernel", "One acoustic camera: Kernel(config_path) loads the INI file and builds "
                                    "the imaging tables. Frame calls release the GIL; calls on one Kernel "
                                    "are serialised.")
        .def(py::init<const std::string&>(), py::arg("config_path"))
        .def("close", &Kernel::close, "Release the library's kernel; later calls raise.")
        .def_property_readonly("closed", &Kernel::closed)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Kernel& k, py::args) { k.close(); })
        .def("heat_map", &Kernel::heatMap, py::arg("frame"), py::arg("channel") = 0,
             (std::string("Heat map (rows, cols) float32 of one frame; the power spectrum of array channel "
                          "`channel` is kept for power_spectrum(). ") + frameDoc).c_str())
        .def("heat_map_with_distance", &Kernel::heatMapWithDistance, py::arg("frame"), py::arg("row"),
             py::arg("col"), "(map, distance in metres to the source at cell (row, col)).")
        .def("heat_map_with_range", &Kernel::heatMapWithRange, py::arg("frame"), py::arg("row"), py::arg("col"),
             "(map, low_bin, high_bin, power): the target's frequency range and power.")
        .def("target_power", &Kernel::targetPower, py::arg("row"), py::arg("col"),
             "Amplitude arriving from cell (row, col) in the last frame.")
        .def("pickup", &Kernel::pickup, py::arg("frame"), py::arg("row"), py::arg("col"), py::arg("at_cell") = true,
             "frame_size samples of audio beamformed toward cell (row, col); at_cell=False steers at the "
             "library's raw target instead of the cell the heat map shows.")
        .def("line_maps", &Kernel::lineMaps, py::arg("frame"), "(map0, map1) of a linear-array configuration.")
        .def("extra_map", &Kernel::extraMap, py::arg("frame"), "Extended view (rows // 2, cols // 2).")
        .def("power_spectrum", &Kernel::powerSpectrum,
             "Power spectrum (frame_size // 2 + 1) of the last heat map, in the library's order: "
             "element n - 1 - i holds FFT bin i.")
        .def("_cxx_frame_seconds", &Kernel::cxxFrameSeconds, py::arg("frame"), py::arg("repeats"))
        .def_property_readonly("_kernel_seconds", &Kernel::kernelSeconds)
        .def_property("program", &Kernel::program, &Kernel::setProgram, "Imaging program: 3, 4, 53 or 54.")
        .def_property("focus_distance", &Kernel::focusDistance, &Kernel::setFocusDistance, "Metres.")
        .def_property("focus_enabled", &Kernel::focusEnabled, &Kernel::setFocusEnabled)
        .def_property("spectrum_self", &Kernel::spectrumSelf, &Kernel::setSpectrumSelf)
        .def_property("focus_radius", &Kernel::focusRadius, &Kernel::setFocusRadius)
        .def_property("doa_window", &Kernel::doaWindow, &Kernel::setDoaWindow, "(Window, p1, p2, p3).")
        .def_property("pickup_window", &Kernel::pickupWindow, &Kernel::setPickupWindow, "(Window, p1, p2, p3).")
        .def_property("coordinate_matrix", &Kernel::coordinateMatrix, &Kernel::setCoordinateMatrix,
                      "(rx1, rx2, rx3, ry1, ry2, ry3).")
        .def_property_readonly("microphones", &Kernel::microphones,
                               "(input channel per array position, (mics, 2) x/y positions in metres).")
        .def_property_readonly("rows", &Kernel::rows)
        .def_property_readonly("cols", &Kernel::cols)
        .def_property_readonly("channels", &Kernel::channels, "Microphones in the array.")
        .def_property_readonly("needed_channels", &Kernel::neededChannels, "Capture channels (128).")
        .def_property_readonly("input_channels", &Kernel::inputChannels, "Fewest rows a frame may have.")
        .def_property_readonly("frame_size", &Kernel::frameSize)
        .def_property_readonly("sample_rate", &Kernel::sampleRate)
        .def_property_readonly_static("version", [](py::object) { return AKUDoaKernel::DoaVersion(); });
}
