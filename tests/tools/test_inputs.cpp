// Inputs people already have: microphone-position files, recordings of
// exactly the array's microphones (WAV, HDF5) and live raw samples on
// standard input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstring>
#include <hdf5.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli_support.h"
#include "wavio.h"

using namespace akutool;
using namespace clitest;

namespace {

// Channels 0, step, 2 step, ... of a recording, interleaved.
std::vector<float> readEvery(const std::string& path, int step)
{
    SoundReader r(path);
    std::vector<float> x(static_cast<size_t>(r.info().frames) * r.info().channels), y;
    r.read(x.data(), r.info().frames);
    for (size_t i = 0; i < x.size(); ++i)
        if (i % r.info().channels % step == 0)
            y.push_back(x[i]);
    return y;
}

// The layout Acoular writes: time_data (samples x channels), sample_freq.
void writeHdf5(const std::string& path, const std::vector<float>& x, int channels)
{
    hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
    hsize_t dims[2] = {x.size() / channels, hsize_t(channels)}, one = 1;
    hid_t space = H5Screate_simple(2, dims, nullptr), aspace = H5Screate_simple(1, &one, nullptr);
    hid_t data = H5Dcreate2(file, "time_data", H5T_IEEE_F32LE, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    hid_t attr = H5Acreate2(data, "sample_freq", H5T_IEEE_F64LE, aspace, H5P_DEFAULT, H5P_DEFAULT);
    const double rate = 96000;
    H5Dwrite(data, H5T_NATIVE_FLOAT, H5S_ALL, H5S_ALL, H5P_DEFAULT, x.data());
    H5Awrite(attr, H5T_NATIVE_DOUBLE, &rate);
    H5Aclose(attr), H5Dclose(data), H5Sclose(aspace), H5Sclose(space), H5Fclose(file);
}

} // namespace

// A 4 x 4 grid at a 1 cm pitch as text rows (off the origin, z = 0.1) and
// as Acoular XML gives one geometry file holding the centred grid; arrays
// the library cannot take are refused naming the microphone at fault.
TEST(ToolInputs, GeometryFromPositionFiles)
{
    const std::string dir = dirFor("inputs-geometry");
    std::string text = "x,y,z\n", xml = "<?xml version=\"1.0\"?>\n<MicArray name=\"grid\">\n";
    for (int i = 0; i < 16; ++i) {
        const std::string x = std::to_string(0.01 * (i % 4)), y = std::to_string(0.01 * (i / 4));
        text += x + "," + y + ",0.1\n";
        xml += "<pos Name=\"Point " + std::to_string(i + 1) + "\" x=\"" + x + "\" y=\"" + y + "\" z=\"0\"/>\n";
    }
    writeText(joinPath(dir, "grid.txt"), text);
    writeText(joinPath(dir, "grid.xml"), xml += "</MicArray>\n");
    ASSERT_EQ(akudoa(dir, "geometry --in grid.txt --out t.bin").status, 0);
    ToolRun fromXml = akudoa(dir, "geometry --in grid.xml --out x.bin --channels 16");
    EXPECT_NE(fromXml.out.find("aperture 0.0424 m, radius 0.0212 m"), std::string::npos) << fromXml.out;
    const std::string bin = slurp(joinPath(dir, "t.bin"));
    ASSERT_EQ(bin, slurp(joinPath(dir, "x.bin")));
    ASSERT_EQ(bin.size(), 16u * 12); // index, azimuth, radius
    std::vector<int32_t> index(16);
    std::vector<float> phiRadius(32);
    std::memcpy(index.data(), bin.data(), 64), std::memcpy(phiRadius.data(), bin.data() + 64, 128);
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(index[i], i);
        EXPECT_NEAR(phiRadius[16 + i] * std::cos(phiRadius[i]), 0.01 * (i % 4 - 1.5), 1e-6) << i;
        EXPECT_NEAR(phiRadius[16 + i] * std::sin(phiRadius[i]), 0.01 * (i / 4 - 1.5), 1e-6) << i;
    }

    const struct { std::string from, to, message; } refused[] = {
        {"\"Point 6\" x=\"0.010000\" y=\"0.010000\" z=\"0\"", "\"Point 6\" x=\"0.01\" y=\"0.01\" z=\"0.0015\"",
         "Point 6 lies 1.4 mm off the array plane"},
        {"\"Point 16\" x=\"0.030000\" y=\"0.030000\"", "\"Point 16\" x=\"0\" y=\"0\"",
         "Point 16 has the position of Point 1"},
        {"<pos Name=\"Point 16\"", "<other Name=\"Point 16\"", "15 microphones: the library supports"},
    };
    for (const auto& t : refused) {
        writeText(joinPath(dir, "bad.xml"), std::string(xml).replace(xml.find(t.from), t.from.size(), t.to));
        ToolRun r = akudoa(dir, "geometry --in bad.xml --out bad.bin");
        EXPECT_NE(r.out.find("error: " + t.message), std::string::npos) << r.out;
        EXPECT_FALSE(exists(joinPath(dir, "bad.bin")));
    }
}

