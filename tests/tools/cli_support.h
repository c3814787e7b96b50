#ifndef AKUDOA_TESTS_TOOLS_CLI_SUPPORT_H
#define AKUDOA_TESTS_TOOLS_CLI_SUPPORT_H

// Running the built akudoa program from tests: a clean work directory per
// test, the exit status and the combined output of each run.

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "common.h"

namespace clitest {

using akutool::joinPath;


struct ToolRun {
    int status = -1;
    std::string out; // standard output and standard error
};

inline std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// 64 microphones (a subset of the 128-channel array: every other capture
// channel), a 16 x 12 far-field image and 512-sample frames keep the
// steering tables small.
inline std::string smallCamera(int mics = 64, int rows = 16, int cols = 12)
{
    return "[AudioRecordingParam]\nsample_frequency = 96000\nchannel_num = " + std::to_string(mics) +
           "\nframe_size = 512\n[AcousticCameraParam]\nimage_resolution_row = " + std::to_string(rows) +
           "\nimage_resolution_col = " + std::to_string(cols) +
           "\nimage_correction_flag = 0\ndistanceMeasure_en = false\nrotate_mode = 1\n"
           "[DOA]\nDOAVersionSelect = 3\nextra_en = false\n";
}

// An empty work directory holding cam.ini, the small camera.
inline std::string dirFor(const std::string& name)
{
    std::string d = joinPath(AKUDOA_TOOL_TEST_DIR, name);
    (void)!std::system(("rm -rf '" + d + "'").c_str());
    akutool::makeDirs(d);
    writeText(joinPath(d, "cam.ini"), smallCamera());
    return d;
}

inline ToolRun akudoa(const std::string& dir, const std::string& args)
{
    std::string log = joinPath(dir, "run.log");
    std::string cmd = "cd '" + dir + "' && '" AKUDOA_TOOL_BINARY "' " + args + " > '" + log + "' 2>&1";
    ToolRun r;
    int st = std::system(cmd.c_str());
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    r.out = slurp(log);
    std::remove(log.c_str());
    return r;
}

// Writes scene.ini and records it through camera file cam into out.
inline ToolRun simulate(const std::string& dir, const std::string& scene, const std::string& cam = "cam.ini",
                        const std::string& out = "rec.wav")
{
    writeText(joinPath(dir, "scene.ini"), scene);
    return akudoa(dir, "simulate --config " + cam + " --scene scene.ini --out " + out);
}

inline bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

} // namespace clitest

#endif
