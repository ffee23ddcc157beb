#ifndef BUSMONITOR_H
#define BUSMONITOR_H

#include <QJsonObject>
#include <QMap>
#include <QProcess>

#include <functional>

class Journal;

/**
 * Writes every message of one bus into the journal, but for the bus's own bookkeeping. busctl sees
 * them; here they get the line by which people and stories know them.
 */
class BusMonitor : public QObject
{
    Q_OBJECT

public:
    /// What people call the object at a path; the path itself when it has no other name.
    using ShortNames = std::function<QString(const QString &path)>;

    /// \p bus is "session" or "system".
    BusMonitor(const QString &bus, Journal &journal, const ShortNames &shortNames);
    ~BusMonitor() override;

    /// Begins, or begins anew with a bus that was ended. Returns why not, or an empty text.
    QString start(const QString &address);
    /// Returns when everything that has been sent before is in the journal.
    void settle();

private:
    void readLines();
    void record(const QJsonObject &message);
    void recordCall(const QJsonObject &message, const QJsonObject &facts);
    void recordAnswer(const QJsonObject &message, QJsonObject facts);
    void recordSignal(const QJsonObject &facts);
    QString render(const QJsonArray &arguments) const;

    /// A call that is not answered yet.
    struct Call
    {
        QString answer; ///< the beginning of its answer's line
        QJsonObject facts;
    };

    QString m_bus;
    Journal &m_journal;
    ShortNames m_shortNames;
    QProcess m_busctl;
    QString m_address;
    bool m_isSettled = true;
    QMap<QPair<QString, double>, Call> m_openCalls; ///< by caller and serial
};

#endif
