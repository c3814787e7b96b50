#include "AKUDoa/base/akudoalogging.h"

#include <cstdint>
#include <sstream>

namespace {
// Process-wide, unlocked: written once by the host before logging starts.
AKUDoaMessageHandler m_messageHandler = nullptr;
}

void InstallDoaMessageHandler(AKUDoaMessageHandler handler)
{
    m_messageHandler = handler;
}

struct AKUDoaLoggingPrivate
{
    int32_t ref = 1;
    std::ostringstream stream;
    std::string separator = " ";
    std::string file;
    std::string function;
    int32_t line = -1;
    bool spaceEnabled = true;
    bool enterEnabled = true;
    bool quoteEnabled = true;
};

AKUDoaLogging::AKUDoaLogging() : d(new AKUDoaLoggingPrivate)
{
    d->stream << "[AKUDOALIB] ";
}

AKUDoaLogging::AKUDoaLogging(const AKUDoaLogging& other) : d(other.d)
{
    ++d->ref;
}

AKUDoaLogging& AKUDoaLogging::operator=(const AKUDoaLogging& other)
{
    if (d != other.d) {
        // The replaced line is dropped, not delivered.
        release(false);
        d = other.d;
        ++d->ref;
    }
    return *this;
}

AKUDoaLogging::~AKUDoaLogging()
{
    release(true);
}

void AKUDoaLogging::release(bool deliver)
{
    if (--d->ref > 0)
        return;
    if (deliver) {
        // A stream put into its bad state by a null text ignores the line end.
        if (d->enterEnabled)
            d->stream << "\r\n";
        if (m_messageHandler) {
            const std::string text = d->stream.str();
            m_messageHandler(d->file.c_str(), d->line, d->function.c_str(), text.c_str());
        }
    }
    delete d;
    d = nullptr;
}

void AKUDoaLogging::space() { d->spaceEnabled = true; }
void AKUDoaLogging::nospace() { d->spaceEnabled = false; }
void AKUDoaLogging::enter() { d->enterEnabled = true; }
void AKUDoaLogging::noenter() { d->enterEnabled = false; }
void AKUDoaLogging::quote() { d->quoteEnabled = true; }
void AKUDoaLogging::noquote() { d->quoteEnabled = false; }

AKUDoaLogging& AKUDoaLogging::changeSpace(const std::string& separator)
{
    d->separator = separator;
    return *this;
}

AKUDoaLogging& AKUDoaLogging::maybeSpace()
{
    if (d->spaceEnabled)
        d->stream << d->separator;
    return *this;
}

AKUDoaLogging& AKUDoaLogging::operator<<(unsigned long v)
{
    d->stream << v;
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(long v)
{
    d->stream << v;
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(unsigned int v)
{
    d->stream << static_cast<uint64_t>(v);
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(unsigned short v)
{
    d->stream << static_cast<uint64_t>(v);
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(int v)
{
    d->stream << v;
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(short v)
{
    d->stream << v;
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(double v)
{
    d->stream << v;
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(float v)
{
    d->stream << static_cast<double>(v);
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(const char* text)
{
    // A null text ends the line's content: the stream goes bad and ignores
    // every later insertion, but what came before is still delivered.
    if (text)
        d->stream << text;
    else
        d->stream.setstate(std::ios_base::badbit);
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(char* text)
{
    return *this << static_cast<const char*>(text);
}

AKUDoaLogging& AKUDoaLogging::operator<<(const std::string& text)
{
    if (d->quoteEnabled)
        d->stream << '"' << text << '"';
    else
        d->stream << text;
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(bool v)
{
    d->stream << (v ? "true" : "false");
    return maybeSpace();
}

AKUDoaLogging& AKUDoaLogging::operator<<(char c)
{
    d->stream << c;
    return maybeSpace();
}

AKUMessage::AKUMessage() : line(-1) {}

AKUMessage::AKUMessage(const char* file, int line, const char* function)
    : file(file ? file : ""), function(function ? function : ""), line(line)
{
}

AKUDoaLogging AKUMessage::debug() const
{
    AKUDoaLogging log;
    log.d->file = file;
    log.d->line = line;
    log.d->function = function;
    return log;
}
