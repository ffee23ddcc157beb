#include "PulseAudio.h"

#include <QtCore/QSocketNotifier>
#include <QtDBus/QDBusMetaType>
#include <QtDBus/QDBusServiceWatcher>
#include <QtDBus/QDBusUnixFileDescriptor>

#include <cerrno>
#include <unistd.h>

namespace {

const int EndpointTimeout = 10000; // milliseconds

const QString Transport = "org.bluez.MediaTransport1";
const char Properties[] = "org.freedesktop.DBus.Properties";
const char ObjectManager[] = "org.freedesktop.DBus.ObjectManager";

} // namespace

PulseAudio::PulseAudio(Bluez5 *bluez5, QObject *parent)
    : QObject(parent)
    , m_bluez5(bluez5)
{
    connect(bluez5, &Bluez5::deviceChanged, this, &PulseAudio::update);
}

bool PulseAudio::handle(const QDBusMessage &call)
{
    const QString method = call.interface() + '.' + call.member() + '(' + call.signature() + ')';
    const QString adapter = m_bluez5->adapter();
    if (m_streams.contains(call.path()))
        return handleStream(call);
    if (call.path() == "/" && method == "org.freedesktop.DBus.ObjectManager.GetManagedObjects()") {
        // Devices are told with their streams.
        const Interfaces interfaces = {{"org.bluez.Adapter1", m_bluez5->properties(adapter)},
                                       {"org.bluez.Media1", QVariantMap()}};
        const ManagedObjects objects = {{QDBusObjectPath(adapter), interfaces}};
        return answer(call, {QVariant::fromValue(objects)});
    }
    // PulseAudio registers its endpoints one by one where it finds no RegisterApplication.
    if (call.path() == adapter && method == "org.bluez.Media1.RegisterEndpoint(oa{sv})") {
        registerEndpoint(call);
        return answer(call);
    }
    if (call.path() == adapter && method == "org.bluez.Media1.UnregisterEndpoint(o)") {
        if (call.service() == m_owner && pathIn(call.arguments().at(0)) == m_endpoint)
            forgetEndpoint();
        return answer(call);
    }
    return false;
}

bool PulseAudio::handleStream(const QDBusMessage &call)
{
    const QString path = call.path();
    const QVariantList arguments = call.arguments();
    const auto passOn = [call](const QDBusMessage &reply) { pass(call, reply); };
    if (call.service() != m_owner)
        return refuse(call, "NotAuthorized", "Operation Not Authorized");
    if (call.interface() == Transport && call.member().endsWith("cquire")) {
        m_streams[path].calls << call;
        ask(path, Transport + '.' + call.member());
        return true;
    }
    if (call.interface() == Transport && call.member() == "Release") {
        m_bluez5->call(path, Transport + ".Release", {}, passOn);
        return true;
    }
    const QString property = arguments.value(1).toString();
    const QVariantMap properties = m_bluez5->properties(path);
    if (call.interface() != Properties || arguments.value(0) != Transport)
        return false;
    if (call.member() == "Get" && properties.contains(property))
        return answer(call, {QVariant::fromValue(QDBusVariant(properties.value(property)))});
    if (call.member() != "Set" || property != "Volume" || call.signature() != "ssv")
        return false;
    m_bluez5->set(path, property, qvariant_cast<QDBusVariant>(arguments.at(2)).variant(), passOn);
    return true;
}

// PulseAudio's endpoint

void PulseAudio::registerEndpoint(const QDBusMessage &call)
{
    const QVariantMap endpoint = qdbus_cast<QVariantMap>(call.arguments().at(1));
    if (endpoint.value("UUID").toString().toLower() != AudioSink)
        return;
    forgetEndpoint();
    m_owner = call.service();
    m_endpoint = pathIn(call.arguments().at(0));
    auto *const watcher =
        new QDBusServiceWatcher(m_owner, QDBusConnection::systemBus(),
                                QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, SIGNAL(serviceUnregistered(QString)), SLOT(forgetEndpoint()));
    for (const QString &device : m_bluez5->devices())
        give(device, m_bluez5->transportOf(device));
}

void PulseAudio::forgetEndpoint()
{
    if (m_owner.isEmpty())
        return;
    qDeleteAll(findChildren<QDBusServiceWatcher *>());
    m_owner.clear();
    for (const QString &path : m_streams.keys()) {
        m_streams[path].calls.clear();
        // What PulseAudio had, nobody reads any more and nobody could take.
        m_bluez5->call(path, Transport + ".Release");
    }
}

