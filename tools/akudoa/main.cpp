// akudoa: the command-line front end of the acoustic camera library.
//   akudoa simulate ...   write a recording of a scene for a configuration
//   akudoa image ...      heat maps of a recording
//   akudoa pickup ...     the sound from one heat-map cell
//   akudoa geometry ...   a geometry file from microphone positions
//   akudoa serve ...      a live view in the browser
//   akudoa check ...      the health of every microphone of the array
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "AKUDoa/akudoa.h"
#include "commands.h"
#include "common.h"

namespace {

struct Command {
    const char* name;
    const char* summary;
    int (*run)(const std::vector<std::string>&);
    const char* const* help;
};

const Command kCommands[] = {
    {"simulate", "write a multichannel WAV of point sources for the configured array", akutool::runSimulate,
     &akutool::kSimulateHelp},
    {"image", "heat-map PNGs, peak CSV and raw maps of a multichannel WAV", akutool::runImage,
     &akutool::kImageHelp},
    {"pickup", "mono WAV of the sound from one heat-map cell (or the peak) of a multichannel WAV",
     akutool::runPickup, &akutool::kPickupHelp},
    {"geometry", "the library's geometry file from microphone positions (text x y [z] or Acoular XML)",
     akutool::runGeometry, &akutool::kGeometryHelp},
    {"serve", "live heat map in the browser, with the sound of a clicked point", akutool::runServe,
     &akutool::kServeHelp},
    {"check", "names dead, clipped, noisy, inverted, swapped or misplaced microphones from a recording",
     akutool::runCheck, &akutool::kCheckHelp},
};

void usage(FILE* to)
{
    std::fprintf(to, "usage: akudoa COMMAND [OPTIONS]   (akudoa COMMAND --help for its options)\n\ncommands:\n");
    for (const Command& c : kCommands)
        std::fprintf(to, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(to, "\nlibrary version %s\n", AKUDoaKernel::DoaVersion());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "help")) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    if (!std::strcmp(argv[1], "--version")) {
        std::printf("akudoa %s\n", AKUDoaKernel::DoaVersion());
        return 0;
    }
    for (const Command& c : kCommands) {
        if (std::strcmp(argv[1], c.name) != 0)
            continue;
        std::vector<std::string> args(argv + 2, argv + argc);
        for (const std::string& a : args)
            if (a == "--help" || a == "-h") {
                std::fputs(*c.help, stdout);
                return 0;
            }
        try {
            return c.run(args);
        } catch (const akutool::UsageError& e) {
            std::fprintf(stderr, "akudoa %s: %s\n%s", c.name, e.what(), *c.help);
            return 2;
        } catch (const akutool::ToolError& e) {
            std::fprintf(stderr, "akudoa %s: error: %s\n", c.name, e.what());
            return 1;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "akudoa %s: unexpected failure: %s\n", c.name, e.what());
            return 1;
        }
    }
    std::fprintf(stderr, "akudoa: unknown command '%s'\n", argv[1]);
    usage(stderr);
    return 2;
}
