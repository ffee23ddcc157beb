#include "Bus.h"

#include <grp.h>
#include <unistd.h>

#include <QtCore/QVector>
#include <QtDBus/QDBusError>

namespace {

const char AddressVariable[] = "DBUS_SESSION_BUS_ADDRESS";
const char ProductAddress[] = ULMO_BUS_ADDRESS;
const char CallersGroup[] = "ulmo";

/** Whether the product's bus has such a group, without this process in it. */
bool isOutsideGroup()
{
    const group *callers = getgrnam(CallersGroup);
    if (!callers || geteuid() == 0 || getegid() == callers->gr_gid)
        return false;
    QVector<gid_t> groups(qMax(0, getgroups(0, 0)));
    const int count = getgroups(groups.size(), groups.data());
    return !groups.mid(0, count).contains(callers->gr_gid);
}

} // namespace

QDBusConnection connectToBus()
{
    if (qgetenv(AddressVariable).isEmpty())
        qputenv(AddressVariable, ProductAddress);
    return QDBusConnection::sessionBus();
}

QString busAddress()
{
    return QString::fromLocal8Bit(qgetenv(AddressVariable));
}

Outcome withoutBus(const QDBusConnection &bus)
{
    // A bus hangs up on whoever may not use it.
    const bool isRefused = bus.lastError().type() == QDBusError::NoReply;
    const bool isProductBus = busAddress() == QLatin1String(ProductAddress);
    if (isRefused && isProductBus && isOutsideGroup())
        return failure(Unreachable,
                       QString::fromLatin1("only root and the group %1 may use the bus %2")
                           .arg(QLatin1String(CallersGroup), busAddress()),
                       QString::fromLatin1("To be of the group: sudo adduser NAME %1, and log in "
                                           "anew.")
                           .arg(QLatin1String(CallersGroup)));
    return failure(
        Unreachable,
        QString::fromLatin1("no bus at %1 (%2)").arg(busAddress(), bus.lastError().message()),
        isProductBus ? "See whether it runs: systemctl status " ULMO_BUS_UNIT
                     : "The address is that of DBUS_SESSION_BUS_ADDRESS; without it, the service's "
                       "bus is looked for.");
}
