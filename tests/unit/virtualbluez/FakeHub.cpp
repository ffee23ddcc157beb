#include "FakeHub.h"

#include <QEventLoop>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QTimer>
#include <QtTest>

namespace {
const int Patience = 30000;
}

FakeHub::FakeHub(const QString &path)
{
    m_server.listen(path);
    connect(&m_server, &QLocalServer::newConnection, this, [this] {
        QLocalSocket *socket = m_server.nextPendingConnection();
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { read(socket); });
        connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
            if (m_daemon == socket)
                m_daemon = nullptr;
            socket->deleteLater();
        });
    });
}

void FakeHub::setOptions(const QJsonObject &options)
{
    for (auto option = options.begin(); option != options.end(); ++option)
        m_options.insert(option.key(), option.value());
    if (!m_daemon)
        return;
    send(m_daemon, {{"options", options}});
    tell("phones");
}

void FakeHub::setAnswer(const QString &program, const QJsonObject &answer)
{
    m_answers.insert(program, answer);
}

bool FakeHub::tell(const QString &text, QString *answer)
{
    if (!QTest::qWaitFor([this] { return m_daemon != nullptr; }))
        return false;
    const int id = ++m_lastId;
    send(m_daemon, {{"command", text}, {"id", id}});
    QEventLoop loop;
    connect(this, &FakeHub::replied, &loop, &QEventLoop::quit);
    QTimer::singleShot(Patience, &loop, &QEventLoop::quit);
    loop.exec();
    const QJsonObject reply = m_replies.take(id);
    if (answer)
        *answer = reply.value(reply.contains("ok") ? "ok" : "error").toString();
    return reply.contains("ok");
}

void FakeHub::read(QLocalSocket *socket)
{
    while (socket->canReadLine()) {
        const QJsonObject object = QJsonDocument::fromJson(socket->readLine()).object();
        if (object.contains("hello")) {
            welcome(socket, object);
        } else if (object.contains("event")) {
            m_events.append(object.value("event").toObject());
        } else if (object.contains("reply")) {
            m_replies.insert(object.value("reply").toInt(), object);
            emit replied();
        }
    }
}

void FakeHub::welcome(QLocalSocket *socket, const QJsonObject &hello)
{
    m_hellos.append(hello);
    const QString program = hello.value("hello").toString();
    QJsonObject answer = m_answers.value(program, {{"behaviour", "normal"}});
    answer.insert("options", m_options);
    if (program == "bluetoothd") {
        answer.insert("phones", m_phones);
        m_daemon = socket;
    }
    send(socket, answer);
}

void FakeHub::send(QLocalSocket *socket, const QJsonObject &object)
{
    socket->write(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
    socket->flush();
}
