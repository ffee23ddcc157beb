#include "Buses.h"

namespace {
const int StartTimeoutMs = 10000;
}

Buses::Buses(const QString &folder)
{
    for (QProcess *daemon : {&m_session, &m_system})
        daemon->setStandardErrorFile(folder + "/buses.log", QIODevice::Append);
}

Buses::~Buses()
{
    kill("session");
    kill("system");
}

QString Buses::address(const QString &bus)
{
    return qEnvironmentVariable(bus == "session" ? "DBUS_SESSION_BUS_ADDRESS"
                                                 : "DBUS_SYSTEM_BUS_ADDRESS");
}

QDBusConnection Buses::connection(const QString &bus, const QString &name)
{
    if (!QDBusConnection(name).isConnected())
        QDBusConnection::disconnectFromBus(name);
    return QDBusConnection::connectToBus(address(bus), name);
}

QString Buses::start(const QString &bus)
{
    QProcess &daemon = daemonOf(bus);
    if (daemon.state() != QProcess::NotRunning)
        return "the " + bus + " bus runs already";
    daemon.start("dbus-daemon",
                 {"--config-file=/run/product/bus.conf", "--nofork", "--nopidfile",
                  "--address=" + address(bus), "--print-address"});
    // Once the address is printed, the socket is there.
    return daemon.waitForReadyRead(StartTimeoutMs) ? QString()
                                                   : "the " + bus + " bus does not start";
}

QString Buses::kill(const QString &bus)
{
    QProcess &daemon = daemonOf(bus);
    if (daemon.state() == QProcess::NotRunning)
        return "the " + bus + " bus does not run";
    daemon.kill();
    daemon.waitForFinished();
    return {};
}
