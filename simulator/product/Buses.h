#ifndef BUSES_H
#define BUSES_H

#include <QDBusConnection>
#include <QProcess>

/// The two buses of the board, "session" and "system", each a daemon that can be ended.
class Buses
{
public:
    /// What the daemons complain of goes into buses.log in \p folder.
    explicit Buses(const QString &folder);
    ~Buses();

    /// Where a bus is, or will be.
    static QString address(const QString &bus);
    /// The connection \p name to \p bus; one whose bus was ended is made anew.
    static QDBusConnection connection(const QString &bus, const QString &name);

    /// Starts \p bus. Returns why not, or an empty text.
    QString start(const QString &bus);
    /// Ends \p bus; what was connected to it has lost it for good. Returns why not, or empty.
    QString kill(const QString &bus);

private:
    QProcess &daemonOf(const QString &bus) { return bus == "session" ? m_session : m_system; }

    QProcess m_session;
    QProcess m_system;
};

#endif
