// bluetoothd: takes the place of BlueZ 4's daemon, under its name and for as long as that would
// live. Ends with 0 after SIGTERM, and with 1 when BlueZ 5, its adapter or a bus goes.

#include "Bluez4.h"
#include "PulseAudio.h"

/** All objects of the product's bus, where the two faces share paths. */
class ProductObjects : public QDBusVirtualObject
{
public:
    explicit ProductObjects(Bluez5 *bluez5) : m_bluez4(bluez5), m_pulseAudio(bluez5) { }

    QString introspect(const QString &) const override { return QString(); }
    bool handleMessage(const QDBusMessage &call, const QDBusConnection &) override
    {
        const QString name = call.interface() + '.' + call.member() + '(' + call.signature() + ')';
        // QtDBus would call the object unknown; PulseAudio has to hear it of the method.
        if (!m_bluez4.handle(name, call) && !m_pulseAudio.handle(name, call))
            send(call.createErrorReply(QDBusError::UnknownMethod, "no " + call.member()));
        return true;
    }

private:
    Bluez4 m_bluez4;
    PulseAudio m_pulseAudio;
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    quitOnTermination();
    if (!QDBusConnection::systemBus().isConnected() || !machineBus().isConnected())
        fail("no bus");
    Bluez5 bluez5;
    ProductObjects objects(&bluez5);
    QDBusConnection::systemBus().registerVirtualObject("/", &objects, QDBusConnection::SubPath);
    application.exec();
    bluez5.leave();
}
