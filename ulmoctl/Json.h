// JSON for scripts.
#ifndef JSON_H
#define JSON_H

#include <QtCore/QByteArray>
#include <QtCore/QVariant>

/** One JSON object, written in the order in which its members are added. */
class JsonObject
{
public:
    /** The value is a text, a number or a boolean; an invalid one stands for null. */
    JsonObject &add(const char *name, const QVariant &value);

    /** Appends the members of the other object. */
    JsonObject &addMembers(const JsonObject &other);

    /** In UTF-8, on one line, without a line end. */
    QByteArray toUtf8() const { return '{' + m_members + '}'; }

private:
    QByteArray m_members;
};

#endif
