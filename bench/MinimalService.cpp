// The least that a Qt service can do: claims the name, exports an adaptor that answers GetStatus
// with the values of the real service when it is off.
#include <QtCore/QCoreApplication>
#include <QtDBus/QDBusAbstractAdaptor>
#include <QtDBus/QDBusConnection>

class Adaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orbitalis.ulmo.bluetoothinterface")

public:
    explicit Adaptor(QObject *parent) : QDBusAbstractAdaptor(parent) { }

public Q_SLOTS:
    int GetStatus(bool &Enable, bool &On, QString &pid)
    {
        Enable = false;
        On = false;
        pid = m_pid;
        return 0;
    }

private:
    const QString m_pid = "7351";
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QObject object;
    new Adaptor(&object);
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerService("com.orbitalis.ulmo.bluetoothmanager")
        || !bus.registerObject("/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj", &object,
                               QDBusConnection::ExportAdaptors))
        return 1;
    return QCoreApplication::exec();
}

#include "MinimalService.moc"