void PulseAudio::callEndpoint(const QString &method, const QVariantList &arguments,
                              const Answered &answered)
{
    send(QDBusConnection::systemBus(),
         methodCall(m_owner, m_endpoint, "org.bluez.MediaEndpoint1." + method, arguments),
         EndpointTimeout, answered);
}

void PulseAudio::give(const QString &device, const QString &path)
{
    if (m_owner.isEmpty() || path.isEmpty())
        return;
    QVariantMap properties = select(m_bluez5->properties(device), {"Address", "Adapter", "Alias"});
    // Of a new phone BlueZ 5 does not know it yet; and no other service is the unit's.
    properties.insert("UUIDs", QStringList(AudioSource));
    tell("/", ObjectManager, "InterfacesAdded",
         {objectPath(device), QVariant::fromValue(Interfaces{{"org.bluez.Device1", properties}})});
    callEndpoint("SetConfiguration", {objectPath(path), m_bluez5->properties(path)},
                 [this, path](const QDBusMessage &reply) {
                     if (isError(reply))
                         warn("PulseAudio does not take the phone: " + reply.errorMessage());
                     // What has begun before is taken when it is heard of once more.
                     tell(path, Properties, "PropertiesChanged",
                          {Transport, select(m_bluez5->properties(path), {"State"}), QStringList()});
                 });
}

// Streams

void PulseAudio::update(const QString &device)
{
    const QString path = m_bluez5->transportOf(device);
    for (const QString &known : m_streams.keys()) {
        if (known == path || !known.startsWith(device + '/'))
            continue;
        letGo(known);
        for (const QDBusMessage &call : m_streams.take(known).calls)
            refuse(call, "NotAuthorized", "Operation Not Authorized");
        callEndpoint("ClearConfiguration", {objectPath(known)});
        tell("/", ObjectManager, "InterfacesRemoved",
             {objectPath(device), QStringList("org.bluez.Device1")});
    }
    if (path.isEmpty())
        return;
    const bool isNew = !m_streams.contains(path);
    const QVariantMap changes = changesOf(m_streams[path].told, m_bluez5->properties(path));
    m_streams[path].told = m_bluez5->properties(path);
    if (isNew)
        give(device, path);
    else if (!changes.isEmpty())
        tell(path, Properties, "PropertiesChanged", {Transport, changes, QStringList()});
    if (changes.value("State") == "idle")
        letGo(path);
    else if (changes.value("State") == "pending" && m_owner.isEmpty())
        ask(path, Transport + ".TryAcquire");
}

/** Gets the descriptor, for PulseAudio if that is waiting for it. */
void PulseAudio::ask(const QString &path, const QString &method)
{
    const auto use = [this, path](const QDBusMessage &reply) {
        Stream &stream = m_streams[path];
        stream.taken = reply;
        if (stream.calls.isEmpty() && !isError(reply)) {
            throwAway(path);
            return;
        }
        for (const QDBusMessage &call : stream.calls)
            pass(call, reply);
        stream.calls.clear();
        letGo(path);
    };
    Stream &stream = m_streams[path];
    if (!isError(stream.taken)) {
        use(stream.taken);
    } else if (!stream.isAsked) {
        stream.isAsked = true;
        m_bluez5->call(path, method, {}, [this, path, use](const QDBusMessage &reply) {
            // The descriptor of one that has been closed meanwhile goes with its message.
            if (!m_streams.contains(path))
                return;
            m_streams[path].isAsked = false;
            use(reply);
        });
    }
}

void PulseAudio::throwAway(const QString &path)
{
    const auto descriptor =
        qvariant_cast<QDBusUnixFileDescriptor>(m_streams[path].taken.arguments().value(0));
    auto *const drain =
        new QSocketNotifier(descriptor.fileDescriptor(), QSocketNotifier::Read, this);
    connect(drain, &QSocketNotifier::activated, this, [this, path, descriptor] {
        char sound[4096];
        const ssize_t size = read(descriptor.fileDescriptor(), sound, sizeof sound);
        if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR))
            letGo(path);
    });
    m_streams[path].drain = drain;
}

/** Closes what the bridge has of the stream. */
void PulseAudio::letGo(const QString &path)
{
    Stream &stream = m_streams[path];
    stream.taken = QDBusMessage();
    if (stream.drain) {
        stream.drain->setEnabled(false);
        stream.drain->deleteLater();
    }
    stream.drain = nullptr;
}
