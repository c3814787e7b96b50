// akudoa serve: a live heat map in the browser, with listen-at-point.
#include "serve.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <ctime>
#include <sys/socket.h>

#include "AKUDoa/akudoa.h"
#include "args.h"
#include "camera.h"
#include "commands.h"
#include "common.h"
#include "inputs.h"
#include "render.h"

namespace akutool {

const char* const kServeHelp =
    "usage: akudoa serve --config CAMERA.ini --in RECORDING|- [--loop] [--listen HOST:PORT]\n"
    "                    [--raw-format s16|s32|f32] [--range DB] [--fast] [--max-frames N]\n"
    "                    [--clients N] [--cache DIR] [--verbose]\n"
    "\n"
    "Images the recording frame by frame at its real-time pace (--loop repeats a\n"
    "file; --in - reads raw samples from standard input as 'akudoa image' does)\n"
    "and serves a live view to browsers at http://HOST:PORT/ (default\n"
    "127.0.0.1:8080; port 0 picks a free one). The page shows the heat map with\n"
    "its peak and colour bar, has controls for the dynamic range, program, focus,\n"
    "frequency band and pause, and a click on the map gives the cell's power and\n"
    "frequency range (and distance where configured) and plays its sound.\n"
    "At most 8 browsers at once; a slow one loses its oldest frames and never\n"
    "holds up the imaging. SIGINT or SIGTERM ends the run with a summary.\n"
    "  --fast          image as fast as possible instead of in real time\n"
    "  --max-frames N  stop after N frames\n"
    "  --clients N     start imaging once N browsers are connected (benchmarks)\n";

namespace {

constexpr int kMaxClients = 8;
constexpr size_t kQueueFrames = 4;   // per client: a few frames, then drop the oldest
constexpr size_t kQueueAudio = 32;   // per listener: audio blocks
constexpr size_t kMaxBody = 1024;
constexpr size_t kHeaderBytes = 56;


volatile std::sig_atomic_t g_stop = 0;
void onStopSignal(int) { g_stop = 1; }
bool stopRequested() { return g_stop != 0; }

bool parseNumber(const std::string& v, double& out)
{
    try {
        out = parseDouble(v, "");
        return true;
    } catch (const ToolError&) {
        return false;
    }
}

bool parseInt(const std::string& v, long& out)
{
    try {
        out = parseLong(v, "");
        return true;
    } catch (const ToolError&) {
        return false;
    }
}

bool parseSwitch(const std::string& v, bool& out)
{
    if (v != "on" && v != "off")
        return false;
    out = v == "on";
    return true;
}

// One browser's stream: frames or audio blocks waiting to be sent.
struct Client {
    bool audio = false;
    std::deque<std::string> queue;
    long dropped = 0;
    std::chrono::steady_clock::time_point lastSent = std::chrono::steady_clock::now();
};

// Everything shared between the imaging loop and the HTTP threads.
class Hub {
public:
    std::mutex m;
    std::condition_variable cv;
    LiveSettings settings;
    long generation = 0; // bumped by every accepted control request
    LiveLimits limits;
    bool stopping = false;
    std::list<std::shared_ptr<Client>> clients;
    int mapClients = 0, audioClients = 0, mostClients = 0;
    long served = 0, dropped = 0, refused = 0, frames = 0;
    double fps = 0;
    bool distanceMeasure = false;
    int sampleRate = 0, frameSize = 0;

    // Null when the limit is reached.
    std::shared_ptr<Client> join(bool audio)
    {
        std::lock_guard<std::mutex> lk(m);
        int& n = audio ? audioClients : mapClients;
        if (stopping || n >= kMaxClients) {
            ++refused;
            return nullptr;
        }
        ++n;
        auto c = std::make_shared<Client>();
        c->audio = audio;
        clients.push_back(c);
        if (!audio) {
            ++served;
            mostClients = std::max(mostClients, mapClients);
        }
        cv.notify_all();
        return c;
    }

    void leave(const std::shared_ptr<Client>& c)
    {
        std::lock_guard<std::mutex> lk(m);
        auto it = std::find(clients.begin(), clients.end(), c);
        if (it == clients.end())
            return;
        if (!c->audio)
            dropped += c->dropped;
        --(c->audio ? audioClients : mapClients);
        clients.erase(it);
    }

