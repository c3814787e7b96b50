// AKUDoaKernel::init on an arbitrary INI file with an arbitrary geometry and
// sensitivity file. Input: INI text, "----" line, geometry bytes, "----"
// line, sensitivity bytes. The file keys are ours (the INI's own lines naming
// files are dropped, so no run opens a path of the fuzzer's choosing), and
// configurations that are valid but expensive (large images or frames) or
// that end the process by design (an unsupported microphone count) are
// skipped, so every run stays cheap.
#include <iniparser.h>

#include <algorithm>
#include <cctype>
#include <sstream>

#include "AKUDoa/akudoakernel.h"
#include "fuzz_support.h"

namespace {

std::string withOurFiles(const std::string& ini, const std::string& dir)
{
    std::istringstream in(ini);
    std::string out, line;
    while (std::getline(in, line)) {
        std::string low = line;
        std::transform(low.begin(), low.end(), low.begin(), [](unsigned char c) { return std::tolower(c); });
        if (low.find("file") == std::string::npos)
            out += line + "\n";
    }
    return out + "\n[MicParam]\nMicFile = " + dir + "geom.bin\nMicSenCalibrationFile = " + dir + "sens.bin\n";
}

bool cheapAndSupported(const std::string& path)
{
    dictionary* ini = iniparser_load(path.c_str());
    if (!ini)
        return true; // init must refuse it
    const int mics = iniparser_getint(ini, "AudioRecordingParam:channel_num", 128);
    const int rows = iniparser_getint(ini, "AcousticCameraParam:image_resolution_row", 64);
    const int cols = iniparser_getint(ini, "AcousticCameraParam:image_resolution_col", 48);
    const int frame = iniparser_getint(ini, "AudioRecordingParam:frame_size", 1024);
    const int drows = iniparser_getint(ini, "AcousticCameraParam:distance_measure_row", 11);
    const int dcols = iniparser_getint(ini, "AcousticCameraParam:distance_measure_col", 11);
    iniparser_freedict(ini);
    const bool supported = mics == 8 || mics == 16 || mics == 36 || mics == 48 || mics == 64 || mics == 128;
    return supported && rows <= 16 && cols <= (rows == 1 ? 361 : 16) && frame <= 1024 && drows <= 16 &&
           dcols <= 16;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Tables are built at every run, never cached (no directory "none"):
    // the cache has a target of its own.
    static const std::string dir = fuzz_dir("init", "none/");
    const std::vector<std::string> parts = fuzz_split(data, size, 3);
    fuzz_write(dir + "cfg.ini", withOurFiles(parts[0], dir));
    fuzz_write(dir + "geom.bin", parts[1]);
    fuzz_write(dir + "sens.bin", parts[2]);
    if (!cheapAndSupported(dir + "cfg.ini"))
        return -1; // not worth keeping in the corpus
    AKUDoaKernel kernel;
    kernel.init((dir + "cfg.ini").c_str());
    return 0;
}
