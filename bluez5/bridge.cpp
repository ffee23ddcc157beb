// bluetoothd: takes the place of BlueZ 4's daemon, under its name and for as long as that would live.
// Ends with 0 after SIGTERM, and with 1 when BlueZ 5, its adapter or a bus goes.

#include "Bluez4.h"
#include "PulseAudio.h"

#include <QtCore/QCoreApplication>
#include <QtDBus/QDBusConnectionInterface>

#include <unistd.h>

namespace {

/** All objects of the product's bus, where the two faces share paths. */
class ProductObjects : public QDBusVirtualObject
{
public:
    explicit ProductObjects(Bluez5 *bluez5)
        : QDBusVirtualObject(bluez5)
        , bluez4(bluez5, this)
        , pulseAudio(bluez5, this)
    {}

    QString introspect(const QString &) const override { return QString(); }
    bool handleMessage(const QDBusMessage &call, const QDBusConnection &) override
    {
        return bluez4.handle(call) || pulseAudio.handle(call); // or else it is an UnknownMethod
    }

    Bluez4 bluez4;
    PulseAudio pulseAudio;
};

void fail(const QString &reason)
{
    warn(reason);
    _exit(1); // as a crash: who waits for an answer hears it from the bus
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    ProductObjects *objects = nullptr;
    Bluez5 *bluez5 = nullptr;
    onTermination([&] {
        bluez5->leave(objects->bluez4.connectedPhones());
        application.quit();
    });
    QDBusConnection product = QDBusConnection::systemBus();
    if (!product.isConnected() || !machineBus().isConnected())
        fail("no bus");
    bluez5 = new Bluez5(&application);
    objects = new ProductObjects(bluez5);
    product.registerVirtualObject("/", objects, QDBusConnection::SubPath);
    onBusLost(product, bluez5, SLOT(busLost()));
    QObject::connect(bluez5, &Bluez5::lost, [](const QString &what) { fail(what + " has gone"); });
    // Only now, so that a missing adapter shows as the service's own time-out and not as a restart.
    QObject::connect(bluez5, &Bluez5::ready, [&] {
        if (product.registerService("org.bluez"))
            objects->bluez4.begin();
        else
            fail("another daemon has the name org.bluez on the product's bus");
    });
    return application.exec();
}
