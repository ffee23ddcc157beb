#ifndef SERVICE_H
#define SERVICE_H

#include <QProcess>

class Journal;

/**
 * The service under supervision: the unmodified program, whose log lines and everything else it
 * prints go to the journal.
 */
class Service : public QProcess
{
    Q_OBJECT

public:
    /**
     * \p program is to run with \p environment, a list of NAME=VALUE, on top of ours, as the last
     * argument of the command \p under when that is not empty, which is to become it.
     */
    Service(Journal &journal, const QString &program, const QStringList &environment,
            const QString &under);
    ~Service() override;

    bool isRunning() const { return state() != NotRunning; }
    /// Returns why it cannot be started, or an empty text.
    QString startService();
    /// Sends \p signal. Returns why not, or an empty text.
    QString kill(int signal);
    /// Writes down what it has printed since the last time.
    void drain();

signals:
    /// There may be something to drain.
    void hasPrinted();
    /// The end is in the journal; \p how is "with status 0" or the like.
    void ended(const QString &how);

private:
    void record(const QString &line);
    void recordEnd(int code, ExitStatus status);

    Journal &m_journal;
    qint64 m_pid = 0;
    // One pipe serves every start: children that outlive the service may go on writing.
    int m_pipe[2];
    QByteArray m_rest; ///< the beginning of a line that is not complete yet
};

#endif
