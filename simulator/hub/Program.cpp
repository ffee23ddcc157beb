#include "Program.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalSocket>

#include <poll.h>
#include <sys/ioctl.h>

namespace {

QString laneOf(const QString &program)
{
    if (program == "bluetoothd")
        return "bluez";
    if (program == "agent")
        return program;
    if (program == "pulseaudio" || program == "pactl")
        return "pulse";
    return "tool";
}

} // namespace

Program::Program(QLocalSocket *socket, QObject *parent) : QObject(parent), m_socket(socket)
{
    m_socket->setParent(this);
    connect(m_socket, &QLocalSocket::readyRead, this, &Program::readLines);
    connect(m_socket, &QLocalSocket::disconnected, this, &Program::ended);
    // What came before anybody was connected to the signal.
    QMetaObject::invokeMethod(
        this, [this] { readLines(); }, Qt::QueuedConnection);
}

void Program::readLines()
{
    while (m_socket->canReadLine()) {
        const QJsonObject object = QJsonDocument::fromJson(m_socket->readLine()).object();
        if (object.contains("hello")) {
            m_name = object.value("hello").toString();
            m_pid = object.value("pid").toInt();
            m_arguments = object.value("arguments").toVariant().toStringList();
            m_environment = object.value("environment").toObject();
            emit helloReceived(object);
        } else {
            m_ready = m_ready || object.value("ready").toBool();
            emit received(object);
        }
    }
}

bool Program::hasHungUp() const
{
    pollfd poller = {int(m_socket->socketDescriptor()), POLLRDHUP, 0};
    int unread = 0;
    return poller.fd >= 0 && poll(&poller, 1, 0) > 0 && m_socket->bytesAvailable() == 0
        && ioctl(poller.fd, FIONREAD, &unread) == 0 && unread == 0;
}

void Program::send(const QJsonObject &object)
{
    sendLine(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

void Program::sendLine(const QByteArray &line)
{
    m_socket->write(line + '\n');
    m_socket->flush();
}

QJsonObject Program::entry(const QString &kind) const
{
    QJsonObject entry {{"lane", laneOf(m_name)},
                       {"kind", kind},
                       {"program", m_name},
                       {"pid", m_pid},
                       {"arguments", QJsonArray::fromStringList(m_arguments)}};
    if (!m_environment.isEmpty())
        entry.insert("environment", m_environment);
    return entry;
}
