#include "Outcome.h"

namespace {

// Control characters have no other form in JSON; all else may stand for itself.
QString quoted(const QString &text)
{
    QString result;
    for (const QChar character : text) {
        if (character == '"' || character == '\\')
            result += '\\';
        if (character.unicode() < 0x20)
            result += QString("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
        else
            result += character;
    }
    return '"' + result + '"';
}

} // namespace

Outcome failure(ExitStatus exitStatus, const QString &text, const QString &hint)
{
    return {exitStatus, text, hint, QStringList()};
}

QString jsonMember(const char *name, const QVariant &value)
{
    const bool isText = value.type() == QVariant::String;
    const QString json = isText ? quoted(value.toString()) : value.toString();
    return quoted(name) + ':' + (value.isValid() ? json : "null");
}

QString jsonObject(const QStringList &members)
{
    return '{' + members.join(",") + '}';
}
