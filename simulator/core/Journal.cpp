#include "Journal.h"

#include <QJsonDocument>
#include <QJsonArray>

#include <cstdio>

namespace {

/// One value as JSON.
QByteArray json(const QJsonValue &value)
{
    const QByteArray list = QJsonDocument(QJsonArray {value}).toJson(QJsonDocument::Compact);
    return list.mid(1, list.size() - 2);
}

} // namespace

Journal::Journal(const QString &fileName, QObject *parent) : QObject(parent), m_file(fileName)
{
    m_clock.start();
    m_file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered);
}

QString Journal::error() const
{
    return m_file.error() == QFile::NoError ? QString() : m_file.errorString();
}

void Journal::record(const char *lane, const char *kind, const QString &line,
                     const QJsonObject &facts)
{
    // By hand, since people read the file too and QJsonObject sorts its keys.
    QByteArray entry =
        "{\"time\":" + QByteArray::number(double(m_clock.nsecsElapsed()) / 1e9, 'f', 6)
        + ",\"lane\":\"" + lane + "\",\"kind\":\"" + kind + "\",\"line\":" + json(line);
    if (facts.isEmpty())
        entry += '}';
    else
        entry += ',' + QJsonDocument(facts).toJson(QJsonDocument::Compact).mid(1);
    // The first entry is the product's own business: without it there is no product.
    const bool wasFine = m_file.error() == QFile::NoError && m_file.pos() > 0;
    if (m_file.write(entry + '\n') < 0 && wasFine)
        fprintf(stderr, "virtual-product: the journal is not complete: %s\n", qPrintable(error()));
    emit recorded(entry);
}

QByteArray Journal::contents() const
{
    QFile file(m_file.fileName());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
