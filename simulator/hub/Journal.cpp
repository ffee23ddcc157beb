#include "Journal.h"

#include <QJsonDocument>

Journal::Journal(const QString &fileName, QObject *parent) : QObject(parent), m_file(fileName)
{
    m_clock.start();
    m_file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered);
}

bool Journal::isOpen() const
{
    return m_file.isOpen();
}

void Journal::record(const QJsonObject &entry)
{
    QJsonObject rest = entry;
    rest.remove("time");
    const QByteArray lane = rest.take("lane").toString().toUtf8();
    const QByteArray kind = rest.take("kind").toString().toUtf8();
    QByteArray line = "{\"time\":" + QByteArray::number(m_clock.nsecsElapsed() / 1e9, 'f', 6)
        + ",\"lane\":\"" + lane + "\",\"kind\":\"" + kind + '"';
    if (rest.isEmpty())
        line += '}';
    else
        line += ',' + QJsonDocument(rest).toJson(QJsonDocument::Compact).mid(1);
    m_file.write(line + '\n');
    emit recorded(line);
}

QByteArray Journal::contents() const
{
    QFile file(m_file.fileName());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
