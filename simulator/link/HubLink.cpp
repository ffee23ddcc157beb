#include "HubLink.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QLocalSocket>

#include <csignal>
#include <cstdlib>
#include <time.h>
#include <unistd.h>

namespace {
const int AnswerTimeoutMs = 10000;
}

HubLink::HubLink(QObject *parent) : QObject(parent), m_socket(new QLocalSocket(this))
{
    connect(m_socket, &QLocalSocket::disconnected, this, &HubLink::disconnected);
}

QString HubLink::socketPath()
{
    return qEnvironmentVariable("PRODUCT_HUB", QStringLiteral("/run/product/hub"));
}

bool HubLink::connectAndHello(const QString &program, const QStringList &arguments,
                              const QJsonObject &environment)
{
    m_socket->connectToServer(socketPath());
    if (!m_socket->waitForConnected(AnswerTimeoutMs))
        return false;
    QJsonObject hello {{"hello", program},
                       {"pid", int(getpid())},
                       {"arguments", QJsonArray::fromStringList(arguments)}};
    if (!environment.isEmpty())
        hello.insert("environment", environment);
    send(hello);
    while (!m_socket->canReadLine()) {
        if (!m_socket->waitForReadyRead(AnswerTimeoutMs))
            return false;
    }
    m_answer = QJsonDocument::fromJson(m_socket->readLine()).object();
    m_options = m_answer.value("options").toObject();
    connect(m_socket, &QLocalSocket::readyRead, this, &HubLink::readLines);
    // What came along with the answer is read by the event loop, when the program listens.
    QMetaObject::invokeMethod(this, "readLines", Qt::QueuedConnection);
    return true;
}

QString HubLink::errorString() const
{
    return m_socket->errorString();
}

void HubLink::obey() const
{
    switch (behaviour()) {
    case Behaviour::Normal:
        break;
    case Behaviour::Exit:
        std::_Exit(exitStatus());
    case Behaviour::Crash:
        std::signal(SIGSEGV, SIG_DFL);
        std::raise(SIGSEGV);
        break;
    case Behaviour::Hang:
        for (;;)
            pause();
    case Behaviour::IgnoreTerm:
        std::signal(SIGTERM, SIG_IGN);
        break;
    case Behaviour::Delay: {
        const int delay = delayMilliseconds();
        const timespec pauseTime = {delay / 1000, (delay % 1000) * 1000000L};
        nanosleep(&pauseTime, nullptr);
        break;
    }
    }
}

HubLink::Behaviour HubLink::behaviour() const
{
    const QString name = m_answer.value("behaviour").toString();
    if (name == "exit")
        return Behaviour::Exit;
    if (name == "hang")
        return Behaviour::Hang;
    if (name == "crash")
        return Behaviour::Crash;
    if (name == "ignore-term")
        return Behaviour::IgnoreTerm;
    if (name == "delay")
        return Behaviour::Delay;
    return Behaviour::Normal;
}

int HubLink::exitStatus() const
{
    return m_answer.value("status").toInt();
}

int HubLink::delayMilliseconds() const
{
    return m_answer.value("milliseconds").toInt();
}

QJsonObject HubLink::answer() const
{
    return m_answer;
}

QJsonObject HubLink::options() const
{
    return m_options;
}

void HubLink::reply(int id, const QString &text)
{
    send({{"reply", id}, {"ok", text}});
}

void HubLink::replyError(int id, const QString &text)
{
    send({{"reply", id}, {"error", text}});
}

void HubLink::event(const QJsonObject &entry)
{
    send({{"event", entry}});
}

void HubLink::send(const QJsonObject &object)
{
    m_socket->write(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
    // At once: what follows may be a signal on the bus, and the journal keeps the order.
    m_socket->flush();
}

void HubLink::readLines()
{
    while (m_socket->canReadLine())
        handle(QJsonDocument::fromJson(m_socket->readLine()).object());
}

void HubLink::handle(const QJsonObject &object)
{
    if (object.contains("command")) {
        emit commandReceived(object.value("id").toInt(), object.value("command").toString());
    } else if (object.contains("options")) {
        const QJsonObject changed = object.value("options").toObject();
        for (auto option = changed.begin(); option != changed.end(); ++option)
            m_options.insert(option.key(), option.value());
        emit optionsChanged(changed);
    }
}
