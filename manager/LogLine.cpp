#include "LogLine.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

void formatLogLine(char (&line)[LogLineSize], const char *file, int lineNumber,
                   const char *function, const char *format, ...)
{
    const char *const slash = strrchr(file, '/');
    const int length =
        snprintf(line, LogLineSize, "[%s:%d] %s: ", slash ? slash + 1 : file, lineNumber, function);
    if (length < 0 || static_cast<size_t>(length) >= LogLineSize)
        return;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line + length, LogLineSize - length, format, arguments);
    va_end(arguments);
}
