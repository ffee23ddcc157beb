// One JSON object, written in the order in which its members are added.
#ifndef JSONOBJECT_H
#define JSONOBJECT_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

class JsonObject
{
public:
    JsonObject &addText(const char *name, const QString &value);
    JsonObject &addNumber(const char *name, int value);
    JsonObject &addFlag(const char *name, bool value);

    /** Appends the members of the other object. */
    JsonObject &addMembers(const JsonObject &other);

    /** In UTF-8, on one line, without a line end. */
    QByteArray toUtf8() const;

private:
    JsonObject &add(const char *name, const QByteArray &value);

    QByteArray m_members;
};

#endif
