#include "MessageJson.h"

#include <QJsonObject>

namespace {

QJsonValue toJson(DBusMessageIter *iterator);

QJsonArray listToJson(DBusMessageIter *container)
{
    QJsonArray list;
    DBusMessageIter item;
    dbus_message_iter_recurse(container, &item);
    for (; dbus_message_iter_get_arg_type(&item) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&item))
        list.append(toJson(&item));
    return list;
}

QJsonObject dictionaryToJson(DBusMessageIter *container)
{
    QJsonObject object;
    DBusMessageIter entry;
    dbus_message_iter_recurse(container, &entry);
    for (; dbus_message_iter_get_arg_type(&entry) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&entry)) {
        DBusMessageIter field;
        dbus_message_iter_recurse(&entry, &field);
        const QString key = toJson(&field).toVariant().toString();
        dbus_message_iter_next(&field);
        object.insert(key, toJson(&field));
    }
    return object;
}

QJsonValue toJson(DBusMessageIter *iterator)
{
    const int type = dbus_message_iter_get_arg_type(iterator);
    switch (type) {
    case DBUS_TYPE_VARIANT: {
        DBusMessageIter content;
        dbus_message_iter_recurse(iterator, &content);
        return toJson(&content);
    }
    case DBUS_TYPE_ARRAY:
        if (dbus_message_iter_get_element_type(iterator) == DBUS_TYPE_DICT_ENTRY)
            return dictionaryToJson(iterator);
        return listToJson(iterator);
    case DBUS_TYPE_STRUCT:
        return listToJson(iterator);
    case DBUS_TYPE_UNIX_FD:
        return "fd"; // taking the value would open a descriptor
    default:
        break;
    }

    DBusBasicValue value;
    dbus_message_iter_get_basic(iterator, &value);
    switch (type) {
    case DBUS_TYPE_BOOLEAN:
        return bool(value.bool_val);
    case DBUS_TYPE_BYTE:
        return value.byt;
    case DBUS_TYPE_INT16:
        return value.i16;
    case DBUS_TYPE_UINT16:
        return value.u16;
    case DBUS_TYPE_INT32:
        return value.i32;
    case DBUS_TYPE_UINT32:
        return double(value.u32);
    case DBUS_TYPE_INT64:
        return double(value.i64);
    case DBUS_TYPE_UINT64:
        return double(value.u64);
    case DBUS_TYPE_DOUBLE:
        return value.dbl;
    default: // texts, object paths and signatures
        return QString::fromUtf8(value.str);
    }
}

} // namespace

QJsonArray messageArguments(DBusMessage *message)
{
    QJsonArray arguments;
    DBusMessageIter iterator;
    if (!dbus_message_iter_init(message, &iterator))
        return arguments;
    do {
        arguments.append(toJson(&iterator));
    } while (dbus_message_iter_next(&iterator));
    return arguments;
}
