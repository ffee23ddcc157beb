#ifndef BUSRECORDER_H
#define BUSRECORDER_H

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>

#include <dbus/dbus.h>

/**
 * Writes down what happens around org.bluez on a bus, in the bus's own order, one line a message:
 *
 *   OBJECT Interface.Property = VALUE          the signal PropertyChanged
 *   signal OBJECT Interface.Member ARGUMENTS   any other signal
 *   call agent Agent.Member ARGUMENTS          only the daemon's own calls
 *   return OBJECT Interface.Member ARGUMENTS   with what was called
 *   error OBJECT Interface.Member NAME "TEXT"
 *
 * Objects are "/", "adapter", "agent" and phones by the names given to name(); texts are quoted,
 * dictionaries are {key value ...}, "org.bluez." and the common part of UUIDs are left out.
 */
class BusRecorder : public QObject
{
    Q_OBJECT

public:
    explicit BusRecorder(const QString &address);
    ~BusRecorder() override;

    /// Has the object of the phone with \p address be called \p name.
    void name(const QString &address, const QString &name);
    QStringList lines() const { return m_lines; }
    /// Real time from the line before to the line at \p index.
    qint64 millisecondsBefore(int index) const { return m_times.at(index) - m_times.at(index - 1); }
    void clear();
    /// Waits for \p count lines since the last clear().
    bool waitForLines(int count) const;
    /// Waits until \p line is among the lines.
    bool waitForLine(const QString &line) const;

Q_SIGNALS:
    void recorded();

private:
    bool waitUntil(const std::function<bool()> &condition) const;
    void readMessages();
    void record(DBusMessage *message);
    QString describeSignal(DBusMessage *message, const QString &what);
    void add(const QString &line);
    QString role(const QString &path) const;
    QString argument(DBusMessageIter *iterator) const;
    QString arguments(DBusMessage *message) const;

    DBusConnection *m_connection = nullptr;
    QHash<QString, QString> m_names; ///< last part of an object path -> name
    QHash<QPair<QString, quint32>, QString> m_calls; ///< caller, serial -> what was called
    QString m_daemon; ///< the unique name that owns org.bluez
    QStringList m_lines;
    QVector<qint64> m_times; ///< of the lines
    QElapsedTimer m_clock;
};

#endif
