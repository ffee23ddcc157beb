#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QSocketNotifier>
#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusServiceWatcher>

#include "Commands.h"
#include "Names.h"

class Watch : public QObject
{
    Q_OBJECT

public:
    Watch(QDBusConnection bus, bool json);

private Q_SLOTS:
    void signalCame(const QDBusMessage &signal);
    void ownerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void busLost();
    void outputChanged();

private:
    void tellOwner();
    void tell(const QString &event, const QString &text, const QStringList &details);

    const bool m_json;
    QString m_owner; // unique name of the service on the bus; empty while it does not run
    QDBusServiceWatcher m_watcher;
    QSocketNotifier m_output;
};

Watch::Watch(QDBusConnection bus, bool json)
    : m_json(json)
    , m_watcher(Names::Service, bus, QDBusServiceWatcher::WatchForOwnerChange)
    , m_output(STDOUT_FILENO, QSocketNotifier::Read)
{
    connect(&m_output, SIGNAL(activated(int)), SLOT(outputChanged()));
    connect(&m_watcher, SIGNAL(serviceOwnerChanged(QString, QString, QString)),
            SLOT(ownerChanged(QString, QString, QString)));
    bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                "Disconnected", this, SLOT(busLost()));
    // Without a name: every signal of the interface.
    bus.connect(Names::Service, Names::Object, Names::Interface, QString(), this,
                SLOT(signalCame(QDBusMessage)));
    m_owner = bus.interface()->serviceOwner(Names::Service);
    tellOwner();
}

void Watch::signalCame(const QDBusMessage &signal)
{
    const QVariant value = signal.arguments().value(0);
    QStringList details;
    if (value.isValid())
        details << jsonMember(value.type() == QVariant::Bool ? "on" : "pin", value);
    tell(signal.member(), value.toString(), details);
}

void Watch::ownerChanged(const QString &, const QString &, const QString &newOwner)
{
    if (newOwner == m_owner) // known since the start
        return;
    m_owner = newOwner;
    tellOwner();
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
    poll(&output, 1, 0);
    if (output.revents & (POLLERR | POLLHUP))
        QCoreApplication::exit(Done);
    m_output.setEnabled(false);
}

void Watch::tellOwner()
{
    const bool running = !m_owner.isEmpty();
    tell("Service", running ? "running" : "not running",
         QStringList(jsonMember("running", running)));
}

// The time as scripts want it, "2031-05-04T17:02:41.125+02:00", or as people read it.
void Watch::tell(const QString &event, const QString &text, const QStringList &details)
{
    const QDateTime now = QDateTime::currentDateTime();
    QString line;
    if (m_json) {
        QDateTime clock = now;
        clock.setTimeSpec(Qt::UTC);
        const int offset = int(now.secsTo(clock));
        const QString time = now.toString("yyyy-MM-dd'T'hh:mm:ss.zzz") + (offset < 0 ? '-' : '+')
            + QTime(0, 0).addSecs(qAbs(offset)).toString("hh:mm");
        line = jsonObject(QStringList()
                          << jsonMember("time", time) << jsonMember("event", event) << details);
    } else {
        const QString time = now.toString("yyyy-MM-dd hh:mm:ss.zzz");
        line = QString("%1  %2  %3").arg(time).arg(event, -21).arg(text).trimmed(); // 21: longest
    }
    puts(line.toUtf8().constData());
    if (fflush(stdout) != 0) {
        perror("ulmoctl: cannot write");
        exit(Refused);
    }
}

int watch(const QDBusConnection &bus, bool json)
{
    // Every line has been written out by the time the next one comes.
    const auto endAtOnce = [](int) { _exit(Done); };
    signal(SIGINT, endAtOnce);
    signal(SIGTERM, endAtOnce);
    Watch watch(bus, json);
    return QCoreApplication::exec();
}

#include "Watch.moc"
