#ifndef RANDOMMESSAGE_H
#define RANDOMMESSAGE_H

#include <dbus/dbus.h>

#include <QByteArray>
#include <QRandomGenerator>
#include <QVector>

#include <memory>

struct MessageUnref
{
    void operator()(DBusMessage *message) const { dbus_message_unref(message); }
};
using Message = std::shared_ptr<DBusMessage>;
inline Message owned(DBusMessage *message)
{
    return Message(message, MessageUnref());
}

/// Messages as nobody would send them; the same seed gives the same ones.
class RandomMessage
{
public:
    explicit RandomMessage(quint32 seed) : m_random(seed) { }

    int below(int count) { return m_random.bounded(count); }
    bool onceIn(int count) { return below(count) == 0; }
    QByteArray oneOf(const QVector<QByteArray> &choices)
    {
        return choices.at(below(choices.size()));
    }

    /// Appends up to \p most arguments of any types.
    void appendArguments(const Message &message, int most);
    /// Appends a text.
    static void appendText(const Message &message, const QByteArray &text);
    /// Appends a variant of any type.
    void appendVariant(const Message &message);
    /// Appends a variant with a text.
    static void appendVariant(const Message &message, const QByteArray &text);
    /// A text of any length: long, in all scripts, or with meanings for a printer.
    QByteArray text();

private:
    QByteArray signature(int depth);
    void append(DBusMessageIter *target, DBusSignatureIter *type, int depth);
    void appendBasic(DBusMessageIter *target, int type);
    void appendArray(DBusMessageIter *target, DBusSignatureIter *type, int depth);
    void appendStruct(DBusMessageIter *target, DBusSignatureIter *type, int depth);
    void appendVariant(DBusMessageIter *target, int depth);

    QRandomGenerator m_random;
};

#endif
