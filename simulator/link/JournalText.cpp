#include "JournalText.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>

namespace {

const char BusName[] = "org.freedesktop.DBus";

QString words(const QJsonArray &array)
{
    QStringList list;
    for (const QJsonValue &value : array)
        list.append(value.toString());
    return list.join(' ');
}

/// Arguments as in a call: ("State", "playing")
QString arguments(const QJsonObject &entry)
{
    QStringList texts;
    for (const QJsonValue &argument : entry.value("arguments").toArray()) {
        const QByteArray json = QJsonDocument(QJsonArray {argument}).toJson(QJsonDocument::Compact);
        texts.append(QString::fromUtf8(json.mid(1, json.size() - 2)));
    }
    return '(' + texts.join(", ") + ')';
}

/// The last part of a name: org.bluez.Device is Device
QString shortName(const QJsonObject &entry, const QString &key, QChar separator = '.')
{
    return entry.value(key).toString().section(separator, -1);
}

QString programText(const QJsonObject &entry)
{
    QString text = entry.value("program").toString();
    const QString given = words(entry.value("arguments").toArray());
    if (!given.isEmpty())
        text += ' ' + given;
    if (entry.value("kind") == "start")
        return text + QString("  (process %1)").arg(entry.value("pid").toInt());
    text += " ended";
    if (entry.contains("status"))
        text += QString(" with status %1").arg(entry.value("status").toInt());
    if (entry.contains("signal"))
        text += QString(" by signal %1").arg(entry.value("signal").toInt());
    return text;
}

QString messageText(const QJsonObject &entry)
{
    const QString kind = entry.value("kind").toString();
    const QString member = shortName(entry, "interface") + '.' + entry.value("member").toString();
    const QString object = shortName(entry, "path", '/');
    const QString sender = shortName(entry, "senderName");
    const QString destination = shortName(entry, "destinationName");
    if (kind == "signal")
        return QString("%1 %2 signals %3%4").arg(sender, object, member, arguments(entry));
    if (kind == "call")
        return QString("%1 calls %2 %3 %4%5")
            .arg(sender, destination, object, member, arguments(entry));
    if (kind == "error")
        return QString("%1 answers %2 %3 with %4: %5")
            .arg(sender, destination, member, entry.value("name").toString(),
                 entry.value("text").toString());
    return QString("%1 answers %2 %3 %4").arg(sender, destination, member, arguments(entry));
}

QString textOf(const QJsonObject &entry)
{
    const QString kind = entry.value("kind").toString();
    if (kind == "log")
        return QString("%1 %2")
            .arg(entry.value("level").toInt())
            .arg(entry.value("message").toString());
    if (entry.value("lane") == "bus")
        return messageText(entry);
    if (entry.contains("program"))
        return programText(entry);
    QString text = entry.value("text").toString();
    if (entry.contains("phone"))
        text.prepend(entry.value("phone").toString() + ": ");
    if (kind == "error" || kind == "output")
        text.prepend(kind + ": ");
    return text;
}

const char *colourOf(const QJsonObject &entry)
{
    if (entry.value("kind") == "error" && entry.value("lane") == "control")
        return "\033[31m";
    switch (entry.value("level").toInt()) {
    case 1:
        return "\033[31m";
    case 2:
        return "\033[33m";
    case 9:
        return "\033[2m";
    default:
        return "";
    }
}

} // namespace

QString journalText(const QJsonObject &entry, bool colour)
{
    const QString time = QString("%1").arg(entry.value("time").toDouble(), 9, 'f', 3);
    const QString lane = entry.value("lane").toString().leftJustified(8);
    const QString text = textOf(entry);
    if (!colour)
        return time + ' ' + lane + ' ' + text;
    return "\033[2m" + time + "\033[0m \033[36m" + lane + "\033[0m " + colourOf(entry) + text
        + "\033[0m";
}

bool isBusBookkeeping(const QJsonObject &entry)
{
    if (entry.value("lane") != "bus")
        return false;
    const bool isNews = entry.value("member") == "NameOwnerChanged"
        && !entry.value("arguments").toArray().first().toString().startsWith(':');
    return !isNews && (entry.value("sender") == BusName || entry.value("destination") == BusName);
}
