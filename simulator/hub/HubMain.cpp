#include "HubMain.h"

#include "Control.h"
#include "Hub.h"
#include "Timeline.h"

#include <QCoreApplication>
#include <QProcess>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

const char Folder[] = "/run/product/out";
const char Build[] = "/run/product/build";
const int CommandEndTimeoutMs = 2000;

/// The value of an environment variable that is meant for the hub alone, taken away.
QString takeVariable(const char *name)
{
    const QString value = qEnvironmentVariable(name);
    qunsetenv(name);
    return value;
}

int fail(const QString &text)
{
    fprintf(stderr, "virtual-product: %s\n", qPrintable(text));
    return 1;
}

int signalPipe[2];

void passOn(int signal)
{
    const char number = char(signal);
    // A full pipe holds the same news already.
    if (write(signalPipe[1], &number, 1) != 1)
        return;
}

/// Has the product end orderly at SIGTERM, and at an interrupt from the terminal.
void quitOnSignals(Hub &hub, bool withCommand)
{
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("cannot make a pipe");
    // Handlers, not a signal mask, since programs inherit that.
    for (int signal : {SIGTERM, SIGINT})
        std::signal(signal, passOn);
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &hub);
    QObject::connect(notifier, &QSocketNotifier::activated, &hub, [&hub, withCommand] {
        char signal = 0;
        while (read(signalPipe[0], &signal, 1) == 1) {
            // An interrupt is the command's own business while there is one.
            if (signal == SIGTERM || !withCommand)
                hub.quit(128 + signal);
        }
    });
}

/// Runs the user's command on the user's terminal; its end is the product's.
void runCommand(Hub &hub, const QString &command)
{
    auto *process = new QProcess(&hub);
    process->setInputChannelMode(QProcess::ForwardedInputChannel);
    process->setProcessChannelMode(QProcess::ForwardedChannels);
    QObject::connect(process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &hub,
                     [&hub](int code, QProcess::ExitStatus status) {
                         hub.quit(status == QProcess::CrashExit ? 128 + code : code);
                     });
    // Where the product is told to end first, the command ends with it.
    QObject::connect(qApp, &QCoreApplication::aboutToQuit, process, [process] {
        process->disconnect();
        process->terminate();
        process->waitForFinished(CommandEndTimeoutMs);
    });
    process->start("bash", {"-c", "exec " + command});
}

} // namespace

int hubMain(int argc, char **argv)
{
    const bool realPulse = takeVariable("PRODUCT_PULSE") != "scripted";
    const QString command = takeVariable("PRODUCT_COMMAND");
    const QString service = takeVariable("PRODUCT_SERVICE");
    const QStringList lines = takeVariable("PRODUCT_TELL").split('\n', Qt::SkipEmptyParts);
    const QStringList environment =
        takeVariable("PRODUCT_ENVIRONMENT").split('\n', Qt::SkipEmptyParts);
    const QString under = takeVariable("PRODUCT_UNDER");
    const QString outside = takeVariable("PRODUCT_OUT");
    for (const char *laidOut : {"PRODUCT_BUILD", "PRODUCT_DIRECTORY"})
        qunsetenv(laidOut);

    QCoreApplication application(argc, argv);
    Hub hub(Build, Folder, realPulse);
    hub.service().setServiceEnvironment(environment);
    hub.service().setUnder(under);
    quitOnSignals(hub, !command.isEmpty());
    QString error;
    if (!hub.start(&error))
        return fail(error);
    for (const QString &line : lines) {
        hub.control().tell(line, [&error, line](const Result &result) {
            if (!result.ok)
                error = line + ": " + result.text;
        });
    }
    if (!error.isEmpty())
        return fail(error);

    if (service == "start" && !hub.startService().ok)
        return fail(hub.service().program() + " cannot be started: " + hub.service().errorString());
    if (command.isEmpty()) {
        printf("virtual product ready: %s\n", qPrintable(outside));
        fflush(stdout);
    } else {
        runCommand(hub, command);
    }
    const int status = QCoreApplication::exec();
    if (!writeTimeline(Folder, &error))
        fail(error);
    return status;
}
