#include "Buses.h"

namespace {
const int StartTimeoutMs = 10000;
}

Buses::Buses(const QString &folder, QObject *parent) : QObject(parent), m_log(folder + "/buses.log")
{
    m_daemons["session"];
    m_daemons["system"];
}

Buses::~Buses()
{
    for (auto &[bus, daemon] : m_daemons) {
        daemon.kill();
        daemon.waitForFinished();
    }
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

bool Buses::isRunning(const QString &bus) const
{
    const auto found = m_daemons.find(bus);
    return found != m_daemons.end() && found->second.state() != QProcess::NotRunning;
}

QString Buses::start(const QString &bus)
{
    if (isRunning(bus))
        return "the " + bus + " bus runs already";
    QProcess &daemon = m_daemons[bus];
    daemon.setStandardErrorFile(m_log, QIODevice::Append);
    daemon.start("dbus-daemon",
                 {"--config-file=/run/product/bus.conf", "--nofork", "--nopidfile",
                  "--address=" + address(bus), "--print-address"});
    // Once the address is printed, the socket is there.
    return daemon.waitForReadyRead(StartTimeoutMs) ? QString()
                                                   : "the " + bus + " bus does not start";
}

QString Buses::kill(const QString &bus)
{
    if (!isRunning(bus))
        return "the " + bus + " bus does not run";
    m_daemons[bus].kill();
    m_daemons[bus].waitForFinished();
    return {};
}
