#include "EntryText.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>

#include <csignal>
#include <cstring>

namespace {

QString valueText(const QJsonValue &value)
{
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
    if (value.isString())
        return '"' + value.toString() + '"';
    return value.toVariant().toString();
}

QString argumentsText(const QJsonObject &entry)
{
    QStringList texts;
    for (const QJsonValue argument : entry.value("arguments").toArray())
        texts << valueText(argument);
    return texts.join(", ");
}

/// "Device.PropertyChanged": the interface by the last part of its name.
QString memberText(const QJsonObject &entry)
{
    const QString interface = entry.value("interface").toString().section('.', -1);
    const QString member = entry.value("member").toString();
    return interface.isEmpty() ? member : interface + '.' + member;
}

QString messageText(const QJsonObject &entry, const QString &kind)
{
    const QString sender = entry.value("senderName").toString();
    const QString destination = entry.value("destinationName").isString()
        ? entry.value("destinationName").toString()
        : entry.value("destination").toString();
    const QString ends = destination.isEmpty() ? sender : sender + " \u2192 " + destination;
    const QString member = memberText(entry);
    const QString arguments = argumentsText(entry);
    if (kind == "reply")
        return QString("%1: %2 answers %3").arg(ends, member, arguments).trimmed();
    if (kind == "error")
        return QString("%1: %2 fails, %3 \"%4\"")
            .arg(ends, member, entry.value("name").toString(), entry.value("text").toString());
    const QString object = entry.value("path").toString().section('/', -1);
    const QString place = object.startsWith("dev_") ? " of " + object : QString();
    return QString("%1: %2(%3)%4").arg(ends, member, arguments, place);
}

QString commandText(const QJsonObject &entry)
{
    QString text = entry.value("program").toString();
    for (const QJsonValue argument : entry.value("arguments").toArray())
        text += ' ' + argument.toVariant().toString();
    return text;
}

QString endText(const QJsonObject &entry)
{
    QString text = commandText(entry) + " ends";
    if (entry.contains("signal"))
        return text + " by " + signalName(entry.value("signal"));
    if (entry.contains("status"))
        return text + " with status " + entry.value("status").toVariant().toString();
    return text;
}

} // namespace

QString entryText(const QJsonObject &entry)
{
    const QString kind = entry.value("kind").toString();
    if (kind == "log")
        return entry.value("message").toString(entry.value("text").toString());
    if (kind == "start")
        return commandText(entry) + " starts";
    if (kind == "end")
        return endText(entry);
    if (entry.value("lane") == "bus")
        return messageText(entry, kind);
    if (kind == "phone")
        return entry.value("phone").toString() + ": " + entry.value("text").toString();
    if (entry.value("text").isString())
        return entry.value("text").toString();

    QJsonObject rest = entry;
    for (const char *known : {"time", "lane", "kind", "monotonic"})
        rest.remove(known);
    return rest.isEmpty() ? QString() : valueText(rest);
}

QString signalName(const QJsonValue &signal)
{
    if (signal.isString())
        return signal.toString();
    const char *name = sigabbrev_np(signal.toInt());
    return name ? QString("SIG") + name : "signal " + QString::number(signal.toInt());
}
