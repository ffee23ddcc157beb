#ifndef MESSAGEJSON_H
#define MESSAGEJSON_H

#include <QJsonArray>

#include <dbus/dbus.h>

/**
 * The arguments of \p message as JSON: variants as what they hold, dictionaries as objects, file
 * descriptors as the text "fd". Whole numbers beyond 2^53 lose their last digits.
 */
QJsonArray messageArguments(DBusMessage *message);

#endif
