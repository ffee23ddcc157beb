#ifndef AGENTPROGRAM_H
#define AGENTPROGRAM_H

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTimer>

/**
 * The pairing agent as the board has it: registers once with the default adapter, answers a request
 * for a PIN after its delay and everything else at once, and ends with the daemon.
 */
class AgentProgram : public QDBusVirtualObject
{
    Q_OBJECT

public:
    explicit AgentProgram(const QDBusConnection &connection, QObject *parent = nullptr);

    /// Reads the command line; false, with a message on standard error, when it makes no sense.
    bool readArguments(const QStringList &arguments);
    /// The delay is a board's second times \p scale.
    void setTimescale(double scale) { m_scale = scale; }
    /// False, with a message on standard error, when there is no adapter or it has an agent.
    bool registerWithDaemon();
    /// Unregisters and has the application exit with 0.
    void stop();

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

private Q_SLOTS:
    void busLost();

private:
    void handleNext();
    void answer(const QDBusMessage &message, const QVariantList &values = QVariantList());

    QDBusConnection m_connection;
    QString m_path = QStringLiteral("/org/bluez/agent");
    QString m_capability = QStringLiteral("DisplayYesNo");
    QString m_pin;
    QString m_adapter;
    int m_delay = 0; ///< seconds
    double m_scale = 1;
    QList<QDBusMessage> m_waiting; ///< requests while one is being answered
    QTimer m_delayed;
};

#endif
