// Log lines: exact text of every insertion kind, the flags, call-site
// context, single delivery of shared handles, and the uninstalled handler.

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "AKUDoa/base/akudoalogging.h"

namespace {

struct Delivered
{
    std::string file;
    int line;
    std::string function;
    std::string text;
};

std::vector<Delivered> g_lines;

void capture(const char* file, int line, const char* function, const char* message)
{
    g_lines.push_back({file, line, function, message});
}

class Logging : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_lines.clear();
        InstallDoaMessageHandler(capture);
    }
    void TearDown() override { InstallDoaMessageHandler(nullptr); }

    static AKUDoaLogging line() { return AKUMessage("src/x.cpp", 12, "void f()").debug(); }
    // Text of the only line delivered so far.
    static std::string only()
    {
        EXPECT_EQ(g_lines.size(), 1u);
        return g_lines.empty() ? std::string() : g_lines.back().text;
    }
};

} // namespace

TEST_F(Logging, TagTextSeparatorAndLineEnd)
{
    line() << "doakernel init: start";
    EXPECT_EQ(only(), "[AKUDOALIB] doakernel init: start \r\n");
    g_lines.clear();
    line() << "micNum:" << 64;
    EXPECT_EQ(only(), "[AKUDOALIB] micNum: 64 \r\n");
    g_lines.clear();
    line();
    EXPECT_EQ(only(), "[AKUDOALIB] \r\n");
}

TEST_F(Logging, CallSiteContextReachesHandler)
{
    AKUMessage("../../V5/AKUDoa/akudoakernel", 321, "void AKUFilter::setCoef(IIRCoef)").debug() << "x";
    ASSERT_EQ(g_lines.size(), 1u);
    EXPECT_EQ(g_lines[0].file, "../../V5/AKUDoa/akudoakernel");
    EXPECT_EQ(g_lines[0].line, 321);
    EXPECT_EQ(g_lines[0].function, "void AKUFilter::setCoef(IIRCoef)");

    const int here = __LINE__ + 1;
    AKUDOA_LOG() << "y";
    ASSERT_EQ(g_lines.size(), 2u);
    EXPECT_EQ(g_lines[1].file, __FILE__);
    EXPECT_EQ(g_lines[1].line, here);
    EXPECT_NE(g_lines[1].function.find("CallSiteContextReachesHandler"), std::string::npos) << g_lines[1].function;
    EXPECT_EQ(g_lines[1].text, "[AKUDOALIB] y \r\n");

    // A default context has no file or function and line -1.
    AKUMessage().debug() << "z";
    ASSERT_EQ(g_lines.size(), 3u);
    EXPECT_EQ(g_lines[2].file, "");
    EXPECT_EQ(g_lines[2].line, -1);
    EXPECT_EQ(g_lines[2].function, "");
}

TEST_F(Logging, NumbersInEveryInsertionType)
{
    line() << -5 << static_cast<short>(-32768) << -9000000000L << ULONG_MAX;
    EXPECT_EQ(only(), "[AKUDOALIB] -5 -32768 -9000000000 18446744073709551615 \r\n");
    g_lines.clear();
    line() << UINT_MAX << static_cast<unsigned short>(65535);
    EXPECT_EQ(only(), "[AKUDOALIB] 4294967295 65535 \r\n");
    g_lines.clear();
    // Six significant digits; float widened to double first.
    line() << 3.14159265 << 0.1f << 1234567.0 << 1e-7 << 2.0 << -0.0f;
    EXPECT_EQ(only(), "[AKUDOALIB] 3.14159 0.1 1.23457e+06 1e-07 2 -0 \r\n");
}

TEST_F(Logging, TextsBoolsAndChars)
{
    const char* c = "plain";
    char buf[] = "mutable";
    line() << c << buf << std::string("quoted") << true << false << 'k';
    EXPECT_EQ(only(), "[AKUDOALIB] plain mutable \"quoted\" true false k \r\n");
    g_lines.clear();
    {
        AKUDoaLogging l = line();
        l.noquote();
        l << std::string("bare");
        l.quote();
        l << std::string("again") << "lit";
    }
    EXPECT_EQ(only(), "[AKUDOALIB] bare \"again\" lit \r\n");
}

TEST_F(Logging, NullTextEndsTheLineButStillDelivers)
{
    line() << "before" << 1 << static_cast<const char*>(nullptr) << "after" << 2 << std::string("s");
    // The stream stops at the null: no later items, no separator, no line end.
    EXPECT_EQ(only(), "[AKUDOALIB] before 1 ");
    g_lines.clear();
    line() << static_cast<char*>(nullptr) << "after";
    EXPECT_EQ(only(), "[AKUDOALIB] ");
}

TEST_F(Logging, FlagsApplyFromTheirCallOn)
{
    {
        AKUDoaLogging l = line();
        l << "a";
        l.nospace();
        l << "b" << 1;
        l.noenter();
    }
    EXPECT_EQ(only(), "[AKUDOALIB] a b1");
    g_lines.clear();
    {
        AKUDoaLogging l = line();
        l.nospace();
        l << "x";
        l.space();
        l << "y";
        l.noenter();
        l.enter();
    }
    EXPECT_EQ(only(), "[AKUDOALIB] xy \r\n");
    g_lines.clear();
    {
        AKUDoaLogging l = line();
        std::string sep = ", ";
        l.changeSpace(sep) << 1 << 2;
        l.maybeSpace();
    }
    EXPECT_EQ(only(), "[AKUDOALIB] 1, 2, , \r\n");
}

TEST_F(Logging, CopiesDeliverOnceWhenTheLastDies)
{
    {
        AKUDoaLogging a = line();
        a << "shared";
        {
            AKUDoaLogging b(a);
            b << "tail";
            AKUDoaLogging c(b);
        }
        EXPECT_TRUE(g_lines.empty());
    }
    EXPECT_EQ(only(), "[AKUDOALIB] shared tail \r\n");
}

TEST_F(Logging, CopyAssignmentDropsTheReplacedLine)
{
    {
        AKUDoaLogging a = line();
        a << "kept";
        AKUDoaLogging b = line();
        b << "dropped";
        b = a;
        EXPECT_TRUE(g_lines.empty()); // the replaced record is freed silently
        b << "more";
        AKUDoaLogging& same = a;
        a = same;
        b = a; // already shared: nothing released
    }
    EXPECT_EQ(only(), "[AKUDOALIB] kept more \r\n");
    g_lines.clear();
    {
        AKUDoaLogging a = line();
        a << "first";
        AKUDoaLogging b(a);
        AKUDoaLogging c = line();
        c << "second";
        b = c; // a still holds "first"; both lines arrive once each
    }
    ASSERT_EQ(g_lines.size(), 2u);
    EXPECT_EQ(g_lines[0].text, "[AKUDOALIB] second \r\n");
    EXPECT_EQ(g_lines[1].text, "[AKUDOALIB] first \r\n");
}

TEST_F(Logging, NothingArrivesWithoutHandler)
{
    InstallDoaMessageHandler(nullptr);
    line() << "lost" << 1 << std::string("x");
    AKUDOA_LOG() << "lost too";
    EXPECT_TRUE(g_lines.empty());
    InstallDoaMessageHandler(capture);
    line() << "found";
    EXPECT_EQ(only(), "[AKUDOALIB] found \r\n");
}
