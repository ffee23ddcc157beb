#ifndef BLUETOOTHD_H
#define BLUETOOTHD_H

#include "Result.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QStringList>

class Program;

/**
 * The hub's line to the virtual bluetoothd: commands and options, and what must outlive the daemon
 * so that a restarted one gets it again.
 */
class Bluetoothd : public QObject
{
    Q_OBJECT

public:
    explicit Bluetoothd(QObject *parent = nullptr);

    /// Adds what a starting bluetoothd is told to \p answer, the answer to its hello.
    void addOptions(QJsonObject *answer) const;
    /// \p program has been answered and takes commands from now on.
    void attach(Program *program);
    void detach(Program *program);
    /// Whether \p object, from the daemon, was meant for this class.
    bool handle(const QJsonObject &object);

    bool isRunning() const;
    /// Hands \p line to the daemon. "phone add" waits for the next daemon when none runs.
    void command(const QString &line, const Done &done);
    /// An option from now on and at the next starts; null takes it back.
    void setOption(const QString &key, const QJsonValue &value);
    QJsonObject options() const { return m_options; }

Q_SIGNALS:
    /// A "phone add" that waited was refused.
    void waitingPhoneRefused(const QString &line, const QString &reason);

private:
    void failOpenCommands(const QString &reason);

    QPointer<Program> m_program;
    QJsonObject m_options;
    QStringList m_waitingPhones;
    int m_nextCommand = 1;
    QHash<int, Done> m_openCommands;
};

#endif
