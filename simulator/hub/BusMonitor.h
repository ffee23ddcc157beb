#ifndef BUSMONITOR_H
#define BUSMONITOR_H

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QStringList>
#include <QVector>

#include <functional>

#include <dbus/dbus.h>

/// Sees every message on one bus and turns it into a journal entry.
class BusMonitor : public QObject
{
    Q_OBJECT

public:
    /// \p bus is "session" or "system".
    explicit BusMonitor(const QString &bus, QObject *parent = nullptr);
    ~BusMonitor() override;

    /// Who a process is, in one word; empty when unknown.
    using ProgramNames = std::function<QString(qint64 pid)>;
    void setProgramNames(const ProgramNames &names);

    /// Begins, or begins anew when that bus was ended and started. False, with \p error set, when
    /// the bus at \p address cannot be watched.
    bool start(const QString &address, QString *error);
    /// What has come in since the last time, in the order of the bus.
    QVector<QJsonObject> takeEntries();
    /// Returns when the bus has handed on what was sent to it before, for takeEntries() to find.
    void settle();

Q_SIGNALS:
    /// There may be something to take.
    void readable();

private:
    void disconnectBoth();
    DBusConnection *connectTo(const QString &address, QString *error);
    bool becomeMonitor(QString *error);
    void readAvailable();
    void popMessages();
    void followNames(DBusMessage *message);
    QString programOf(const QString &uniqueName);
    QString nameOf(const QString &busName) const;
    QJsonObject toEntry(DBusMessage *message);
    void nameCall(DBusMessage *message, QJsonObject *entry);

    struct Call
    {
        QString path, interface, member;
    };

    QString m_bus;
    ProgramNames m_programNames;
    DBusConnection *m_monitor = nullptr;
    DBusConnection *m_asker = nullptr; ///< a monitor may not ask anything itself
    QVector<QJsonObject> m_entries; ///< read, but not taken yet
    quint32 m_lastQuestion = 0; ///< serial of our last call that has passed the monitor
    QString m_askerName; ///< of our own two connections, whose messages nobody wants to see
    QString m_monitorName;
    QHash<QString, QString> m_programs; ///< unique name -> program
    QHash<QString, QStringList> m_wellKnownNames; ///< unique name -> names it owns
    QHash<QString, QString> m_owners; ///< well-known name -> unique name
    QHash<QPair<QString, quint32>, Call> m_openCalls; ///< caller and serial -> what was called
};

#endif
