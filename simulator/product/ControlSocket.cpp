#include "ControlSocket.h"

#include "Control.h"
#include "core/Journal.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QPointer>

namespace {

void send(QLocalSocket *client, const QByteArray &line)
{
    client->write(line + '\n');
    client->flush();
}

void send(QLocalSocket *client, const QJsonObject &object)
{
    send(client, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

ControlSocket::ControlSocket(Control &control, Journal &journal, QObject *parent)
    : QLocalServer(parent), m_control(control), m_journal(journal)
{
    connect(this, &QLocalServer::newConnection, this, &ControlSocket::accept);
}

void ControlSocket::accept()
{
    while (QLocalSocket *client = nextPendingConnection()) {
        connect(client, &QLocalSocket::readyRead, this, [this, client] { readLines(client); });
        connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
        readLines(client);
    }
}

void ControlSocket::readLines(QLocalSocket *client)
{
    while (client->canReadLine()) {
        const QJsonObject request = QJsonDocument::fromJson(client->readLine()).object();
        if (request.contains("follow")) {
            follow(client);
        } else if (request.contains("complete")) {
            const QStringList words = m_control.complete(request.value("complete").toString());
            send(client, {{"words", QJsonArray::fromStringList(words)}});
        } else {
            const QPointer<QLocalSocket> asker(client);
            m_control.tell(
                request.value("tell").toString(), [asker](const Control::Answer &answer) {
                    if (asker)
                        send(asker,
                             {{"ok", answer.ok}, {"text", answer.text}, {"values", answer.values}});
                });
        }
    }
}

void ControlSocket::follow(QLocalSocket *client)
{
    client->write(m_journal.contents());
    client->flush();
    connect(&m_journal, &Journal::recorded, client,
            [client](const QByteArray &entry) { send(client, entry); });
}
