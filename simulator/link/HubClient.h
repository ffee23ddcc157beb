#ifndef HUBCLIENT_H
#define HUBCLIENT_H

#include <QJsonObject>
#include <QLocalSocket>
#include <QVector>

/// Tells the hub of a virtual product what to do, and reads its answers and its journal.
class HubClient
{
public:
    /// Connects to the hub's \p socket within \p milliseconds.
    bool connectTo(const QString &socket, int milliseconds);
    bool isConnected() const { return m_socket.state() == QLocalSocket::ConnectedState; }
    QString errorString() const { return m_socket.errorString(); }

    /// Has the journal sent from its beginning, and then as it grows.
    void follow() { send({{"follow", true}}); }
    /// Has a control line carried out.
    void tell(const QString &line) { send({{"tell", line}}); }
    void send(const QJsonObject &request);
    /// Takes in what comes, waiting for at most \p milliseconds. False when nothing has come.
    bool receive(int milliseconds);

    /// What has come and was not taken away yet.
    QVector<QJsonObject> journal;
    QVector<QJsonObject> answers;

private:
    QLocalSocket m_socket;
};

#endif
