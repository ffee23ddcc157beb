// A message bus of a test's own.
#ifndef PRIVATEBUS_H
#define PRIVATEBUS_H

#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtDBus/QDBusConnection>

/**
 * Runs a dbus-daemon that allows everything, for as long as the object lives. No bus of the machine
 * is touched.
 */
class PrivateBus
{
public:
    PrivateBus()
    {
        m_daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--session"), QStringLiteral("--nofork"),
                        QStringLiteral("--nopidfile"), QStringLiteral("--print-address")});
        if (m_daemon.waitForStarted() && m_daemon.waitForReadyRead())
            m_address = QString::fromLatin1(m_daemon.readLine().trimmed());
    }

    ~PrivateBus() { stop(); }

    /** Empty when the daemon could not be started. */
    QString address() const { return m_address; }

    /** A new connection of a name of its own; the caller disconnects it by that name. */
    QDBusConnection connection(const QString &name) const
    {
        return QDBusConnection::connectToBus(m_address, name);
    }

    /** Ends the bus; everybody on it is disconnected. */
    void stop()
    {
        m_daemon.terminate();
        m_daemon.waitForFinished();
    }

private:
    QProcess m_daemon;
    QString m_address;
};

#endif
