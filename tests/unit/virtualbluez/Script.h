#ifndef SCRIPT_H
#define SCRIPT_H

#include <QString>
#include <QStringList>
#include <QVector>

class DaemonBench;

/**
 * What is done to a virtual daemon, and the messages that it must send meanwhile, in order.
 *
 *   > ACTION           start | agent | stop | stop-agent | option KEY VALUE
 *                      unit OBJECT Interface.Method ["TEXT"|true|false|OBJECT ...]
 *                      phone NAME name="..."    adds a phone
 *                      anything else is for the daemon: phone NAME VERB, adapter VERB, wait MS
 *   LINE               a message, see BusRecorder
 *   | REST             goes on with the line before
 *   +MS LINE           the same, MS of product time after the line before it
 *   ~ LINE             the same, before or after the next line: two programs race for the bus
 *   # COMMENT
 */
class Script
{
public:
    struct Section
    {
        QString title;
        QString script;
    };
    /// The scripts of \p file, each headed by "== TITLE". Aborts when there are none.
    static QVector<Section> sections(const QString &file);

    explicit Script(const QString &text);

    /// Does all that; an empty text, or what was wrong, with both sequences on standard output.
    QString run(DaemonBench &bench);

private:
    void expect(QString line);
    void settleRaces(const QStringList &actual);
    QString act(DaemonBench &bench, const QString &action);
    QString compare(const DaemonBench &bench) const;
    QString compareTimes(const DaemonBench &bench) const;

    QStringList m_lines;
    QStringList m_expected; ///< as far as the script has come
    QVector<int> m_races; ///< expected lines that may change places with the next one
    QVector<int> m_delays; ///< of the expected lines; negative where none is given
};

#endif
