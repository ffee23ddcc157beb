// Log client of the product's logging library.
#ifndef LOGINTERFACE_H
#define LOGINTERFACE_H

class LogInterface
{
public:
    /** The object path names this client to the logging library. */
    explicit LogInterface(const char *objectPath);
    ~LogInterface();

    /**
     * Logs one line on behalf of an object. Levels: 1 error, 2 warning, 4 information, 9 trace.
     * May be called from a signal handler; never fails and never changes errno.
     */
    void EmitLogString(int level, const char *text, const char *objectPath);

private:
    LogInterface(const LogInterface &) = delete;
    LogInterface &operator=(const LogInterface &) = delete;

    struct Private;
    Private *const d;
};

#endif
