#include "Store.h"

#include "Options.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>

Store::Store(const Options *options) : m_options(options) { }

QJsonObject Store::read(const QString &subject) const
{
    QFile input(file(subject));
    if (!input.open(QIODevice::ReadOnly))
        return QJsonObject();
    return QJsonDocument::fromJson(input.readAll()).object();
}

void Store::write(const QString &subject, const QJsonObject &content) const
{
    QDir().mkpath(m_options->state);
    QSaveFile output(file(subject));
    if (!output.open(QIODevice::WriteOnly) || output.write(QJsonDocument(content).toJson()) < 0
        || !output.commit())
        qWarning() << "cannot write" << output.fileName() << output.errorString();
}

QString Store::file(const QString &subject) const
{
    return m_options->state + '/' + subject + ".json";
}
