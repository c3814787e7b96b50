// Log lines: exact text of every insertion kind, the flags, call-site
// context, single delivery of shared handles, and the uninstalled handler.

#include <gtest/gtest.h>

#include <climits>

#include "AKUDoa/base/akudoalogging.h"

namespace {

struct Delivered { std::string file; int line; std::string function, text; };
std::vector<Delivered> g_lines;
void capture(const char* file, int line, const char* function, const char* message) { g_lines.push_back({file, line, function, message}); }
AKUDoaLogging line() { return AKUMessage("src/x.cpp", 12, "void f()").debug(); }

} // namespace

TEST(Logging, LineTextsAndDelivery)
{
    const struct { std::function<void()> write; std::vector<std::string> want; } cases[] = {
        {[] { line() << "doakernel init: start"; }, {"[AKUDOALIB] doakernel init: start \r\n"}},
        {[] { line(); }, {"[AKUDOALIB] \r\n"}},
        {[] { line() << -5 << short(-32768) << -9000000000L << ULONG_MAX << UINT_MAX << (unsigned short)65535; },
         {"[AKUDOALIB] -5 -32768 -9000000000 18446744073709551615 4294967295 65535 \r\n"}},
        // Six significant digits; float widened to double first.
        {[] { line() << 3.14159265 << 0.1f << 1234567.0 << 1e-7 << 2.0 << -0.0f; }, {"[AKUDOALIB] 3.14159 0.1 1.23457e+06 1e-07 2 -0 \r\n"}},
        {[] { char buf[] = "mutable"; line() << "plain" << buf << std::string("quoted") << true << false << 'k'; },
         {"[AKUDOALIB] plain mutable \"quoted\" true false k \r\n"}},
        // A null text ends the stream: no later items, separator or line end.
        {[] { line() << "before" << 1 << static_cast<const char*>(nullptr) << "after" << std::string("s"); }, {"[AKUDOALIB] before 1 "}},
        {[] { line() << static_cast<char*>(nullptr) << "after"; }, {"[AKUDOALIB] "}},
        // Flags apply from their call on.
        {[] { AKUDoaLogging l = line(); l.noquote(); l << std::string("bare"); l.quote(); l << std::string("again"); }, {"[AKUDOALIB] bare \"again\" \r\n"}},
        {[] { AKUDoaLogging l = line(); l << "a"; l.nospace(); l << "b" << 1; l.noenter(); }, {"[AKUDOALIB] a b1"}},
        {[] { AKUDoaLogging l = line(); l.nospace(); l << "x"; l.space(); l << "y"; l.noenter(); l.enter(); }, {"[AKUDOALIB] xy \r\n"}},
        {[] { static const std::string sep = ", "; AKUDoaLogging l = line(); l.changeSpace(sep) << 1 << 2; l.maybeSpace(); }, {"[AKUDOALIB] 1, 2, , \r\n"}},
        // Copies share one record, delivered once when the last one dies.
        {[] { AKUDoaLogging a = line(); a << "shared"; { AKUDoaLogging b(a); b << "tail"; AKUDoaLogging c(b); } }, {"[AKUDOALIB] shared tail \r\n"}},
        // Assignment frees the replaced record silently; self and shared assignment release nothing.
        {[] { AKUDoaLogging a = line(); a << "kept"; AKUDoaLogging b = line(); b << "dropped"; b = a; b << "more"; AKUDoaLogging& s = a; a = s; b = a; },
         {"[AKUDOALIB] kept more \r\n"}},
        {[] { AKUDoaLogging a = line(); a << "first"; AKUDoaLogging b(a); AKUDoaLogging c = line(); c << "second"; b = c; },
         {"[AKUDOALIB] second \r\n", "[AKUDOALIB] first \r\n"}},
        {[] { InstallDoaMessageHandler(nullptr); line() << "lost"; AKUDOA_LOG() << "lost too"; InstallDoaMessageHandler(capture); }, {}},
    };
    for (const auto& c : cases) {
        g_lines.clear();
        InstallDoaMessageHandler(capture);
        c.write();
        InstallDoaMessageHandler(nullptr);
        std::vector<std::string> got;
        for (const Delivered& d : g_lines)
            got.push_back(d.text);
        EXPECT_EQ(got, c.want);
    }
}

TEST(Logging, CallSiteContextReachesHandler)
{
    g_lines.clear();
    InstallDoaMessageHandler(capture);
    const int here = __LINE__ + 1;
    AKUDOA_LOG() << "y";
    AKUMessage().debug() << "z";
    InstallDoaMessageHandler(nullptr);
    ASSERT_EQ(g_lines.size(), 2u);
    EXPECT_EQ(g_lines[0].file, __FILE__);
    EXPECT_EQ(g_lines[0].line, here);
    EXPECT_NE(g_lines[0].function.find("CallSiteContextReachesHandler"), std::string::npos) << g_lines[0].function;
    // A default context has no file or function and line -1.
    EXPECT_EQ(g_lines[1].file + g_lines[1].function, "");
    EXPECT_EQ(g_lines[1].line, -1);
}
