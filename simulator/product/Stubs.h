#ifndef STUBS_H
#define STUBS_H

#include <QObject>
#include <QStringList>

#include <functional>

class Journal;
class QSocketNotifier;

/// One program of the board that the service has started, as long as it lives.
class Stub : public QObject
{
    Q_OBJECT

public:
    ~Stub() override;

    QString name() const { return m_name; }
    qint64 pid() const { return m_pid; }
    QStringList arguments() const { return m_arguments; }
    /// Its environment variable BLUEZHOSTNAME.
    QString hostName() const { return m_hostName; }

    /// \name What it is told to do
    /// @{
    void print(const QString &text);
    void exit(int status);
    /// Ends by \p signal.
    void endBy(int signal);
    /// Runs the real program and says its status, which programStatus() tells.
    void run(const QString &path);
    /// Becomes the real program; \p library is preloaded.
    void become(const QString &path, const QString &library);
    /// @}
    /// Sends \p signal from outside. Returns why not, or an empty text.
    QString kill(int signal);

private:
    friend class Stubs;
    explicit Stub(int socket, QObject *parent);
    void order(const QStringList &texts);
    QString ending() const;

    int m_socket;
    QSocketNotifier *m_notifier;
    QString m_name;
    qint64 m_pid = 0;
    QStringList m_arguments;
    QString m_hostName;
    int m_status = -1; ///< told to end with it
    int m_signal = 9; ///< that has ended it when nothing else has: it tells of SIGTERM
    bool m_isReal = false;
};

/// The programs of the board: who is started, lives and ends. Their start and end go to the
/// journal.
class Stubs : public QObject
{
    Q_OBJECT

public:
    /// \p beforeRecording has the journal catch up with what the service has said before.
    Stubs(Journal &journal, const std::function<void()> &beforeRecording,
          QObject *parent = nullptr);
    ~Stubs() override;

    /// Returns why it cannot listen, or an empty text.
    QString listen(const QString &path);
    /// Takes notice of everything that has come in.
    void catchUp();
    /// The running program that was started last; null when there is none.
    Stub *find(const QString &name) const;

signals:
    void started(Stub *stub);
    void terminationRequested(Stub *stub);
    /// The real program that was to run has ended, the stub has not.
    void programEnded(Stub *stub, int status);
    /// It is deleted afterwards.
    void ended(Stub *stub);

private:
    void accept();
    void read(Stub *stub);
    void readHello(Stub *stub, const QStringList &texts);
    void recordEnd(const Stub &stub);

    Journal &m_journal;
    std::function<void()> m_beforeRecording;
    int m_socket = -1;
    QList<Stub *> m_stubs; ///< in the order of their start
};

#endif
