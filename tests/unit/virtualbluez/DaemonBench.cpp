#include "DaemonBench.h"

#include <QDBusPendingCall>
#include <QtTest>

#include <csignal>

DaemonBench::DaemonBench(double scale, const QJsonObject &options)
    : hub(m_folder.filePath("hub"))
    , recorder(m_bus.address())
    , m_scale(scale)
    , m_caller(m_bus.connection("caller"))
{
    hub.setOptions({{"timescale", scale}, {"state", m_folder.filePath("state")}});
    hub.setOptions(options);
}

DaemonBench::~DaemonBench()
{
    for (QProcess *process : {&m_agent, &m_daemon}) {
        process->kill();
        process->waitForFinished();
    }
    QDBusConnection::disconnectFromBus("caller");
}

void DaemonBench::start(QProcess &process, const QStringList &arguments)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SYSTEM_BUS_ADDRESS", m_bus.address());
    environment.insert("PRODUCT_HUB", m_folder.filePath("hub"));
    environment.insert("BLUEZHOSTNAME", "unit-0");
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(BLUEZ_FACES, arguments);
}

bool DaemonBench::startDaemon()
{
    const int before = hub.hellos().size();
    start(m_daemon, {"bluetoothd", "-n"});
    return QTest::qWaitFor([&] { return hub.hellos().size() > before; });
}

bool DaemonBench::startUp()
{
    recorder.clear();
    return startDaemon() && recorder.waitForLine("adapter Adapter.Discoverable = false");
}

bool DaemonBench::startAgent(const QString &pin)
{
    launchAgent(pin);
    return recorder.waitForLine("return adapter Adapter.RegisterAgent");
}

void DaemonBench::launchAgent(const QString &pin)
{
    start(m_agent,
          {"agent", "--path", "/org/bluez/agent", "--delay", "1", "--capabilites",
           "NoInputNoOutput", pin});
}

int DaemonBench::stop(QProcess &process)
{
    ::kill(pid_t(process.processId()), SIGTERM);
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 10000))
        return -1;
    if (&process == &m_daemon && !QTest::qWaitFor([&] { return !hub.isDaemonThere(); }))
        return -1;
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

bool DaemonBench::addPhone(const QString &handle, const QString &more)
{
    const int number = m_addresses.size() + 1;
    const QString address = QStringLiteral("00:AA:01:%1:00:%1").arg(number, 2, 10, QChar('0'));
    m_addresses.insert(handle, address);
    recorder.name(address, handle);
    const QString description = QStringLiteral("%1 address=%2 %3").arg(handle, address, more);
    if (hub.isDaemonThere())
        return hub.tell("phone add " + description);
    hub.addPhone(description);
    return true;
}

QString DaemonBench::path(const QString &object) const
{
    const QString adapter = QStringLiteral("/org/bluez/%1/hci0").arg(m_daemon.processId());
    if (object == "adapter")
        return adapter;
    if (object == "agent")
        return "/org/bluez/agent";
    if (m_addresses.contains(object))
        return adapter + "/dev_" + QString(m_addresses.value(object)).replace(':', '_');
    return object;
}

QDBusMessage DaemonBench::message(const QString &object, const QString &method,
                                  const QVariantList &arguments) const
{
    QDBusMessage message = QDBusMessage::createMethodCall("org.bluez", path(object),
                                                          "org.bluez." + method.section('.', 0, 0),
                                                          method.section('.', 1));
    message.setArguments(arguments);
    return message;
}

QDBusMessage DaemonBench::call(const QString &object, const QString &method,
                               const QVariantList &arguments)
{
    return send(message(object, method, arguments));
}

QDBusMessage DaemonBench::send(const QDBusMessage &message)
{
    const QDBusPendingCall pending = m_caller.asyncCall(message);
    return QTest::qWaitFor([&] { return pending.isFinished(); }, 20000) ? pending.reply()
                                                                        : QDBusMessage();
}

void DaemonBench::begin(const QString &object, const QString &method, const QVariantList &arguments)
{
    m_caller.asyncCall(message(object, method, arguments));
}
