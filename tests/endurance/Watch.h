#ifndef WATCH_H
#define WATCH_H

#include "VirtualProduct.h"

#include <QMap>
#include <QSet>

/**
 * Follows the service through the journal of a product and tells what must never be, whatever
 * happens around it.
 */
class Watch
{
public:
    explicit Watch(VirtualProduct &product) : m_product(product) { }

    /// Reads what is new and returns the first thing that is wrong; empty when all is well.
    QString follow();
    /// Lets go of what was read, in runs that take long.
    void forget();
    /// The end of the service that follows is wanted.
    void expectEnd() { m_endExpected = true; }

    bool isServiceRunning() const { return !m_alive.value("service").isEmpty(); }
    /// Whether the service holds a phone that it has announced to make again.
    bool isReconnectPending() const { return m_reconnectPending; }
    /// Whether BlueZ has ended by itself and is to be started again.
    bool isRestartPending() const { return m_restartPending; }
    /// Whether the agent that runs now is known to the BlueZ that runs now.
    bool isAgentRegistered() const { return m_agentRegistered; }
    /// What the service said last that it has saved, as in the settings file.
    const QMap<QString, QString> &saved() const { return m_saved; }
    /// The processes of \p program that have been started and have not ended.
    QSet<int> alive(const QString &program) const { return m_alive.value(program); }
    QStringList programs() const { return m_alive.keys(); }

private:
    QString read(const QJsonObject &entry);
    QString readProcess(const QJsonObject &entry);
    QString readLog(const QString &message, double time);
    QString readHolding(const QString &message);
    QString readTimers(const QString &message, double time);
    QString readSilence(const QString &message, double time);
    void readSaved(const QString &message);
    QString findDoubled();

    VirtualProduct &m_product;
    int m_position = 0;
    QMap<QString, QSet<int>> m_alive;
    QMap<QString, QString> m_saved;
    QString m_held;
    bool m_endExpected = false;
    bool m_reconnectPending = false;
    bool m_restartPending = false;
    bool m_agentRegistered = false;
    bool m_polls = false; ///< PulseAudio is being brought up
    double m_silentSince = -1; ///< since when the no-play timer runs; negative when it does not
    double m_silentBefore = -1; ///< the same before the disconnection that is tried
    QString m_silentSource; ///< whose silence that is
    QString m_changedSource; ///< whose state has changed last
    double m_startingSince = -1; ///< since when BlueZ is awaited; negative when it is not
};

#endif
