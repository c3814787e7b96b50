// akudoa geometry: microphone positions to the library's geometry file.
#include "arrayfile.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sstream>

#include "args.h"
#include "commands.h"
#include "common.h"

namespace akutool {

const char* const kGeometryHelp =
    "usage: akudoa geometry --in POSITIONS --out ARRAY.bin [--channels N]\n"
    "\n"
    "Converts microphone positions to the library's geometry file (for\n"
    "[MicParam] MicFile; set channel_num to the microphone count):\n"
    "  text   one microphone per line, \"x y\" or \"x y z\" in metres, separated by\n"
    "         blanks or commas; '#' and ';' start comments; a header line is skipped\n"
    "  XML    Acoular's array files: <MicArray> with one <pos Name=\"..\" x=\"..\"\n"
    "         y=\"..\" z=\"..\"/> per microphone\n"
    "Microphone i of the file is fed by channel i of the recording. The array is\n"
    "centred on the mean of its positions; it must lie in a plane parallel to x-y\n"
    "(within 1 mm), hold 8, 16, 36, 48, 64 or 128 microphones (--channels N: exactly\n"
    "N) and have no two microphones at one place.\n";

namespace {

const double kPlaneTolerance = 1e-3;     // metres off the plane
const double kDuplicateTolerance = 1e-5; // metres between two microphones
const double kMicMaxRadiusPreset = 0.11;  // metres, fixed in the library's configuration record

std::string fmtPos(const Vec3& p)
{
    char buf[96];
    std::snprintf(buf, sizeof buf, "(%.4f, %.4f, %.4f) m", p.x, p.y, p.z);
    return buf;
}

std::vector<MicPosition> readXml(const std::string& path)
{
    xmlDocPtr doc = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (!doc)
        throw ToolError(path + ": not well-formed XML");
    std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> owner(doc, xmlFreeDoc);
    xmlNodePtr root = xmlDocGetRootElement(doc);
    if (!root || xmlStrcmp(root->name, BAD_CAST "MicArray") != 0)
        throw ToolError(path + ": the root element must be <MicArray>");
    std::vector<MicPosition> mics;
    for (xmlNodePtr n = root->children; n; n = n->next) {
        if (n->type != XML_ELEMENT_NODE || xmlStrcmp(n->name, BAD_CAST "pos") != 0)
            continue;
        MicPosition m;
        auto attr = [&](const char* key, bool required) {
            xmlChar* v = xmlGetProp(n, BAD_CAST key);
            std::string s = v ? reinterpret_cast<const char*>(v) : "";
            xmlFree(v);
            if (!v && required)
                throw ToolError(path + " line " + std::to_string(xmlGetLineNo(n)) + ": <pos> without " + key);
            return s;
        };
        m.name = attr("Name", false);
        if (m.name.empty())
            m.name = "pos " + std::to_string(mics.size() + 1);
        const std::string what = path + ": microphone " + m.name;
        m.p.x = parseDouble(attr("x", true), what + " x");
        m.p.y = parseDouble(attr("y", true), what + " y");
        const std::string z = attr("z", false);
        m.p.z = z.empty() ? 0.0 : parseDouble(z, what + " z");
        mics.push_back(m);
    }
    return mics;
}

std::vector<MicPosition> readText(std::istream& in, const std::string& path)
{
    std::vector<MicPosition> mics;
    std::string line;
    for (int lineNo = 1; std::getline(in, line); ++lineNo) {
        line = line.substr(0, line.find_first_of("#;"));
        for (char& ch : line)
            if (ch == ',' || ch == '\t' || ch == '\r')
                ch = ' ';
        std::istringstream fields(line);
        std::vector<std::string> f;
        for (std::string w; fields >> w;)
            f.push_back(w);
        if (f.empty())
            continue;
        const std::string where = path + " line " + std::to_string(lineNo);
        char* end = nullptr;
        std::strtod(f[0].c_str(), &end);
        if (mics.empty() && *end != '\0')
            continue; // a spreadsheet's column titles
        if (f.size() < 2 || f.size() > 3)
            throw ToolError(where + ": want \"x y\" or \"x y z\" in metres, found " + std::to_string(f.size()) +
                            " fields");
        MicPosition m;
        m.name = "microphone " + std::to_string(mics.size() + 1) + " (line " + std::to_string(lineNo) + ")";
        m.p.x = parseDouble(f[0], where + " x");
        m.p.y = parseDouble(f[1], where + " y");
        m.p.z = f.size() == 3 ? parseDouble(f[2], where + " z") : 0.0;
        mics.push_back(m);
    }
    return mics;
}

} // namespace

std::vector<MicPosition> readMicPositions(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw ToolError("cannot read " + path + ": no such readable file");
    in >> std::ws;
    const bool xml = in.peek() == '<';
    std::vector<MicPosition> mics = xml ? readXml(path) : readText(in, path);
    if (mics.empty())
        throw ToolError(path + ": no microphone positions found");
    return mics;
}

ArrayGeometry arrayGeometry(const std::vector<MicPosition>& mics)
{
    const int n = static_cast<int>(mics.size());
    if (n != 8 && n != 16 && n != 36 && n != 48 && n != 64 && n != 128)
        throw ToolError(std::to_string(n) + " microphones: the library supports arrays of 8, 16, 36, 48, 64 or "
                                            "128 (the last microphone read is " + mics.back().name + ")");
    ArrayGeometry g;
    for (const MicPosition& m : mics)
        g.centre = {g.centre.x + m.p.x / n, g.centre.y + m.p.y / n, g.centre.z + m.p.z / n};
    for (int i = 0; i < n; ++i) {
        const Vec3 p = mics[i].p - g.centre;
        if (std::fabs(p.z) > kPlaneTolerance) {
            char mm[32];
            std::snprintf(mm, sizeof mm, "%.1f", p.z * 1e3);
            throw ToolError(mics[i].name + " lies " + mm + " mm off the array plane: the library images planar "
                                                           "arrays only");
        }
        for (int j = 0; j < i; ++j)
            if (norm(mics[j].p - mics[i].p) < kDuplicateTolerance)
                throw ToolError(mics[i].name + " has the position of " + mics[j].name + ", " + fmtPos(mics[i].p));
        for (int j = 0; j < i; ++j)
            g.aperture = std::max(g.aperture, norm(mics[j].p - mics[i].p));
        g.index.push_back(i);
        g.phi.push_back(static_cast<float>(std::atan2(p.y, p.x)));
        g.radius.push_back(static_cast<float>(std::hypot(p.x, p.y)));
        g.maxRadius = std::max(g.maxRadius, std::hypot(p.x, p.y));
    }
    return g;
}

void writeGeometryFile(const std::string& path, const ArrayGeometry& g)
{
    StagedFile out(path);
    FILE* fp = out.stream();
    std::vector<int32_t> index(g.index.begin(), g.index.end());
    const size_t n = index.size();
    if (std::fwrite(index.data(), 4, n, fp) != n || std::fwrite(g.phi.data(), 4, n, fp) != n ||
        std::fwrite(g.radius.data(), 4, n, fp) != n)
        throw ToolError("write error on " + path + " (disk full?)");
    out.commit();
}

int runGeometry(const std::vector<std::string>& argv)
{
    Args args(argv, {"in", "out", "channels"}, {});
    const std::string inPath = args.required("in");
    const std::string outPath = args.required("out");
    const std::vector<MicPosition> mics = readMicPositions(inPath);
    const long want = args.integer("channels", 0);
    if (want && want != static_cast<long>(mics.size()))
        throw ToolError(inPath + " lists " + std::to_string(mics.size()) + " microphones, not the " +
                        std::to_string(want) + " of --channels");
    const ArrayGeometry g = arrayGeometry(mics);
    writeGeometryFile(outPath, g);
    auto tidy = [](double v) { return std::fabs(v) < 5e-5 ? 0.0 : v; }; // no "-0.0000" from rounding
    std::printf("wrote %s: %zu microphones from %s\n", outPath.c_str(), mics.size(), inPath.c_str());
    std::printf("  aperture %.4f m, radius %.4f m; centre offset (%.4f, %.4f, %.4f) m from the file's origin\n",
                g.aperture, g.maxRadius, tidy(g.centre.x), tidy(g.centre.y), tidy(g.centre.z));
    std::printf("  use it with channel_num = %zu and [MicParam] MicFile = %s\n", mics.size(), outPath.c_str());
    std::printf("  (steering-table cache names do not carry the geometry: give this array a cache directory of its "
                "own, or turn the cache off)\n");
    if (g.aperture > kMicMaxRadiusPreset)
        std::printf("note: the aperture exceeds the library's micMaxRadius preset of %.2f m, which no file "
                    "changes: focused (near-field) images size their view from the preset, not from this array\n",
                    kMicMaxRadiusPreset);
    return 0;
}

} // namespace akutool
