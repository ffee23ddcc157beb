#include "Bluetoothd.h"

#include "Program.h"

#include <QTimer>

namespace {
const int CommandTimeoutMs = 10000;
}

Bluetoothd::Bluetoothd(QObject *parent) : QObject(parent) { }

void Bluetoothd::addOptions(QJsonObject *answer) const
{
    answer->insert("options", m_options);
}

void Bluetoothd::attach(Program *program)
{
    m_program = program;
    const QStringList waiting = m_waitingPhones;
    m_waitingPhones.clear();
    for (const QString &line : waiting) {
        command(line, [this, line](const Result &result) {
            if (!result.ok)
                emit waitingPhoneRefused(line, result.text);
        });
    }
}

void Bluetoothd::detach(Program *program)
{
    if (m_program != program)
        return;
    m_program = nullptr;
    failOpenCommands("bluetoothd has ended");
}

void Bluetoothd::failOpenCommands(const QString &reason)
{
    const QHash<int, Done> open = m_openCommands;
    m_openCommands.clear();
    for (const Done &done : open)
        done(Result::failure(reason));
}

bool Bluetoothd::handle(const QJsonObject &object)
{
    if (!object.contains("reply"))
        return false;
    const Done done = m_openCommands.take(object.value("reply").toInt());
    if (!done)
        return true;
    if (object.contains("error"))
        done(Result::failure(object.value("error").toString()));
    else
        done(Result::success(object.value("ok").toString()));
    return true;
}

bool Bluetoothd::isRunning() const
{
    return m_program;
}

void Bluetoothd::command(const QString &line, const Done &done)
{
    if (!m_program && line.startsWith("phone add ")) {
        m_waitingPhones.append(line);
        done(Result::success("waits for bluetoothd"));
        return;
    }
    if (!m_program && line == "phones" && !m_waitingPhones.isEmpty()) {
        done(Result::success("waiting for bluetoothd:\n" + m_waitingPhones.join('\n')));
        return;
    }
    if (!m_program) {
        done(Result::failure("bluetoothd is not running"));
        return;
    }
    const int id = m_nextCommand++;
    m_openCommands.insert(id, done);
    m_program->send({{"command", line}, {"id", id}});
    QTimer::singleShot(CommandTimeoutMs, this, [this, id] {
        if (const Done unanswered = m_openCommands.take(id))
            unanswered(Result::failure("bluetoothd does not answer"));
    });
}

void Bluetoothd::setOption(const QString &key, const QJsonValue &value)
{
    if (value.isNull())
        m_options.remove(key);
    else
        m_options.insert(key, value);
    if (m_program)
        m_program->send({{"options", QJsonObject {{key, value}}}});
}
