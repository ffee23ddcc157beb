#include "RandomMessage.h"

namespace {

/// Types within types that deep; the bus allows 32 levels.
const int Depth = 6;
const char BasicTypes[] = "ybnqiuxtdsog";

} // namespace

void RandomMessage::appendArguments(const Message &message, int most)
{
    DBusMessageIter arguments;
    dbus_message_iter_init_append(message.get(), &arguments);
    for (int count = below(most + 1); count > 0; --count) {
        DBusSignatureIter type;
        const QByteArray types = signature(Depth);
        dbus_signature_iter_init(&type, types);
        append(&arguments, &type, Depth);
    }
}

void RandomMessage::appendText(const Message &message, const QByteArray &text)
{
    const char *bytes = text.constData();
    dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &bytes, DBUS_TYPE_INVALID);
}

void RandomMessage::appendVariant(const Message &message)
{
    DBusMessageIter arguments;
    dbus_message_iter_init_append(message.get(), &arguments);
    appendVariant(&arguments, Depth);
}

void RandomMessage::appendVariant(const Message &message, const QByteArray &text)
{
    DBusMessageIter arguments, content;
    const char *bytes = text.constData();
    dbus_message_iter_init_append(message.get(), &arguments);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, DBUS_TYPE_STRING_AS_STRING,
                                     &content);
    dbus_message_iter_append_basic(&content, DBUS_TYPE_STRING, &bytes);
    dbus_message_iter_close_container(&arguments, &content);
}

QByteArray RandomMessage::text()
{
    switch (below(8)) {
    case 0:
        return QByteArray();
    case 1:
        return QByteArray(below(2000), 'x');
    case 2: // around the length at which log lines are cut
        return QByteArray(400 + below(150), 'y') + "\xe2\x82\xac\xf0\x9f\x8e\xb5";
    case 3:
        return "%s%n%p%1%2%%";
    case 4:
        return "\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d\t\r\n\x01\x7f\xef\xbf\xbd";
    case 5:
        return QByteArray(100000, 'z');
    case 6:
        return "'; kill -9 $$; `kill $PPID` \"$(exit)";
    default:
        return QByteArray::number(m_random.generate());
    }
}

QByteArray RandomMessage::signature(int depth)
{
    const int choice = depth > 0 ? below(10) : 0;
    if (choice < 5)
        return QByteArray(1, BasicTypes[below(sizeof BasicTypes - 1)]);
    if (choice == 5)
        return "v";
    if (choice < 8)
        return 'a' + signature(depth - 1);
    if (choice == 8)
        return QByteArray("a{") + BasicTypes[below(sizeof BasicTypes - 1)] + signature(depth - 1)
            + '}';
    QByteArray fields;
    for (int count = 1 + below(3); count > 0; --count)
        fields += signature(depth - 1);
    // The bus allows no longer ones than 255.
    return fields.size() < 40 ? '(' + fields + ')' : QByteArray("i");
}

void RandomMessage::append(DBusMessageIter *target, DBusSignatureIter *type, int depth)
{
    const int code = dbus_signature_iter_get_current_type(type);
    if (code == DBUS_TYPE_ARRAY)
        appendArray(target, type, depth);
    else if (code == DBUS_TYPE_VARIANT)
        appendVariant(target, depth);
    else if (dbus_type_is_container(code))
        appendStruct(target, type, depth);
    else
        appendBasic(target, code);
}

void RandomMessage::appendBasic(DBusMessageIter *target, int type)
{
    DBusBasicValue value = {};
    QByteArray bytes;
    if (type == DBUS_TYPE_STRING)
        bytes = text();
    else if (type == DBUS_TYPE_OBJECT_PATH)
        bytes = oneOf({"/", "/org/bluez", "/a/_/9"});
    else if (type == DBUS_TYPE_SIGNATURE)
        bytes = signature(2);
    if (dbus_type_is_fixed(type))
        value.u64 = onceIn(3) ? ~0ULL : onceIn(2) ? 1ULL << 31 : m_random.generate64();
    else
        value.str = bytes.data();
    if (type == DBUS_TYPE_BOOLEAN)
        value.bool_val = value.u64 & 1;
    dbus_message_iter_append_basic(target, type, &value);
}

void RandomMessage::appendArray(DBusMessageIter *target, DBusSignatureIter *type, int depth)
{
    DBusSignatureIter element;
    dbus_signature_iter_recurse(type, &element);
    char *elementType = dbus_signature_iter_get_signature(&element);
    DBusMessageIter content;
    dbus_message_iter_open_container(target, DBUS_TYPE_ARRAY, elementType, &content);
    const bool isSmall = dbus_type_is_fixed(dbus_signature_iter_get_current_type(&element));
    for (int count = below(isSmall ? 3000 : 3); count > 0; --count) {
        DBusSignatureIter same = element;
        append(&content, &same, depth - 1);
    }
    dbus_message_iter_close_container(target, &content);
    dbus_free(elementType);
}

void RandomMessage::appendStruct(DBusMessageIter *target, DBusSignatureIter *type, int depth)
{
    DBusSignatureIter field;
    dbus_signature_iter_recurse(type, &field);
    DBusMessageIter content;
    dbus_message_iter_open_container(target, dbus_signature_iter_get_current_type(type), nullptr,
                                     &content);
    do {
        append(&content, &field, depth - 1);
    } while (dbus_signature_iter_next(&field));
    dbus_message_iter_close_container(target, &content);
}

void RandomMessage::appendVariant(DBusMessageIter *target, int depth)
{
    const QByteArray types = signature(depth - 1);
    DBusSignatureIter type;
    dbus_signature_iter_init(&type, types);
    DBusMessageIter content;
    dbus_message_iter_open_container(target, DBUS_TYPE_VARIANT, types, &content);
    append(&content, &type, depth - 1);
    dbus_message_iter_close_container(target, &content);
}
