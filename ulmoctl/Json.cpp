#include "Json.h"

namespace {

// Control characters have no other form in JSON; all else may stand for itself.
QByteArray quoted(const QString &text)
{
    QString result;
    for (int i = 0; i < text.length(); ++i) {
        const QChar character = text.at(i);
        if (character == QLatin1Char('"') || character == QLatin1Char('\\'))
            result += QLatin1Char('\\');
        if (character.unicode() < 0x20)
            result +=
                QString::fromLatin1("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
        else
            result += character;
    }
    return '"' + result.toUtf8() + '"';
}

QByteArray written(const QVariant &value)
{
    if (!value.isValid())
        return "null";
    return value.type() == QVariant::String ? quoted(value.toString()) : value.toByteArray();
}

} // namespace

JsonObject &JsonObject::add(const char *name, const QVariant &value)
{
    JsonObject member;
    member.m_members = '"' + QByteArray(name) + "\":" + written(value);
    return addMembers(member);
}

JsonObject &JsonObject::addMembers(const JsonObject &other)
{
    if (!m_members.isEmpty() && !other.m_members.isEmpty())
        m_members += ',';
    m_members += other.m_members;
    return *this;
}
