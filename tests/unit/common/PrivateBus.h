// A message bus of a test's own: nothing may reach a bus of the machine.
#ifndef PRIVATEBUS_H
#define PRIVATEBUS_H

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QTemporaryDir>
#include <QtDBus/QDBusConnection>

/** Runs a dbus-daemon that allows everything, for as long as the object lives. */
class PrivateBus
{
public:
    PrivateBus()
    {
        QFile configuration(m_folder.filePath("bus.conf"));
        if (!configuration.open(QIODevice::WriteOnly))
            return;
        configuration.write(
            "<busconfig><type>session</type><listen>unix:dir=" + m_folder.path().toUtf8()
            + "</listen><policy context=\"default\"><allow send_destination=\"*\"/>"
              "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>");
        configuration.close();
        m_daemon.start("dbus-daemon",
                       {"--nofork", "--nopidfile", "--print-address",
                        "--config-file=" + configuration.fileName()});
        while (!m_daemon.canReadLine()) {
            if (!m_daemon.waitForReadyRead(10000))
                return;
        }
        m_address = QString::fromLatin1(m_daemon.readLine().trimmed());
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
    QTemporaryDir m_folder;
    QProcess m_daemon;
    QString m_address;
};

#endif
