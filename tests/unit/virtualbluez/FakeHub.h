#ifndef FAKEHUB_H
#define FAKEHUB_H

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QLocalServer>
#include <QObject>
#include <QVector>

class QLocalSocket;

/// As much of the virtual product's hub as the daemon and the agent talk to.
class FakeHub : public QObject
{
    Q_OBJECT

public:
    /// Listens at \p path.
    explicit FakeHub(const QString &path);

    /// Options for every program that says hello from now on, and for a running bluetoothd, which
    /// has taken them over then.
    void setOptions(const QJsonObject &options);
    /// What the next starts of \p program are told, beside the options.
    void setAnswer(const QString &program, const QJsonObject &answer);
    /// A phone for the next start of bluetoothd, described as after "phone add".
    void addPhone(const QString &description) { m_phones.append(description); }
    bool isDaemonThere() const { return m_daemon; }
    /// Has bluetoothd carry out \p text; true when it did. \p answer gets its text.
    bool tell(const QString &text, QString *answer = nullptr);

    /// The hellos so far.
    QVector<QJsonObject> hellos() const { return m_hellos; }
    /// The phones' journal entries so far.
    QVector<QJsonObject> events() const { return m_events; }

Q_SIGNALS:
    void replied();

private:
    void welcome(QLocalSocket *socket, const QJsonObject &hello);
    void read(QLocalSocket *socket);
    static void send(QLocalSocket *socket, const QJsonObject &object);

    QLocalServer m_server;
    QJsonObject m_options;
    QHash<QString, QJsonObject> m_answers;
    QJsonArray m_phones;
    QLocalSocket *m_daemon = nullptr;
    QVector<QJsonObject> m_hellos;
    QVector<QJsonObject> m_events;
    QHash<int, QJsonObject> m_replies;
    int m_lastId = 0;
};

#endif
