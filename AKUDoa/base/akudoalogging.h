#ifndef AKUDOA_BASE_AKUDOALOGGING_H
#define AKUDOA_BASE_AKUDOALOGGING_H

#include <string>

#include "AKUDoa/base/akudoaexport.h"

// Receives every finished log line: source file, line (-1 when unknown),
// pretty function and the text ("[AKUDOALIB] ...\r\n"). It may be called
// from any thread that logs, so it must be reentrant.
typedef void (*AKUDoaMessageHandler)(const char* file, int line, const char* function, const char* message);

// Installs the process-wide handler; null uninstalls it and lines are then
// discarded. Not locked: install it before other threads use the library.
AKUDOA_EXPORT void InstallDoaMessageHandler(AKUDoaMessageHandler handler);

struct AKUDoaLoggingPrivate;

// Stream-style builder of one log line. Copies share one record; the line is
// delivered once, when the last copy is destroyed. A handle and its copies
// belong to one thread.
class AKUDOA_EXPORT AKUDoaLogging
{
public:
    AKUDoaLogging();
    AKUDoaLogging(const AKUDoaLogging& other);
    AKUDoaLogging& operator=(const AKUDoaLogging& other);
    ~AKUDoaLogging();

    void space();
    void nospace();
    void enter();
    void noenter();
    void quote();
    void noquote();
    AKUDoaLogging& changeSpace(const std::string& separator);
    AKUDoaLogging& maybeSpace();

    AKUDoaLogging& operator<<(unsigned long v);
    AKUDoaLogging& operator<<(long v);
    AKUDoaLogging& operator<<(unsigned int v);
    AKUDoaLogging& operator<<(unsigned short v);
    AKUDoaLogging& operator<<(int v);
    AKUDoaLogging& operator<<(short v);
    AKUDoaLogging& operator<<(double v);
    AKUDoaLogging& operator<<(float v);
    AKUDoaLogging& operator<<(const char* text);
    AKUDoaLogging& operator<<(char* text);
    AKUDoaLogging& operator<<(const std::string& text);
    AKUDoaLogging& operator<<(bool v);
    AKUDoaLogging& operator<<(char c);

private:
    friend class AKUMessage;
    void release(bool deliver);

    AKUDoaLoggingPrivate* d;
};

// Call-site context of a log line.
class AKUDOA_EXPORT AKUMessage
{
public:
    AKUMessage();
    AKUMessage(const char* file, int line, const char* function);

    // A new line builder carrying this context.
    AKUDoaLogging debug() const;

    std::string file;
    std::string function;
    int line;
};

// The library's call sites: AKUDOA_LOG() << "doakernel init: start";
#define AKUDOA_LOG() AKUMessage(__FILE__, __LINE__, __PRETTY_FUNCTION__).debug()

#endif
