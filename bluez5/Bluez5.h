// The bridge's face towards BlueZ 5: a client of its objects, and the endpoint of its sound.
#ifndef BLUEZ5_H
#define BLUEZ5_H

#include "Bus.h"

#include <QtDBus/QDBusObjectPath>
#include <QtDBus/QDBusVirtualObject>

/** A2DP: what a phone offers, and what the unit does. */
const char AudioSource[] = "0000110a-0000-1000-8000-00805f9b34fb";
const char AudioSink[] = "0000110b-0000-1000-8000-00805f9b34fb";

/** The interfaces of an object with their properties, and objects by path. */
typedef QMap<QString, QVariantMap> Interfaces;
typedef QMap<QDBusObjectPath, Interfaces> ManagedObjects;
Q_DECLARE_METATYPE(Interfaces)
Q_DECLARE_METATYPE(ManagedObjects)

/**
 * One adapter of BlueZ 5 with its devices and their open streams, the transports. It has the one SBC
 * sink endpoint, without which BlueZ 5 lets no phone connect its sound, and whose owner gets each
 * stream. Paths are those of BlueZ 5; a transport's path begins with its device's.
 */
class Bluez5 : public QDBusVirtualObject
{
    Q_OBJECT

public:
    /** Has BlueZ 5 started, and waits for it and for an adapter as long as it takes. */
    explicit Bluez5(QObject *parent);

    QString adapter() const { return m_adapter; }
    QStringList devices() const;
    /** The device's open stream; empty when there is none. */
    QString transportOf(const QString &device) const;
    /** Of the adapter, a device or a transport; none when that is not there. */
    QVariantMap properties(const QString &path) const { return m_objects.value(path); }

    void call(const QString &path, const QString &method,
              const QVariantList &arguments = QVariantList(), const Answered &answered = nullptr);
    void set(const QString &path, const QString &property, const QVariant &value,
             const Answered &answered);
    /** Cuts the links to these devices and takes the endpoint back, within a second. */
    void leave(const QStringList &devices);

    QString introspect(const QString &) const override { return QString(); }
    bool handleMessage(const QDBusMessage &call, const QDBusConnection &bus) override;

Q_SIGNALS:
    /** The adapter is there and on, and takes the sound of phones. Once; the others follow. */
    void ready();
    /** BlueZ 5, the adapter or a bus was there and has gone. */
    void lost(const QString &what);
    void adapterChanged();
    /** A device or its transport has come, changed or gone. */
    void deviceChanged(const QString &device);

public Q_SLOTS:
    void busLost() { Q_EMIT lost("a bus"); }

private Q_SLOTS:
    void ownerChanged();
    void interfacesAdded(const QDBusMessage &signal);
    void interfacesRemoved(const QDBusMessage &signal);
    void propertiesChanged(const QDBusMessage &signal);

private:
    void start();
    void add(const QString &path, const Interfaces &interfaces);
    void setUpAdapter();
    void changed(const QString &path);
    void remove(const QString &path);
    QString interfaceOf(const QString &path) const;

    QDBusConnection m_bus;
    QString m_owner; // of the name org.bluez, once its objects have been read
    QString m_adapter;
    QMap<QString, QVariantMap> m_objects;
    bool m_hasEndpoint = false;
    bool m_isReady = false;
};

#endif