    // Never waits for a client: a full queue loses its oldest entry.
    void push(bool audio, const std::string& msg)
    {
        std::lock_guard<std::mutex> lk(m);
        for (auto& c : clients) {
            if (c->audio != audio)
                continue;
            if (c->queue.size() >= (audio ? kQueueAudio : kQueueFrames)) {
                c->queue.pop_front();
                ++c->dropped;
            }
            c->queue.push_back(msg);
        }
        cv.notify_all();
    }

    long droppedNow()
    {
        long n = dropped;
        for (auto& c : clients)
            n += c->audio ? 0 : c->dropped;
        return n;
    }

    std::string stateJson()
    {
        std::lock_guard<std::mutex> lk(m);
        const LiveSettings& s = settings;
        std::ostringstream o;
        o << "{\"range\":" << s.rangeDb << ",\"program\":" << s.program << ",\"focus\":" << (s.focus ? "true" : "false")
          << ",\"distance\":" << s.distance << ",\"low\":" << s.lowHz << ",\"high\":" << s.highHz
          << ",\"pause\":" << (s.paused ? "true" : "false") << ",\"row\":" << s.row << ",\"col\":" << s.col
          << ",\"rows\":" << limits.rows << ",\"cols\":" << limits.cols << ",\"rate\":" << sampleRate
          << ",\"frame_size\":" << frameSize << ",\"distance_measure\":" << (distanceMeasure ? "true" : "false")
          << ",\"frames\":" << frames << ",\"fps\":" << fps << ",\"clients\":" << mapClients
          << ",\"listeners\":" << audioClients << ",\"dropped\":" << droppedNow() << "}";
        return o.str();
    }
};

// A stream that hands the client's queue to the socket until the run stops
// or the client goes away.
void streamTo(Hub& hub, httplib::Response& res, bool audio)
{
    std::shared_ptr<Client> c = hub.join(audio);
    if (!c) {
        res.status = 503;
        res.set_content("too many clients (at most 8)\n", "text/plain");
        return;
    }
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "application/octet-stream",
        [&hub, c](size_t, httplib::DataSink& sink) {
            std::string msg;
            {
                std::unique_lock<std::mutex> lk(hub.m);
                hub.cv.wait_for(lk, std::chrono::milliseconds(200),
                                [&] { return hub.stopping || !c->queue.empty(); });
                if (hub.stopping) {
                    lk.unlock();
                    sink.done();
                    return true;
                }
                if (!c->queue.empty()) {
                    msg = std::move(c->queue.front());
                    c->queue.pop_front();
                } else if (std::chrono::steady_clock::now() - c->lastSent < std::chrono::seconds(1)) {
                    return true;
                } else {
                    // Nothing to send (paused, or waiting): a heartbeat, so
                    // that a client gone meanwhile is noticed and let go.
                    msg.assign(c->audio ? sizeof(float) : kHeaderBytes, '\0');
                    if (!c->audio)
                        msg.replace(0, 4, "AKF1");
                }
            }
            c->lastSent = std::chrono::steady_clock::now();
            return sink.write(msg.data(), msg.size());
        },
        [&hub, c](bool) { hub.leave(c); });
}

template <typename T> void put(std::string& s, size_t at, T v) { std::memcpy(&s[at], &v, sizeof v); }

struct TargetInfo {
    float powerDb = NAN, lowHz = NAN, highHz = NAN, distance = NAN;
};

// One frame for the page: a 56-byte little-endian header, then one byte per
// cell, 0 ... 255 over [peak - range, peak] dB (row-major).
std::string encodeFrame(const std::vector<float>& map, int rows, int cols, uint32_t seq, double rangeDb, double fps,
                        const LiveSettings& s, const TargetInfo& t, double endMs)
{
    const Peak p = findPeak(map.data(), rows, cols);
    const double top = amplitudeDb(p.value);
    std::string out(kHeaderBytes + map.size(), '\0');
    std::memcpy(&out[0], "AKF1", 4);
    put<uint32_t>(out, 4, seq);
    put<uint16_t>(out, 8, static_cast<uint16_t>(rows));
    put<uint16_t>(out, 10, static_cast<uint16_t>(cols));
    put<uint16_t>(out, 12, static_cast<uint16_t>(p.row));
    put<uint16_t>(out, 14, static_cast<uint16_t>(p.col));
    put<float>(out, 16, static_cast<float>(top));
    put<float>(out, 20, static_cast<float>(rangeDb));
    put<float>(out, 24, static_cast<float>(fps));
    put<int16_t>(out, 28, static_cast<int16_t>(s.row));
    put<int16_t>(out, 30, static_cast<int16_t>(s.col));
    put<float>(out, 32, t.powerDb);
    put<float>(out, 36, t.lowHz);
    put<float>(out, 40, t.highHz);
    put<float>(out, 44, t.distance);
    put<double>(out, 48, endMs);
    for (size_t i = 0; i < map.size(); ++i) {
        const double rel = (amplitudeDb(map[i]) - (top - rangeDb)) / rangeDb;
        out[kHeaderBytes + i] = static_cast<char>(rel > 0 ? std::lround(std::min(rel, 1.0) * 255) : 0);
    }
    return out;
}

AKUDoaKernel::DOAProgarm programEnum(int n)
{
    switch (n) {
    case 4: return AKUDoaKernel::DOA_PROGRAM_V4;
    case 53: return AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_3;
    case 54: return AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_4;
    default: return AKUDoaKernel::DOA_PROGRAM_V3;
    }
}

double threadCpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

double wallMs()
{
    return std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

std::string applyControl(const std::string& body, const LiveLimits& lim, LiveSettings& s)
{
    if (body.empty())
        return "empty request: send key=value pairs joined by '&'";
    if (body.size() > kMaxBody)
        return "request too long (at most " + std::to_string(kMaxBody) + " bytes)";
    LiveSettings n = s;
    std::set<std::string> seen;
    std::stringstream in(body);
    std::string pair;
    while (std::getline(in, pair, '&')) {
        const size_t eq = pair.find('=');
        if (eq == std::string::npos || eq == 0 || pair.find('=', eq + 1) != std::string::npos)
            return "malformed pair '" + pair + "': expected key=value";
        const std::string key = pair.substr(0, eq), v = pair.substr(eq + 1);
        if (!seen.insert(key).second)
            return "'" + key + "' given twice";
        double d = 0;
        long i = 0;
        if (key == "range") {
            if (!parseNumber(v, d) || !(d >= 1 && d <= 120))
                return "range must be a number of dB in 1 ... 120";
            n.rangeDb = d;
        } else if (key == "program") {
            if (!parseInt(v, i) || (i != 3 && i != 4 && i != 53 && i != 54))
                return "program must be 3, 4, 53 or 54";
            n.program = static_cast<int>(i);
        } else if (key == "focus") {
            if (!parseSwitch(v, n.focus))
                return "focus must be on or off";
        } else if (key == "distance") {
            if (!parseNumber(v, d) || !(d >= 0.1 && d <= 1000))
                return "distance must be a number of metres in 0.1 ... 1000";
            n.distance = d;
        } else if (key == "low" || key == "high") {
            if (!parseInt(v, i) || i < 0 || i > lim.nyquistHz)
                return key + " must be a whole number of Hz in 0 ... " + std::to_string(lim.nyquistHz);
            (key == "low" ? n.lowHz : n.highHz) = static_cast<int>(i);
        } else if (key == "pause") {
            if (!parseSwitch(v, n.paused))
                return "pause must be on or off";
        } else if (key == "row" || key == "col") {
            const int size = key == "row" ? lim.rows : lim.cols;
            if (!parseInt(v, i) || i < -1 || i >= size)
                return key + " must be -1 (none) or a cell index below " + std::to_string(size);
            (key == "row" ? n.row : n.col) = static_cast<int>(i);
        } else {
            return "unknown key '" + key + "'";
        }
    }
    if (n.lowHz >= n.highHz)
        return "the band's low edge must lie below its high edge";
    if (seen.count("row") != seen.count("col") || (n.row < 0) != (n.col < 0))
        return "row and col go together";
    s = n;
    return std::string();
}

int runServe(const std::vector<std::string>& argv)
{
    Args args(argv, {"config", "in", "listen", "raw-format", "range", "max-frames", "clients", "cache"},
              {"loop", "fast", "verbose"});
    const std::string configPath = args.required("config");
    const std::string inPath = args.required("in");
    const bool live = inPath == "-";
    const bool loop = args.has("loop"), fast = args.has("fast");
    if (live && loop)
        throw UsageError("--loop needs a file, not standard input");
    const RawFormat rawFormat = parseRawFormat(args.get("raw-format", "f32"));
    const long maxFrames = args.integer("max-frames", -1);
    const long waitClients = args.integer("clients", 0);
    if (waitClients < 0 || waitClients > kMaxClients)
        throw UsageError("--clients must lie in 0 ... 8");
    const std::string listen = args.get("listen", "127.0.0.1:8080");
    const size_t colon = listen.rfind(':');
    if (colon == std::string::npos || colon == 0)
        throw UsageError("--listen wants HOST:PORT, not '" + listen + "'");
    const std::string host = listen.substr(0, colon);
    const long port = parseLong(listen.substr(colon + 1), "--listen port");
    if (port < 0 || port > 65535)
        throw UsageError("--listen port must lie in 0 ... 65535");

    std::unique_ptr<FrameSource> src;
    if (!live)
        src = openRecordingFile(inPath);
    requireReadableConfig(configPath);
    std::fprintf(stderr, "akudoa: setting up %s\n", configPath.c_str());
    Camera cam(configPath, CameraOptions::fromArgs(args));
    AKUDoaKernel& k = cam.kernel();
    const StCamCfg& cfg = cam.config();
    const int frameSize = k.audioRecoverLength();
    const int rows = k.imgRows(), cols = k.imgCols();
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    if (live)
        src = std::make_unique<RawStream>(0, rawFormat, k.channelsCount(), k.samlpeRate(), stopRequested);
    const SoundInfo in = src->info();
    const std::vector<int> feeds = inputChannelRows(cam.layout(), in.channels, live ? "standard input" : inPath);
    if (in.sampleRate != k.samlpeRate())
        throw ToolError(inPath + " is sampled at " + std::to_string(in.sampleRate) + " Hz; " + configPath +
                        " expects " + std::to_string(k.samlpeRate()) + " Hz");
    if (!live && in.frames < frameSize)
        throw ToolError(inPath + " holds less than one frame of " + std::to_string(frameSize) + " samples");

    Hub hub;
    LiveSettings& init = hub.settings;
    init.rangeDb = args.number("range", 10.0);
    if (!(init.rangeDb >= 1 && init.rangeDb <= 120))
        throw UsageError("--range must lie in 1 ... 120 dB");
    init.program = cfg.doaVersionSelect;
    init.focus = k.getFocusDisEn();
    init.distance = k.getFocusDis() > 0 ? k.getFocusDis() : 1.0;
    AKUDoaFreqBands* bands = k.freqBandsManager();
    init.lowHz = bands ? std::max(0, bands->minDownFreq()) : 0;
    init.highHz = bands ? bands->maxUpFreq() : in.sampleRate / 2;
    if (init.lowHz >= init.highHz)
        init.lowHz = 0, init.highHz = in.sampleRate / 2;
    hub.limits = {rows, cols, in.sampleRate / 2};
    hub.distanceMeasure = cfg.distanceMeasureEn;
    hub.sampleRate = in.sampleRate;
    hub.frameSize = frameSize;

    httplib::Server svr;
    svr.new_task_queue = [] { return new httplib::ThreadPool(2 * kMaxClients + 8); };
    svr.set_keep_alive_timeout(1);
    svr.set_write_timeout(2, 0);
    // A small send buffer lets a stalled browser show up as dropped frames
    // here within a second instead of after megabytes of kernel buffering.
    svr.set_socket_options([](socket_t sock) {
        int yes = 1, bytes = 64 * 1024;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    });
    const std::string page = livePage();
    svr.Get("/", [&](const httplib::Request&, httplib::Response& res) { res.set_content(page, "text/html"); });
    svr.Get("/state", [&](const httplib::Request&, httplib::Response& res) {
        res.set_header("Cache-Control", "no-store");
        res.set_content(hub.stateJson(), "application/json");
    });
    svr.Get("/frames", [&](const httplib::Request&, httplib::Response& res) { streamTo(hub, res, false); });
    svr.Get("/audio", [&](const httplib::Request&, httplib::Response& res) { streamTo(hub, res, true); });
    svr.Post("/control", [&](const httplib::Request& req, httplib::Response& res) {
        std::string why;
        {
            std::lock_guard<std::mutex> lk(hub.m);
            const LiveSettings before = hub.settings;
            why = applyControl(req.body, hub.limits, hub.settings);
            if (why.empty() && (before.row != hub.settings.row || before.col != hub.settings.col))
                for (auto& c : hub.clients)
                    if (c->audio)
                        c->queue.clear(); // no stale sound from the previous cell
            if (why.empty())
                ++hub.generation;
        }
        if (!why.empty()) {
            res.status = 400;
            res.set_content(why + "\n", "text/plain");
            return;
        }
        res.set_content(hub.stateJson(), "application/json");
    });
    svr.set_payload_max_length(64 * 1024);

    const int boundPort = port == 0 ? svr.bind_to_any_port(host) : (svr.bind_to_port(host, int(port)) ? int(port) : -1);
    if (boundPort < 0)
        throw ToolError("cannot listen on " + listen + " (address in use or not of this machine?)");
    std::thread http([&] { svr.listen_after_bind(); });
    // Every way out of the imaging loop, an error included, closes the
    // streams and waits for the server's threads.
    auto shutdown = [&] {
        {
            std::lock_guard<std::mutex> lk(hub.m);
            hub.stopping = true;
            hub.cv.notify_all();
        }
        svr.stop();
        if (http.joinable())
            http.join();
    };
    struct Closer {
        std::function<void()> f;
        ~Closer() { f(); }
    } closer{shutdown};
    std::printf("akudoa serve: %s on http://%s:%d/\n", cam.describe().c_str(), host.c_str(), boundPort);
    std::fflush(stdout);

    if (waitClients > 0) {
        std::unique_lock<std::mutex> lk(hub.m);
        while (hub.mapClients < waitClients && !stopRequested())
            hub.cv.wait_for(lk, std::chrono::milliseconds(100));
    }

    std::unique_ptr<mat2d_fp32, Mat2dDeleter> frame(create_mat2d_fp32(cam.layout().captureChannels, frameSize));
    std::unique_ptr<mat2d_fp32, Mat2dDeleter> heat(create_mat2d_fp32(rows, cols));
    std::unique_ptr<vec_fp32, VecDeleter> spectrum(create_vec_fp32(frameSize / 2 + 1));
    std::unique_ptr<vec_fp32, VecDeleter> audio(create_vec_fp32(frameSize));
    std::vector<float> inter(static_cast<size_t>(frameSize) * in.channels);
    std::vector<float> map(static_cast<size_t>(rows) * cols);
    const auto period = std::chrono::duration<double>(static_cast<double>(frameSize) / in.sampleRate);

    LiveSettings applied = hub.settings, s;
    long seenGeneration = 0;
    TargetInfo target;
    long imaged = 0, read = 0;
    double busy = 0;
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = threadCpuSeconds();
    auto due = start, windowStart = start;
    long windowFrames = 0;
    while (!stopRequested() && (maxFrames < 0 || imaged < maxFrames)) {
        int64_t got = src->read(inter.data(), frameSize);
        if (got != frameSize && loop && read > 0) {
            src = openRecordingFile(inPath);
            got = src->read(inter.data(), frameSize);
        }
        if (got != frameSize)
            break;
        ++read;
        if (!live && !fast) {
            due += std::chrono::duration_cast<std::chrono::steady_clock::duration>(period);
            const auto now = std::chrono::steady_clock::now();
            if (due > now)
                std::this_thread::sleep_until(due);
            else if (now - due > std::chrono::seconds(1))
                due = now; // far behind: do not race to catch up
        }
        const double endMs = wallMs();
        const auto t0 = std::chrono::steady_clock::now();
        bool listeners = false;
        {
            std::lock_guard<std::mutex> lk(hub.m);
            if (hub.generation != seenGeneration) {
                seenGeneration = hub.generation;
                s = hub.settings;
            } else {
                s = applied;
            }
            listeners = hub.audioClients > 0;
        }
        // Kernel changes happen here, between frames, on the imaging thread.
        if (s.program != applied.program)
            k.setDoaProgram(programEnum(s.program));
        if (s.focus != applied.focus || (s.focus && s.distance != applied.distance))
            k.setFocusDis(static_cast<float>(s.distance), s.focus);
        if (bands && (s.lowHz != applied.lowHz || s.highHz != applied.highHz))
            bands->updateBands({{s.lowHz, s.highHz, 0}});
        if (s.row != applied.row || s.col != applied.col)
            target = TargetInfo();
        applied = s;
        if (s.paused)
            continue;

        for (int c = 0; c < in.channels; ++c) {
            float* row = frame->data[feeds[c]];
            for (int i = 0; i < frameSize; ++i)
                row[i] = inter[static_cast<size_t>(i) * in.channels + c];
        }
        bool ok;
        const fpoint2d cell{0.0f, s.row, s.col};
        if (s.row < 0) {
            ok = k.readHeatMap(frame.get(), heat.get(), spectrum.get(), 0);
        } else if (hub.distanceMeasure && imaged % 2) {
            // Each frame is pushed once: distance and power take turns.
            float dist = NAN;
            ok = k.readHeatMap(frame.get(), heat.get(), cell, dist, spectrum.get(), 0);
            target.distance = dist;
        } else {
            int lo = 0, hi = 0;
            float power = 0;
            ok = k.readHeatMap(frame.get(), heat.get(), cell, lo, hi, power, spectrum.get(), 0);
            target.powerDb = static_cast<float>(10 * std::log10(std::max(power, 1e-30f)));
            target.lowHz = static_cast<float>(lo);
            target.highHz = static_cast<float>(hi);
        }
        if (!ok)
            throw ToolError("the library rejected frame " + std::to_string(read));
        for (int r = 0; r < rows; ++r)
            std::copy(heat->data[r], heat->data[r] + cols, map.begin() + static_cast<long>(r) * cols);
        double fps;
        {
            std::lock_guard<std::mutex> lk(hub.m);
            fps = hub.fps;
        }
        hub.push(false, encodeFrame(map, rows, cols, static_cast<uint32_t>(imaged), s.rangeDb, fps, s, target, endMs));
        if (listeners && s.row >= 0) {
            if (!k.readPickedUpAudioAtCell(frame.get(), audio.get(), cell))
                throw ToolError("the library rejected frame " + std::to_string(read) + " for the pickup");
            hub.push(true, std::string(reinterpret_cast<const char*>(audio->data), sizeof(float) * frameSize));
        }
        ++imaged;
        ++windowFrames;
        const auto t1 = std::chrono::steady_clock::now();
        busy += std::chrono::duration<double>(t1 - t0).count();
        const double window = std::chrono::duration<double>(t1 - windowStart).count();
        std::lock_guard<std::mutex> lk(hub.m);
        hub.frames = imaged;
        if (window >= 0.5) {
            hub.fps = windowFrames / window;
            windowStart = t1;
            windowFrames = 0;
        }
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double cpu = threadCpuSeconds() - cpuStart;
    shutdown();

    std::printf("akudoa serve: %s after %ld frames\n", stopRequested() ? "stopped by a signal" : "input ended",
                imaged);
    // On a shared machine the wall-clock rates follow the load; the
    // imaging thread's processor time does not.
    std::printf("  frame rate: %.1f frames/s overall (real time %.1f), imaging alone %.1f frames/s, %.1f per "
                "second of imaging-thread processor time\n",
                wall > 0 ? imaged / wall : 0.0, static_cast<double>(in.sampleRate) / frameSize,
                busy > 0 ? imaged / busy : 0.0, cpu > 0 ? imaged / cpu : 0.0);
    std::printf("  clients: %ld served, at most %d at once, %ld refused; %ld frames dropped for slow clients\n",
                hub.served, hub.mostClients, hub.refused, hub.dropped);
    return 0;
}

} // namespace akutool
