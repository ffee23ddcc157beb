#ifndef SERVICEPROCESS_H
#define SERVICEPROCESS_H

#include <QJsonObject>
#include <QProcess>
#include <QVector>

/**
 * The service under supervision: the unmodified program, started by its absolute path, with its log
 * lines and everything else it prints turned into journal entries.
 */
class ServiceProcess : public QProcess
{
    Q_OBJECT

public:
    explicit ServiceProcess(const QString &program, QObject *parent = nullptr);
    ~ServiceProcess() override;

    void setServiceEnvironment(const QStringList &variables);
    /// Has the service run as the last argument of \p command, which is to become the service.
    void setUnder(const QString &command);
    /// False when it runs already or cannot be started; \p error then says why.
    bool startService(QString *error);
    bool isRunning() const;
    /// The start or end of the process as a journal entry.
    QJsonObject startEntry() const;
    QJsonObject endEntry() const;
    /// What the service has printed since the last time.
    QVector<QJsonObject> takeEntries();

Q_SIGNALS:
    /// There may be something to take.
    void readable();

protected:
    void setupChildProcess() override;

private:
    struct Pipe
    {
        int readEnd = -1;
        int writeEnd = -1;
        QByteArray rest; ///< the beginning of a line that is not complete yet
    };
    void open(Pipe *pipe);
    QList<QByteArray> readLines(Pipe *pipe);

    qint64 m_pid = 0;
    Pipe m_output;
    Pipe m_log;
};

#endif
