// A client of the host platform that does what its arguments say, for the tests beside it.
#include <QCoreApplication>
#include <QDateTime>
#include <QSocketNotifier>

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>

#include "Configuration.h"
#include "LogInterface.h"
#include "UlmoFeatureBase.h"

LogInterface *_logInterface = nullptr;

namespace {

volatile sig_atomic_t signalsHandled;
volatile sig_atomic_t errnoChanged;

void logFromSignalHandler(int)
{
    errno = 1234;
    _logInterface->EmitLogString(2, "from the signal handler", "/signal");
    errnoChanged = errnoChanged || errno != 1234;
    signalsHandled = signalsHandled + 1;
}

/** An allocation or a lock in the log client locks up here, sooner or later. */
int logFromSignals()
{
    signal(SIGALRM, logFromSignalHandler);
    const itimerval often {{0, 100}, {0, 100}};
    setitimer(ITIMER_REAL, &often, nullptr);
    while (signalsHandled < 2000) {
        for (int size = 1; size < 100; ++size)
            QByteArray(size * 32, 'x');
        QDateTime::currentDateTime().toString();
    }
    return errnoChanged;
}

/** Tells what it is called with, and goes on at the next line of standard input. */
class Feature : public UlmoFeatureBase
{
public:
    Feature() : UlmoFeatureBase("/object") { }

    void ulmoPowerOnReboot(const QString &reason) override { called("reboot", reason); }
    void ulmoPowerOnShutdown(const QString &reason) override { called("shutdown", reason); }
    void ulmoPowerOnSuspend(const QString &reason) override { called("suspend", reason); }

private:
    void called(const char *event, const QString &reason)
    {
        printf("%s %s\n", event, qPrintable(reason));
        getchar();
    }
};

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    _logInterface = new LogInterface("/log");
    const QByteArray command = argv[1];
    if (command == "signals")
        return logFromSignals();
    if (command == "log") {
        _logInterface->EmitLogString(atoi(argv[2]), argv[3], "/a");
        return 0;
    }
    if (command == "events") {
        QCoreApplication application(argc, argv);
        Feature feature;
        QSocketNotifier input(0, QSocketNotifier::Read);
        QObject::connect(&input, &QSocketNotifier::activated, &QCoreApplication::quit);
        return application.exec();
    }
    Configuration configuration("/object");
    puts(configuration.isValid() ? "valid" : "invalid");
    getchar(); // the test may do something meanwhile
    if (command == "write" && argc == 4)
        puts(configuration.WriteConfigValue("S", argv[2], argv[3], false) ? "written" : "failed");
    bool isThere = false;
    const QString text = configuration.ReadConfigValue("S", "K", "default", &isThere, true);
    printf("%s %d\n", text.toUtf8().constData(), isThere);
    const int number = configuration.ReadConfigValue("S", "K", 77, &isThere, true);
    printf("%d %d\n", number, isThere);
}
