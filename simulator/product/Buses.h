#ifndef BUSES_H
#define BUSES_H

#include <QDBusConnection>
#include <QObject>
#include <QProcess>

#include <map>

/// The two buses of the board, "session" and "system", each a daemon that can be ended.
class Buses : public QObject
{
    Q_OBJECT

public:
    /// What the daemons complain of goes into buses.log in \p folder.
    explicit Buses(const QString &folder, QObject *parent = nullptr);
    ~Buses() override;

    /// Where a bus is, or will be.
    static QString address(const QString &bus);
    /// The connection \p name to \p bus; one whose bus was ended is made anew.
    static QDBusConnection connection(const QString &bus, const QString &name);

    bool isRunning(const QString &bus) const;
    /// Starts \p bus. Returns why not, or an empty text.
    QString start(const QString &bus);
    /// Ends \p bus; what was connected to it has lost it for good.
    QString kill(const QString &bus);

private:
    QString m_log;
    std::map<QString, QProcess> m_daemons;
};

#endif
