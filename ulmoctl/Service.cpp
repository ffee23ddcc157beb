#include "Service.h"

#include <grp.h>

#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusError>
#include <QtDBus/QDBusMessage>

#include "Names.h"

namespace {

const char AddressVariable[] = "DBUS_SESSION_BUS_ADDRESS";
const char ProductAddress[] = ULMO_BUS_ADDRESS;
const char LogHint[] =
    "See whether bluetoothmanager runs, and its log: journalctl -t bluetoothmanager";

QString busAddress()
{
    return QString::fromLocal8Bit(qgetenv(AddressVariable));
}

Outcome errorOutcome(const QDBusConnection &bus, const QDBusMessage &error, int timeout)
{
    const QString detail = " (" + error.errorName() + ": " + error.errorMessage() + ')';
    switch (QDBusError(error).type()) {
    case QDBusError::ServiceUnknown:
        return failure(Unreachable,
                       QString("the service is not running: %1 is not on the bus %2")
                           .arg(Names::Service, busAddress()),
                       LogHint);
    case QDBusError::Disconnected:
    case QDBusError::AccessDenied:
        return failure(Unreachable, "the bus does not let the service be reached" + detail);
    case QDBusError::NoReply:
    case QDBusError::Timeout:
    case QDBusError::TimedOut:
        // The bus reports a service that ended before it answered like one that is late.
        if (!bus.isConnected() || !bus.interface()->isServiceRegistered(Names::Service))
            return failure(Unreachable, "the service ended before it answered", LogHint);
        return failure(NoAnswer, QString("no answer within %1 seconds").arg(timeout / 1000),
                       "The service may be busy, and may yet do what was asked.");
    default:
        return failure(Refused, "the service answered with an error" + detail);
    }
}

} // namespace

QDBusConnection serviceBus()
{
    if (busAddress().isEmpty() || busAddress().startsWith("unix:path=/run/user/"))
        qputenv(AddressVariable, ProductAddress);
    // On Qt's own one an answer may overtake signals, which it holds back until the loop runs.
    return QDBusConnection::connectToBus(QDBusConnection::SessionBus, "ulmoctl");
}

Outcome withoutBus(const QDBusConnection &bus)
{
    const QString address = busAddress();
    const QDBusError::ErrorType error = bus.lastError().type();
    // A bus hangs up on whoever may not use it, and remembers the groups of whom it has refused.
    if (error == QDBusError::NoReply && address == ProductAddress && getgrnam("ulmo"))
        return failure(Unreachable,
                       "the bus " + address + " is for root and the members of the group ulmo",
                       "To become one: sudo adduser NAME ulmo. For it to count: sudo systemctl "
                       "reload ulmo-bus, then log in anew.");
    if (error == QDBusError::NoReply || error == QDBusError::AccessDenied)
        return failure(Unreachable, "the bus " + address + " does not let this user in");
    return failure(Unreachable, "no bus at " + address + " (" + bus.lastError().message() + ')',
                   address == ProductAddress
                       ? "See whether it runs: systemctl status " ULMO_BUS_UNIT
                       : "This is the address in DBUS_SESSION_BUS_ADDRESS; without it, the "
                         "product's bus is looked for.");
}

Outcome callService(const QDBusConnection &bus, const char *method, const QVariantList &arguments,
                    int timeout, QVariantList *values)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(Names::Service, Names::Object, Names::Interface, method);
    call.setArguments(arguments);
    const QDBusMessage answer = bus.call(call, QDBus::Block, timeout);
    if (answer.type() == QDBusMessage::ErrorMessage)
        return errorOutcome(bus, answer, timeout);
    *values = answer.arguments();
    return Outcome();
}
