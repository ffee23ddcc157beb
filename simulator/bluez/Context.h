#ifndef CONTEXT_H
#define CONTEXT_H

#include "Bus.h"
#include "Options.h"
#include "Schedule.h"
#include "Store.h"

#include <QJsonObject>

#include <functional>

class PhoneBook;

/// What every part of the virtual daemon works with.
struct Context
{
    Context(const QDBusConnection &connection, const QJsonObject &initialOptions)
        : bus(connection, &schedule)
    {
        options.apply(initialOptions);
    }

    Schedule schedule;
    Options options;
    Bus bus;
    Store store {&options};
    PhoneBook *phones = nullptr;
    /// Sends an entry to the journal.
    std::function<void(const QJsonObject &)> journal;
};

#endif
