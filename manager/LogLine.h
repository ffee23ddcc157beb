// The form of every log line: "[FILE:LINE] FUNCTION: MESSAGE", at most 511 bytes, handed to the
// process-wide log client.
#ifndef LOGLINE_H
#define LOGLINE_H

#include <stddef.h>

#include "LogInterface.h"
#include "Names.h"

/** The log client of the process. The platform's own libraries log through this very name. */
extern LogInterface *_logInterface;

enum LogLevel {
    /** Start-up and fatal failures, give-ups of the audio path. */
    LogError = 1,
    /** Refusals, failed commands and calls, notable events from outside. */
    LogWarning = 2,
    /** Progress, requests, saved values. */
    LogInformation = 4,
    LogTrace = 9
};

/** Size of a formatted line with its terminating zero; what does not fit is cut. */
const size_t LogLineSize = 512;

/**
 * Formats a line into the buffer; FILE is the last part of the path. Allocates nothing and takes no
 * lock, as the C library's formatting of texts and integers does not either: a signal handler logs.
 */
void formatLogLine(char (&line)[LogLineSize], const char *file, int lineNumber,
                   const char *function, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

/**
 * Logs for an object path and in the name of a function:
 * LOG_LINE_AS(path, function, level, format, arguments...). A helper that several operations share
 * gives the name of the one that it works for.
 */
#define LOG_LINE_AS(objectPath, function, level, ...)                                              \
    do {                                                                                           \
        char logLine[LogLineSize];                                                                 \
        formatLogLine(logLine, __FILE__, __LINE__, function, __VA_ARGS__);                         \
        _logInterface->EmitLogString(level, logLine, objectPath);                                  \
    } while (false)

/** Logs for the object of the service and in the name of the function around it. */
#define LOG_LINE(level, ...) LOG_LINE_AS(Names::Object, __PRETTY_FUNCTION__, level, __VA_ARGS__)

#endif
