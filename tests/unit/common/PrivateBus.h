// A message bus of a test's own: nothing may reach a bus of the machine.
#ifndef PRIVATEBUS_H
#define PRIVATEBUS_H

#include <QtCore/QProcess>
#include <QtDBus/QDBusConnection>

/** Runs a dbus-daemon that allows everything, for as long as the object lives. */
class PrivateBus
{
public:
    PrivateBus()
    {
        m_daemon.start("dbus-daemon", {"--session", "--nofork", "--nopidfile", "--print-address"});
        while (!m_daemon.canReadLine() && m_daemon.waitForReadyRead(10000)) { }
        m_address = m_daemon.readLine().trimmed();
    }

    ~PrivateBus() { stop(); }

    /** Empty when there is no bus, for want of dbus-daemon for example. */
    QString address() const { return m_address; }

    /** A new connection of a name of its own; the caller disconnects it by that name. */
    QDBusConnection connection(const QString &name) const
    {
        return QDBusConnection::connectToBus(m_address, name);
    }

    /** Ends the bus; everybody on it is disconnected. */
    void stop()
    {
        m_daemon.kill();
        m_daemon.waitForFinished();
    }

private:
    QProcess m_daemon;
    QString m_address;
};

#endif
