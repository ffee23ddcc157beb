#include "Daemon.h"

#include "Adapter.h"
#include "Device.h"
#include "Durations.h"
#include "Faces.h"
#include "HubLink.h"
#include "Termination.h"
#include "TypedArguments.h"
#include "UnusedInterfaces.h"

#include <QCoreApplication>
#include <QProcess>
#include <QSysInfo>

#include <cstdio>
#include <unistd.h>

namespace {

/// Object paths contain the daemon's process id, so they change at every start.
QString pathPrefix()
{
    return QStringLiteral("/org/bluez/%1").arg(getpid());
}

} // namespace

Daemon::Daemon(HubLink *hub, const QString &adapterName, QObject *parent)
    : QObject(parent)
    , m_hub(hub)
    , m_adapterName(adapterName)
    , m_context(QDBusConnection::systemBus(), hub->options())
    , m_phones(&m_context)
    , m_manager(&m_context)
    , m_start(&m_context.schedule)
{
    m_context.phones = &m_phones;
    m_context.journal = [hub](const QJsonObject &entry) { hub->event(entry); };
    takeOptions(hub->options());
    connect(hub, &HubLink::optionsChanged, this, &Daemon::takeOptions);
    connect(hub, &HubLink::commandReceived, this, &Daemon::carryOut);
    m_context.bus.connection().connect(QString(), "/org/freedesktop/DBus/Local",
                                       "org.freedesktop.DBus.Local", "Disconnected", this,
                                       SLOT(busLost()));
    if (!m_context.options.noName)
        m_start.startReal(m_context.options.nameDelay, [this] { claimName(); });
}

Daemon::~Daemon() = default;

void Daemon::takeOptions(const QJsonObject &options)
{
    m_context.schedule.catchUp();
    m_context.options.apply(options);
    if (options.contains("timescale"))
        m_context.schedule.setScale(m_context.options.timescale);
    if (options.contains("faults"))
        m_context.bus.setFaults(m_context.options.faults);
    if (m_adapter && m_context.options.streamTaken) {
        for (Device *device : m_adapter->devices())
            device->session().streamTaken();
    }
}

void Daemon::claimName()
{
    if (!m_context.bus.claim("org.bluez")) {
        std::fprintf(stderr, "bluetoothd: org.bluez has an owner already\n");
        QCoreApplication::exit(1);
        return;
    }
    // The name comes first, always: for a while there is a daemon without an adapter.
    if (!m_context.options.noAdapter)
        m_start.startReal(m_context.options.adapterDelay, [this] { bringAdapterUp(); });
}

void Daemon::bringAdapterUp()
{
    m_context.bus.publish(pathPrefix() + "/any", UnusedInterfaces::service());
    m_adapter = std::make_unique<Adapter>(&m_context, pathPrefix() + "/hci0", m_adapterName);
    m_phones.setUnit(m_adapter.get());
    m_adapter->announceStoredDevices();
    m_manager.setAdapter(m_adapter.get());
    m_adapter->announceProperties();
}

void Daemon::carryOut(int id, const QString &text)
{
    m_context.schedule.catchUp();
    const QStringList words = QProcess::splitCommand(text);
    const QString subject = words.value(0);
    QString answer = QStringLiteral("ok");
    bool ok = true;
    if (subject == "phones") {
        answer = m_phones.list();
    } else if (subject == "phone") {
        ok = m_phones.carryOut(words.mid(1), &answer);
    } else if (subject == "adapter") {
        ok = carryOutOnAdapter(words.mid(1), &answer);
    } else if (subject == "signal") {
        ok = sendSignal(words.mid(1), &answer);
    } else if (subject == "wait") {
        // Answered when that much product time has passed.
        m_waits[id].reset(new Timer(&m_context.schedule));
        m_waits[id]->start(words.value(1).toInt(), [this, id] {
            m_hub->reply(id, "ok");
            m_waits.erase(id);
        });
        return;
    } else {
        ok = false;
        answer = "bluetoothd does not know \"" + text + '"';
    }
    if (ok)
        m_hub->reply(id, answer);
    else
        m_hub->replyError(id, answer);
}

bool Daemon::carryOutOnAdapter(const QStringList &words, QString *answer)
{
    const QString verb = words.value(0);
    if (!m_adapter) {
        *answer = "the unit's radio is not ready";
        return false;
    }
    if (verb == "up" || verb == "down") {
        m_adapter->setPowered(verb == "up");
    } else if (verb == "piscan") {
        m_adapter->setScan(true, true);
    } else if (verb == "noscan") {
        m_adapter->setScan(false, false);
    } else if (verb == "sspmode") {
        m_adapter->setSimplePairing(words.value(1) == "1");
    } else {
        *answer = "adapter up|down|piscan|noscan|sspmode 0|sspmode 1";
        return false;
    }
    return true;
}

bool Daemon::sendSignal(const QStringList &words, QString *answer)
{
    QVariantList arguments;
    const QString signal = words.value(1);
    if (words.size() < 2) {
        *answer = "signal PATH INTERFACE.SIGNAL [TYPE:VALUE ...]";
        return false;
    }
    if (!parseTypedArguments(words.mid(2), &arguments, answer))
        return false;
    m_context.bus.emitSignal(words.first(), signal.section('.', 0, -2), signal.section('.', -1),
                             arguments);
    return true;
}

void Daemon::stop()
{
    if (m_stopping)
        return;
    m_stopping = true;
    m_context.schedule.catchUp();
    m_start.stop();
    const bool hadStream = m_adapter && m_adapter->hasStream();
    if (m_adapter)
        m_adapter->stop();
    // From here on the daemon is deaf and silent: no signal tells that the links are gone.
    m_context.bus.close();
    m_start.start(hadStream ? Durations::StopStreaming : Durations::Stop,
                  [] { QCoreApplication::exit(0); });
}

void Daemon::busLost()
{
    QCoreApplication::exit(1);
}

int bluetoothdMain(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    HubLink hub;
    QString name = qEnvironmentVariable("BLUEZHOSTNAME");
    const QJsonObject environment =
        name.isEmpty() ? QJsonObject() : QJsonObject {{"BLUEZHOSTNAME", name}};
    if (!hub.connectAndHello("bluetoothd", application.arguments().mid(1), environment)) {
        std::fprintf(stderr, "bluetoothd: no hub: %s\n", qPrintable(hub.errorString()));
        return 1;
    }
    hub.obey();
    Termination termination;
    if (!QDBusConnection::systemBus().isConnected()) {
        std::fprintf(stderr, "bluetoothd: no system bus\n");
        return 1;
    }
    if (name.isEmpty())
        name = QSysInfo::machineHostName() + "-0";
    Daemon daemon(&hub, name);
    QObject::connect(&termination, &Termination::requested, &daemon, &Daemon::stop);
    QObject::connect(&hub, &HubLink::disconnected, &application, &QCoreApplication::quit);
    return application.exec();
}
