// The service's public face on the bus.
#ifndef BLUETOOTHMANAGERADAPTOR_H
#define BLUETOOTHMANAGERADAPTOR_H

#include <QtCore/QString>
#include <QtDBus/QDBusAbstractAdaptor>

class BluetoothManager;

/**
 * Exports a BluetoothManager under "com.orbitalis.ulmo.bluetoothinterface": every method goes to
 * the manager's method of the same name, every signal is the manager's own, relayed.
 *
 * The introspection text is written out, comments and all, since Qt's generator drops them. It is
 * the same as in com.orbitalis.ulmo.bluetoothinterface.xml, which is installed for clients.
 */
class BluetoothManagerAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orbitalis.ulmo.bluetoothinterface")
    Q_CLASSINFO("D-Bus Introspection",
                ""
                "  <interface name=\"com.orbitalis.ulmo.bluetoothinterface\">\n"
                "    <!-- METHODS -->\n"
                "    <!--\n"
                "      SetStandalone\n"
                "      Inform the SoundManager that must run in standalone mode or\n"
                "      not.\n"
                "    -->\n"
                "    <method name=\"SetPid\">\n"
                "      <arg name=\"Pid\" type=\"s\" direction=\"in\"/>\n"
                "      <arg name=\"Status\" type=\"i\" direction=\"out\"/>\n"
                "    </method>\n"
                "    <method name=\"SetEnabled\">\n"
                "      <arg name=\"Enable\" type=\"b\" direction=\"in\"/>\n"
                "      <arg name=\"Status\" type=\"i\" direction=\"out\"/>\n"
                "    </method>\n"
                "    <method name=\"SetVolume\">\n"
                "      <arg name=\"Enable\" type=\"i\" direction=\"in\"/>\n"
                "      <arg name=\"Status\" type=\"i\" direction=\"out\"/>\n"
                "    </method>\n"
                "    <method name=\"SetMute\">\n"
                "      <arg name=\"Enable\" type=\"i\" direction=\"in\"/>\n"
                "      <arg name=\"Status\" type=\"i\" direction=\"out\"/>\n"
                "    </method>\n"
                "    <method name=\"DisconnectDevice\">\n"
                "      <arg name=\"Status\" type=\"i\" direction=\"out\"/>\n"
                "    </method>\n"
                "    <method name=\"RemoveAllDevices\">\n"
                "      <arg name=\"Status\" type=\"i\" direction=\"out\"/>\n"
                "    </method>\n"
                "    <method name=\"RemoveDevice\">\n"
                "      <arg name=\"Device\" type=\"s\" direction=\"in\"/>\n"
                "      <arg name=\"Status\" type=\"i\" direction=\"out\"/>\n"
                "    </method>\n"
                "    <!--\n"
                "      GetStatus:\n"
                "      returns the status of the bluetooth manager.\n"
                "      @Status: out Enable or not\n"
                "      @Enable: out Enable or not\n"
                "      @On: out On or Off\n"
                "      @pid: out bluetooth pid. If empty means alsways works\n"
                "    -->\n"
                "    <method name=\"GetStatus\">\n"
                "      <arg name=\"Status\" type=\"i\" direction=\"out\"/>\n"
                "      <arg name=\"Enable\" type=\"b\" direction=\"out\"/>\n"
                "      <arg name=\"On\" type=\"b\" direction=\"out\"/>\n"
                "      <arg name=\"pid\" type=\"s\" direction=\"out\"/>\n"
                "    </method>\n"
                "    <!-- SIGNALS -->\n"
                "    <signal name=\"BluetoothOn\">\n"
                "      <arg name=\"On\" type=\"b\"/>\n"
                "    </signal>\n"
                "    <signal name=\"BluetoothPidChanged\">\n"
                "      <arg name=\"Pid\" type=\"s\"/>\n"
                "    </signal>\n"
                "    <signal name=\"ConnectAudioDevice\"/>\n"
                "    <signal name=\"DisconnectAudioDevice\"/>\n"
                "    <signal name=\"NoPlayConnectedDevive\"/>\n"
                "  </interface>\n")

public:
    /** The adaptor becomes a child of the manager. */
    explicit BluetoothManagerAdaptor(BluetoothManager *manager);

Q_SIGNALS:
    void BluetoothOn(bool On);
    void BluetoothPidChanged(const QString &Pid);
    void ConnectAudioDevice();
    void DisconnectAudioDevice();
    void NoPlayConnectedDevive();

public Q_SLOTS:
    int DisconnectDevice();
    int GetStatus(bool &Enable, bool &On, QString &pid);
    int RemoveAllDevices();
    int RemoveDevice(const QString &Device);
    int SetEnabled(bool Enable);
    int SetMute(int Enable);
    int SetPid(const QString &Pid);
    int SetVolume(int Enable);

private:
    BluetoothManager *manager() const;
};

#endif
