#include "HubClient.h"

#include <QJsonDocument>

bool HubClient::connectTo(const QString &socket, int milliseconds)
{
    m_socket.connectToServer(socket);
    return m_socket.waitForConnected(milliseconds);
}

void HubClient::send(const QJsonObject &request)
{
    m_socket.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    m_socket.flush();
}

bool HubClient::receive(int milliseconds)
{
    if (!m_socket.canReadLine() && !m_socket.waitForReadyRead(milliseconds))
        return false;
    while (m_socket.canReadLine()) {
        const QJsonObject object = QJsonDocument::fromJson(m_socket.readLine()).object();
        if (object.contains("journal"))
            journal.append(object.value("journal").toObject());
        else
            answers.append(object);
    }
    return true;
}
