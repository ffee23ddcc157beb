#include "JsonObject.h"

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

} // namespace

JsonObject &JsonObject::addText(const char *name, const QString &value)
{
    return add(name, quoted(value));
}

JsonObject &JsonObject::addNumber(const char *name, int value)
{
    return add(name, QByteArray::number(value));
}

JsonObject &JsonObject::addFlag(const char *name, bool value)
{
    return add(name, value ? "true" : "false");
}

JsonObject &JsonObject::addMembers(const JsonObject &other)
{
    if (!m_members.isEmpty() && !other.m_members.isEmpty())
        m_members += ',';
    m_members += other.m_members;
    return *this;
}

QByteArray JsonObject::toUtf8() const
{
    return '{' + m_members + '}';
}

JsonObject &JsonObject::add(const char *name, const QByteArray &value)
{
    if (!m_members.isEmpty())
        m_members += ',';
    m_members += '"' + QByteArray(name) + "\":" + value;
    return *this;
}
