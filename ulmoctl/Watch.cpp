#include "Watch.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>
#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusServiceWatcher>

#include "BluetoothServiceProxy.h"
#include "Names.h"
#include "Outcome.h"

namespace {

// Every line has been written out by the time the next one comes.
void endAtOnce(int)
{
    _exit(Done);
}

// As scripts want it, "2031-05-04T17:02:41.125+02:00", or as people read it, without the zone.
QString localTime(bool json)
{
    const QDateTime now = QDateTime::currentDateTime();
    if (!json)
        return now.toString(QLatin1String("yyyy-MM-dd hh:mm:ss.zzz"));
    QDateTime clock = now;
    clock.setTimeSpec(Qt::UTC);
    const int offset = int(now.secsTo(clock));
    return now.toString(QLatin1String("yyyy-MM-dd'T'hh:mm:ss.zzz"))
        + QLatin1Char(offset < 0 ? '-' : '+')
        + QTime(0, 0).addSecs(qAbs(offset)).toString(QLatin1String("hh:mm"));
}

} // namespace

Watch::Watch(const QDBusConnection &bus, bool json)
    : m_bus(bus)
    , m_json(json)
    , m_output(new QSocketNotifier(STDOUT_FILENO, QSocketNotifier::Read, this))
{
}

int Watch::run()
{
    signal(SIGINT, endAtOnce);
    signal(SIGTERM, endAtOnce);
    connect(m_output, SIGNAL(activated(int)), SLOT(outputChanged()));

    const QString name = QLatin1String(Names::Service);
    QDBusServiceWatcher watcher(name, m_bus, QDBusServiceWatcher::WatchForOwnerChange);
    connect(&watcher, SIGNAL(serviceOwnerChanged(QString, QString, QString)),
            SLOT(ownerChanged(QString, QString, QString)));
    m_bus.connect(QString(), QLatin1String("/org/freedesktop/DBus/Local"),
                  QLatin1String("org.freedesktop.DBus.Local"), QLatin1String("Disconnected"), this,
                  SLOT(busLost()));
    // Without a name: every signal of the interface.
    m_bus.connect(name, QLatin1String(Names::Object),
                  QLatin1String(BluetoothServiceProxy::staticInterfaceName()), QString(), this,
                  SLOT(signalCame(QDBusMessage)));

    QTimer::singleShot(0, this, SLOT(begin())); // in the loop, which it may have to end
    return QCoreApplication::exec();
}

void Watch::begin()
{
    setOwner(m_bus.interface()->serviceOwner(QLatin1String(Names::Service)));
}

void Watch::signalCame(const QDBusMessage &signal)
{
    const QVariant value = signal.arguments().value(0);
    JsonObject details;
    if (value.isValid())
        details.add(value.type() == QVariant::Bool ? "on" : "pin", value);
    tell(signal.member(), value.toString(), details);
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
    fputs("ulmoctl: the bus is gone\n", stderr);
    QCoreApplication::exit(Unreachable);
}

// Whoever read the output has closed it; or there is something to read from it, as from a terminal.
void Watch::outputChanged()
{
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)))
        QCoreApplication::exit(Done);
    else
        m_output->setEnabled(false);
}

void Watch::setOwner(const QString &owner)
{
    m_owner = owner;
    const bool running = !owner.isEmpty();
    tell(QLatin1String("Service"), QLatin1String(running ? "running" : "not running"),
         JsonObject().add("running", running));
}

void Watch::tell(const QString &event, const QString &text, const JsonObject &details)
{
    const QString time = localTime(m_json);
    QByteArray line;
    if (m_json) {
        line = JsonObject().add("time", time).add("event", event).addMembers(details).toUtf8();
    } else {
        line = QString::fromLatin1("%1  %2  %3")
                   .arg(time)
                   .arg(event, -21) // the longest
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
