#include "Watch.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>
#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusServiceWatcher>

#include "BluetoothServiceProxy.h"
#include "ExitStatus.h"
#include "Names.h"

namespace {

// From the signal handler, in which nothing else is safe, to the event loop.
int interruptPipe[2] = {-1, -1};

void interrupt(int)
{
    const int savedErrno = errno;
    const ssize_t written = write(interruptPipe[1], "", 1);
    (void)written; // a full pipe wakes the loop as well
    errno = savedErrno;
}

bool catchInterrupts()
{
    if (pipe2(interruptPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = interrupt;
    action.sa_flags = SA_RESTART;
    return sigaction(SIGINT, &action, 0) == 0 && sigaction(SIGTERM, &action, 0) == 0;
}

// As scripts want it, "2031-05-04T17:02:41.125+02:00", or as people read it, without the zone.
QString localTime(bool json)
{
    timeval now;
    gettimeofday(&now, 0);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char date[32];
    strftime(date, sizeof date, json ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &local);
    QString result = QString::fromLatin1("%1.%2")
                         .arg(QLatin1String(date))
                         .arg(int(now.tv_usec / 1000), 3, 10, QLatin1Char('0'));
    if (json) {
        char zone[8];
        strftime(zone, sizeof zone, "%z", &local); // "+0200"
        result += QString::fromLatin1(zone).insert(3, QLatin1Char(':'));
    }
    return result;
}

} // namespace

Watch::Watch(const QDBusConnection &bus, bool json) : m_bus(bus), m_json(json) { }

int Watch::run()
{
    if (!catchInterrupts()) {
        perror("ulmoctl: cannot catch signals");
        return Refused;
    }
    QSocketNotifier notifier(interruptPipe[0], QSocketNotifier::Read);
    connect(&notifier, SIGNAL(activated(int)), SLOT(interrupted()));

    const QString name = QLatin1String(Names::Service);
    QDBusServiceWatcher watcher(name, m_bus, QDBusServiceWatcher::WatchForOwnerChange);
    connect(&watcher, SIGNAL(serviceOwnerChanged(QString, QString, QString)),
            SLOT(ownerChanged(QString, QString, QString)));
    m_bus.connect(QString(), QLatin1String("/org/freedesktop/DBus/Local"),
                  QLatin1String("org.freedesktop.DBus.Local"), QLatin1String("Disconnected"), this,
                  SLOT(busLost()));

    BluetoothServiceProxy service(name, QLatin1String(Names::Object), m_bus);
    connect(&service, SIGNAL(BluetoothOn(bool)), SLOT(bluetoothOn(bool)));
    connect(&service, SIGNAL(BluetoothPidChanged(QString)), SLOT(pinChanged(QString)));
    connect(&service, SIGNAL(ConnectAudioDevice()), SLOT(audioDeviceConnected()));
    connect(&service, SIGNAL(DisconnectAudioDevice()), SLOT(audioDeviceDisconnected()));
    connect(&service, SIGNAL(NoPlayConnectedDevive()), SLOT(connectedDeviceSilent()));

    QTimer::singleShot(0, this, SLOT(begin())); // in the loop, which it may have to end
    return QCoreApplication::exec();
}

void Watch::begin()
{
    m_owner = m_bus.interface()->serviceOwner(QLatin1String(Names::Service));
    tellRunning();
}

void Watch::bluetoothOn(bool on)
{
    tell("BluetoothOn", QLatin1String(on ? "true" : "false"), JsonObject().addFlag("on", on));
}

void Watch::pinChanged(const QString &pin)
{
    tell("BluetoothPidChanged", pin, JsonObject().addText("pin", pin));
}

void Watch::audioDeviceConnected()
{
    tell("ConnectAudioDevice", QString(), JsonObject());
}

void Watch::audioDeviceDisconnected()
{
    tell("DisconnectAudioDevice", QString(), JsonObject());
}

void Watch::connectedDeviceSilent()
{
    tell("NoPlayConnectedDevive", QString(), JsonObject());
}

// A service that gives way to another has gone and come, with all that was known of it.
void Watch::ownerChanged(const QString &, const QString &, const QString &newOwner)
{
    if (newOwner == m_owner) // known since begin() asked
        return;
    if (!m_owner.isEmpty() && !newOwner.isEmpty())
        setOwner(QString());
    setOwner(newOwner);
}

void Watch::busLost()
{
    fputs("ulmoctl: the session bus is gone\n", stderr);
    QCoreApplication::exit(Unreachable);
}

void Watch::interrupted()
{
    QCoreApplication::exit(Done);
}

void Watch::setOwner(const QString &owner)
{
    m_owner = owner;
    tellRunning();
}

void Watch::tellRunning()
{
    const bool running = !m_owner.isEmpty();
    tell("Service", QLatin1String(running ? "running" : "not running"),
         JsonObject().addFlag("running", running));
}

void Watch::tell(const char *event, const QString &text, const JsonObject &details)
{
    const QString time = localTime(m_json);
    QByteArray line;
    if (m_json) {
        line = JsonObject()
                   .addText("time", time)
                   .addText("event", QLatin1String(event))
                   .addMembers(details)
                   .toUtf8();
    } else {
        line = QString::fromLatin1("%1  %2  %3")
                   .arg(time)
                   .arg(QLatin1String(event), -21) // the longest
                   .arg(text)
                   .trimmed()
                   .toUtf8();
    }
    puts(line.constData());
    if (fflush(stdout) != 0) {
        perror("ulmoctl: cannot write");
        QCoreApplication::exit(Refused);
    }
}