// One scene through every input. A recording of only the 64 microphones
// (WAV, HDF5, raw samples piped in) gives the peaks of the 128-channel
// capture line for line; so do raw 16-bit samples of an 8-microphone ring
// against the same samples (on the 16-bit grid) as raw floats. A live run stopped by a signal or by
// an input that ends mid-frame leaves whole files of the frames it imaged.
TEST(ToolInputs, EveryInputGivesTheCapturePeaks)
{
    const std::string dir = dirFor("inputs-recordings");
    writeText(joinPath(dir, "cam8.ini"), smallCamera(8));
    const std::string scene = "[scene]\nduration = 0.08\nmic_noise_db = -60\n[source a]\npixel = 4 3\n"
                              "[source b]\npixel = 11 8\nlevel_db = -23\n";
    ASSERT_EQ(simulate(dir, scene).status, 0);
    ASSERT_EQ(simulate(dir, scene, "cam8.ini", "rec8.wav").status, 0);
    std::vector<float> mics = readEvery(joinPath(dir, "rec.wav"), 2), ring = readEvery(joinPath(dir, "rec8.wav"), 1);
    std::vector<int16_t> ring16;
    for (float& v : ring)
        ring16.push_back(static_cast<int16_t>(std::lround(v * 32768.0))), v = ring16.back() / 32768.0f;
    std::vector<std::vector<float>> planes(64);
    for (size_t i = 0; i < mics.size(); ++i)
        planes[i % 64].push_back(mics[i]);
    writeWavFloat(joinPath(dir, "mics.wav"), planes, 96000);
    writeHdf5(joinPath(dir, "mics.h5"), mics, 64);
    auto writeRaw = [&](const char* name, const auto& v) {
        writeText(joinPath(dir, name), std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof v[0]));
    };
    writeRaw("mics.f32", mics), writeRaw("ring.f32", ring), writeRaw("ring.s16", ring16);

    auto peaks = [&](const std::string& cfg, const std::string& in) {
        const std::string out = "out-" + std::to_string(std::hash<std::string>()(cfg + in));
        ToolRun r = akudoa(dir, "image --config " + cfg + " --in " + in + " --out " + out);
        EXPECT_EQ(r.status, 0) << in << ": " << r.out;
        return slurp(joinPath(dir, out + "/peaks.csv"));
    };
    const std::string capture = peaks("cam.ini", "rec.wav");
    long atSourceA = 0; // frames whose peak is the stronger source's cell
    for (size_t at = 0; (at = capture.find(",4,3,", at + 1)) != std::string::npos;)
        ++atSourceA;
    EXPECT_EQ(atSourceA, 15) << capture;
    for (const char* in : {"mics.wav", "mics.h5", "- < mics.f32"})
        EXPECT_EQ(peaks("cam.ini", in), capture) << in;
    EXPECT_EQ(peaks("cam8.ini", "- --raw-format s16 < ring.s16"), peaks("cam8.ini", "- < ring.f32"));

    const size_t frameBytes = 512 * 64 * 4, sent = 4, end = capture.find("\n4,") + 1; // header and 4 lines
    std::signal(SIGPIPE, SIG_IGN); // a failed run must fail the test, not end it
    const struct {
        int signal;   // sent once the frames are imaged; 0: close the input instead
        size_t extra; // bytes after the whole frames
        const char* message;
    } live[] = {
        {SIGTERM, 0, "stopped by a signal after 4 frames"},
        {SIGINT, 100, "stopped by a signal after 4 frames"},
        {0, frameBytes / 2 + 2, "the input ended 65538 bytes into frame 4 (a frame is 131072 bytes"},
    };
    for (const auto& t : live) {
        const std::string out = joinPath(dir, "live");
        (void)!std::system(("rm -rf '" + out + "'").c_str());
        // The shell leaves its process id, which exec hands to the tool.
        FILE* in = popen(("cd '" + dir + "' && echo $$ > pid && exec '" AKUDOA_TOOL_BINARY
                          "' image --config cam.ini --in - --out live > live.log 2>&1").c_str(), "w");
        const size_t bytes = sent * frameBytes + t.extra;
        ASSERT_EQ(std::fwrite(mics.data(), 1, bytes, in), bytes);
        std::fflush(in);
        // The signal comes once the frames are imaged (it would otherwise
        // end the run before they are read).
        for (std::string csv; t.signal && std::count(csv.begin(), csv.end(), '\n') <= long(sent);)
            csv = slurp(joinPath(out, "peaks.csv")), usleep(20000);
        if (t.signal)
            kill(std::stoi(slurp(joinPath(dir, "pid"))), t.signal);
        const int status = pclose(in);
        const std::string log = slurp(joinPath(dir, "live.log"));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << log;
        EXPECT_NE(log.find(t.message), std::string::npos) << log;
        EXPECT_EQ(slurp(joinPath(out, "peaks.csv")), capture.substr(0, end));
        EXPECT_EQ(slurp(joinPath(out, "heatmap.f32")).size(), sent * 16 * 12 * 4);
        EXPECT_NE(slurp(joinPath(out, "heatmap.txt")).find("frames 4\n"), std::string::npos);
        EXPECT_EQ(slurp(joinPath(out, "latest.png")), slurp(joinPath(out, "frame_00003.png")));
    }
}
