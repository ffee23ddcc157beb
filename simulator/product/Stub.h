#ifndef STUB_H
#define STUB_H

#include <QObject>
#include <QStringList>

class Journal;
class QSocketNotifier;

/**
 * One program of the board that the service has started, as long as it lives: the other end of
 * stub.c. It is deleted after it has ended.
 */
class Stub : public QObject
{
    Q_OBJECT

public:
    /// \p socket is its connection; its start and end go to \p journal.
    Stub(int socket, Journal &journal, QObject *parent);
    ~Stub() override;

    QString name() const { return m_texts.value(0); }
    /// Its environment variable BLUEZHOSTNAME.
    QString hostName() const { return m_texts.value(1); }
    QStringList arguments() const { return m_texts.mid(2); }
    qint64 pid() const { return m_pid; }

    /// \name What it is told to do
    /// @{
    void print(const QString &text) { order({"print", text}); }
    void exit(int status);
    /// It ends by \p signal.
    void endBy(int signal);
    /// It runs the real program, whose status programEnded() tells.
    void run(const QString &path) { order({"run", path}); }
    /// It becomes the real program, with \p library preloaded.
    void become(const QString &path, const QString &library);
    /// @}
    /// Sends \p signal from outside.
    void kill(int signal);
    /// Takes notice of everything that has come in.
    void read();

signals:
    /// It is about to say hello, or that SIGTERM has come: what the service has said before that
    /// goes to the journal first.
    void aboutToSpeak();
    void started();
    void terminationRequested();
    void programEnded(int status);
    void ended();

private:
    void order(const QStringList &texts);
    void recordStart();
    void recordEnd();

    int m_socket;
    Journal &m_journal;
    QSocketNotifier *m_notifier;
    QStringList m_texts; ///< of its hello
    qint64 m_pid = 0;
    QString m_endsBy; ///< "status" or "signal"; unknown of a real program
    int m_endCode;
};

#endif
