#ifndef LOGINMANAGER_H
#define LOGINMANAGER_H

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QList>

class QSocketNotifier;

/**
 * systemd's login manager as far as a service meets it that wants to finish something before the
 * machine sleeps or goes down. Absent until it is told to start.
 */
class LoginManager : public QDBusVirtualObject
{
    Q_OBJECT

public:
    explicit LoginManager(QObject *parent = nullptr);
    ~LoginManager() override;

    /// Connects to the system bus at \p address, without a name yet.
    bool connectToBus();
    /**
     * Takes the name, to behave as systemd of \p version: from 250 on it tells by a property, from
     * 255 on by a signal of its own, whether a shutdown is a reboot.
     */
    bool start(int version);
    void stop();
    /// "suspend", "resume", "shutdown", "reboot", or "cancel" for a shutdown taken back.
    bool sendEvent(const QString &event);

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

Q_SIGNALS:
    /// Something for the journal.
    void happened(const QString &text);

private:
    QDBusMessage inhibit(const QDBusMessage &message);
    void emitSignal(const QString &member, const QVariantList &arguments);
    void inhibitorReleased(int descriptor);
    void goDownWhenReleased(const QString &what);
    void goDown(bool waited);

    QDBusConnection m_connection;
    int m_version = 0;
    QString m_shutdownType;
    QList<int> m_inhibitors; ///< our ends; the other side has closed its own when one can be read
    QString m_goingDown; ///< what happens when the last inhibitor is released
};

#endif
