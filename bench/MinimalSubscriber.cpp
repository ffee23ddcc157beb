// The least that a Qt program can do with the property signals of BlueZ: writes one line for each.
#include <QtCore/QCoreApplication>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusVariant>

#include <cstdio>

class Subscriber : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void propertyChanged(const QString &name, const QDBusVariant &value)
    {
        fprintf(stderr, "%s=%s\n", qPrintable(name), qPrintable(value.variant().toString()));
    }
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    Subscriber subscriber;
    if (!QDBusConnection::systemBus().connect("org.bluez", "", "org.bluez.Device",
                                              "PropertyChanged", &subscriber,
                                              SLOT(propertyChanged(QString, QDBusVariant))))
        return 1;
    fputs("subscribed\n", stderr);
    return QCoreApplication::exec();
}

#include "MinimalSubscriber.moc"
