#include "Rig.h"

#include "CannotMeasure.h"
#include "Clock.h"

#include <QFile>

namespace {

const char Service[] = "com.orbitalis.ulmo.bluetoothmanager";
const char Object[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";
const char Interface[] = "com.orbitalis.ulmo.bluetoothinterface";
const char SettingsFile[] = "/run/product/bench-settings.ini";

Message serviceCall(const char *member)
{
    return methodCall(Service, Object, Interface, member);
}

Message setEnabledCall(bool enable)
{
    const Message request = serviceCall("SetEnabled");
    const dbus_bool_t value = enable;
    dbus_message_append_args(request.get(), DBUS_TYPE_BOOLEAN, &value, DBUS_TYPE_INVALID);
    return request;
}

void writeSettings()
{
    QFile file(SettingsFile);
    const QByteArray text = "[BLUETOOTH]\nbt-enable=0\n";
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        throw CannotMeasure("cannot write the settings");
}

} // namespace

QString programOf(const QString &pathInBuild)
{
    return "/run/product/build/" + pathInBuild;
}

QString serviceProgram()
{
    return programOf("service/bluetoothmanager");
}

QString minimalServiceProgram()
{
    return programOf("bench/MinimalService");
}

Rig::Rig(const QString &program)
{
    m_session.follow("type='signal',member='NameOwnerChanged',arg0='com.orbitalis.ulmo."
                     "bluetoothmanager'");
    m_session.follow("type='signal',interface='com.orbitalis.ulmo.bluetoothinterface'");
    m_system.follow("type='signal',member='NameOwnerChanged',arg0='org.bluez'");
    m_system.follow("type='signal',interface='org.bluez.Manager'");
    // The bench stands in for the sound manager, to hear when it is asked to play.
    m_session.claim("com.orbitalis.ulmo.soundmanager");
    writeSettings();
    m_subject = startBeside(program);
    m_startTime = m_session.waitForName(Service) - m_subject->startTime();
}

std::unique_ptr<Subject> Rig::startBeside(const QString &program,
                                          const QStringList &arguments) const
{
    const QStringList environment {"DBUS_SESSION_BUS_ADDRESS=" + m_session.address(),
                                   "DBUS_SYSTEM_BUS_ADDRESS=" + m_system.address(),
                                   QString("ULMO_SETTINGS=") + SettingsFile};
    return std::make_unique<Subject>(program, arguments, environment);
}

double Rig::timeGetStatus()
{
    const Message request = serviceCall("GetStatus");
    const double begin = now();
    m_session.call(request);
    return now() - begin;
}

double Rig::switchOn()
{
    m_session.dropReceived();
    const double begin = now();
    m_session.send(setEnabledCall(true));
    m_session.flush();
    return waitUntilOn() - begin;
}

void Rig::switchOff()
{
    setEnabled(false);
}

void Rig::setEnabled(bool enable)
{
    m_session.call(setEnabledCall(enable));
}

double Rig::waitUntilOn()
{
    const auto isOn = [](DBusMessage *message) {
        dbus_bool_t on = false;
        return dbus_message_is_signal(message, Interface, "BluetoothOn")
            && dbus_message_get_args(message, nullptr, DBUS_TYPE_BOOLEAN, &on, DBUS_TYPE_INVALID)
            && on;
    };
    return m_session.waitFor("BluetoothOn", isOn).time;
}
