#include "Bluez4.h"

#include <QtCore/QTimer>

namespace {

// In milliseconds.
const int ConnectTimeout = 8500; // what BlueZ 4 takes for a phone out of range
const int ConnectAgain = 500;

QVariant objectPaths(const QStringList &paths)
{
    QList<QDBusObjectPath> objects;
    for (const QString &path : paths)
        objects << QDBusObjectPath(path);
    return QVariant::fromValue(objects);
}

void tellProperty(const QString &path, const char *interface, const QString &property,
                  const QVariant &value)
{
    tell(path, interface, "PropertyChanged", {property, QVariant::fromValue(QDBusVariant(value))});
}

void tellChanges(const QString &path, const char *interface, QVariantMap *told,
                 const QVariantMap &now)
{
    const QVariantMap changes = changesOf(*told, now);
    *told = now;
    for (auto change = changes.begin(); change != changes.end(); ++change)
        tellProperty(path, interface, change.key(), change.value());
}

bool isConnected(const QVariantMap &device)
{
    return device.value("Connected").toBool();
}

bool maySendSound(const QVariantMap &device)
{
    const QStringList services = device.value("UUIDs").toStringList();
    return services.contains(AudioSource)
        || (services.isEmpty() && !device.value("Icon").toString().startsWith("input-"));
}

} // namespace

Bluez4::Bluez4(Bluez5 *bluez5, QObject *parent)
    : QObject(parent)
    , m_bluez5(bluez5)
{
    // QVariant compares them by address otherwise.
    QMetaType::registerEqualsComparator<QDBusObjectPath>();
    QMetaType::registerEqualsComparator<QList<QDBusObjectPath>>();
    connect(bluez5, &Bluez5::adapterChanged, this, &Bluez4::updateAdapter);
    connect(bluez5, &Bluez5::deviceChanged, this, &Bluez4::update);
}

void Bluez4::begin()
{
    for (const QString &path : m_bluez5->devices()) {
        if (maySendSound(m_bluez5->properties(path)))
            m_phones[path].told = deviceProperties(path);
        // The service has not heard of a link that is older, and would never look after it.
        if (m_phones.contains(path) && isConnected(m_bluez5->properties(path)))
            m_bluez5->call(path, "org.bluez.Device1.Disconnect");
    }
    m_adapterTold = adapterProperties();
    const QVariant adapter = objectPath(m_bluez5->adapter());
    tell("/", "org.bluez.Manager", "AdapterAdded", {adapter});
    tellProperty("/", "org.bluez.Manager", "Adapters", objectPaths({m_bluez5->adapter()}));
    tell("/", "org.bluez.Manager", "DefaultAdapterChanged", {adapter});
}

QStringList Bluez4::connectedPhones() const
{
    QStringList connected;
    for (const QString &path : m_phones.keys()) {
        if (isConnected(m_phones[path].told))
            connected << path;
    }
    return connected;
}

// Calls

bool Bluez4::handle(const QDBusMessage &call)
{
    const QString method = call.interface() + '.' + call.member() + '(' + call.signature() + ')';
    const QString adapter = m_bluez5->adapter();
    if (m_phones.contains(call.path()))
        return handlePhone(method, call);
    if (call.path() == "/" && method == "org.bluez.Manager.DefaultAdapter()")
        return answer(call, {objectPath(adapter)});
    if (call.path() == "/" && method == "org.bluez.Manager.GetProperties()")
        return answer(call, {QVariantMap{{"Adapters", objectPaths({adapter})}}});
    if (call.path() == adapter && method == "org.bluez.Adapter.GetProperties()")
        return answer(call, {m_adapterTold});
    if (call.path() == adapter && method == "org.bluez.Adapter.ListDevices()")
        return answer(call, {objectPaths(m_phones.keys())});
    if (call.path() == adapter && method == "org.bluez.Adapter.RemoveDevice(o)")
        return removePhone(call);
    return false;
}

bool Bluez4::handlePhone(const QString &method, const QDBusMessage &call)
{
    const QString path = call.path();
    const Phone &phone = m_phones[path];
    const auto passOn = [call](const QDBusMessage &reply) { pass(call, reply); };
    if (method == "org.bluez.Device.GetProperties()")
        return answer(call, {phone.told});
    if (method == "org.bluez.AudioSource.GetProperties()")
        return answer(call, {QVariantMap{{"State", phone.state}}});
    if (method == "org.bluez.AudioSource.Connect()")
        return connectSound(call);
    if (method == "org.bluez.Device.Disconnect()") {
        if (!isConnected(phone.told))
            return refuse(call, "NotConnected", "Not Connected");
        tell(path, "org.bluez.Device", "DisconnectRequested");
        if (isConnected(m_bluez5->properties(path)))
            m_bluez5->call(path, "org.bluez.Device1.Disconnect", {}, passOn);
        else // BlueZ 5 has missed the link of this stream
            m_bluez5->call(path, "org.bluez.Device1.DisconnectProfile", {AudioSource}, passOn);
        return true;
    }
    if (method == "org.bluez.Device.SetProperty(sv)") {
        const QVariant value = qvariant_cast<QDBusVariant>(call.arguments().at(1)).variant();
        if (call.arguments().at(0) != "Trusted" || value.userType() != QMetaType::Bool)
            return refuse(call, "InvalidArguments", "Invalid arguments in method call");
        m_bluez5->set(path, "Trusted", value, passOn);
        return true;
    }
    return false;
}

bool Bluez4::removePhone(const QDBusMessage &call)
{
    // BlueZ 4 takes addresses in small letters as well.
    const QString asked = pathIn(call.arguments().at(0));
    const QString path = asked.section("dev_", 0, 0) + "dev_" + asked.section("dev_", 1).toUpper();
    if (!m_phones.contains(path))
        return refuse(call, "DoesNotExist", "Does Not Exist");
    if (m_phones[path].removing.isReplyRequired())
        return refuse(call, "DoesNotExist", "Device creation in progress");
    m_phones[path].removing = call;
    m_bluez5->call(m_bluez5->adapter(), "org.bluez.Adapter1.RemoveDevice", {objectPath(path)},
                   [this, path](const QDBusMessage &reply) {
                       if (!m_phones.contains(path))
                           return;
                       pass(m_phones[path].removing, reply);
                       m_phones[path].removing = QDBusMessage();
                   });
    return true;
}

bool Bluez4::connectSound(const QDBusMessage &call)
{
    const QString path = call.path();
    if (m_phones[path].attempt != 0)
        return refuse(call, "InProgress", "Operation already in progress");
    if (!m_bluez5->transportOf(path).isEmpty())
        return refuse(call, "AlreadyConnected", "Already Connected");
    const int attempt = ++m_attempts;
    m_phones[path].connecting = call;
    m_phones[path].attempt = attempt;
    setState(path, "connecting");
    openStream(path, attempt, false);
    QTimer::singleShot(ConnectTimeout, this, [this, path, attempt] {
        if (m_phones.value(path).attempt != attempt)
            return;
        // BlueZ 5 would go on for longer.
        m_bluez5->call(path, "org.bluez.Device1.Disconnect");
        endConnect(path, attempt);
    });
    return true;
}

/**
 * A phone's kernel may refuse the stream while it does not yet take the link for encrypted. That
 * passes; but after an error the service would forget the phone.
 */
void Bluez4::openStream(const QString &path, int attempt, bool isLast)
{
    m_bluez5->call(path, "org.bluez.Device1.ConnectProfile", {AudioSource},
                   [this, path, attempt, isLast](const QDBusMessage &reply) {
                       if (isLast || reply.errorMessage() != "br-connection-unknown") {
                           endConnect(path, attempt);
                           return;
                       }
                       QTimer::singleShot(ConnectAgain, this, [this, path, attempt] {
                           if (m_phones.value(path).attempt == attempt)
                               openStream(path, attempt, true);
                       });
                   });
}

/** With success if there is a stream by now, whoever has made it. */
void Bluez4::endConnect(const QString &path, int attempt)
{
    if (m_phones.value(path).attempt != attempt)
        return;
    m_phones[path].attempt = 0;
    if (!m_bluez5->transportOf(path).isEmpty())
        answer(m_phones[path].connecting);
    else
        refuse(m_phones[path].connecting, "Failed", "Stream setup failed");
    updateState(path);
    // The service keeps the place for a phone that was connecting until it hears that the link has
    // gone, and would hear nothing of a link that never was.
    if (m_phones[path].state == "disconnected" && !isConnected(m_phones[path].told))
        tellProperty(path, "org.bluez.Device", "Connected", false);
}

// What BlueZ 5 has, and what is told of it

QVariantMap Bluez4::adapterProperties() const
{
    const QVariantMap known = m_bluez5->properties(m_bluez5->adapter());
    QVariantMap properties = select(known, {"Address", "Class", "Discoverable", "Discovering",
                                            "DiscoverableTimeout", "Pairable", "PairableTimeout",
                                            "Powered"});
    properties.insert("Name", known.value("Alias").toString());
    properties.insert("Devices", objectPaths(m_phones.keys()));
    return properties;
}

QVariantMap Bluez4::deviceProperties(const QString &path) const
{
    const QVariantMap known = m_bluez5->properties(path);
    QVariantMap properties = select(known, {"Address", "Alias", "Blocked", "Class", "Icon", "Name",
                                            "Trusted", "UUIDs"});
    properties.insert("Adapter", objectPath(m_bluez5->adapter()));
    properties.insert("Services", objectPaths({}));
    // BlueZ 5 tells a bond with the key, as BlueZ 4, but a pairing with the phone's services.
    properties.insert("Paired", known.value("Bonded").toBool() || known.value("Paired").toBool());
    properties.insert("Connected", false);
    return properties;
}

void Bluez4::updateAdapter()
{
    tellChanges(m_bluez5->adapter(), "org.bluez.Adapter", &m_adapterTold, adapterProperties());
}

void Bluez4::update(const QString &path)
{
    const QVariantMap known = m_bluez5->properties(path);
    const bool hasStream = !m_bluez5->transportOf(path).isEmpty();
    if (!m_phones.contains(path)) {
        if (known.isEmpty() || (!hasStream && !maySendSound(known)))
            return;
        m_phones[path].told = deviceProperties(path);
        tell(m_bluez5->adapter(), "org.bluez.Adapter", "DeviceCreated", {objectPath(path)});
        updateAdapter();
    }
    Phone &phone = m_phones[path];
    QVariantMap now = known.isEmpty() ? phone.told : deviceProperties(path);
    now.insert("Connected", hasStream || isConnected(known));
    // Sound begins after the link and ends before it: whoever has forgotten a phone with its link
    // would keep the place for it after a word of its sound.
    if (isConnected(now))
        tellChanges(path, "org.bluez.Device", &phone.told, now);
    if (known.isEmpty() && phone.attempt != 0)
        endConnect(path, phone.attempt);
    updateState(path);
    if (isConnected(phone.told) && !isConnected(now)) {
        answer(phone.removing); // before, where BlueZ 5 answers after
        phone.removing = QDBusMessage();
    }
    tellChanges(path, "org.bluez.Device", &phone.told, now);
    if (known.isEmpty()) {
        const QDBusMessage removing = m_phones.take(path).removing;
        updateAdapter();
        tell(m_bluez5->adapter(), "org.bluez.Adapter", "DeviceRemoved", {objectPath(path)});
        answer(removing);
    }
}

/** While the unit connects, BlueZ 4 tells no more than that, and the rest after its answer. */
void Bluez4::updateState(const QString &path)
{
    const QString transport = m_bluez5->transportOf(path);
    const QString sound = m_bluez5->properties(transport).value("State").toString();
    if (m_phones[path].attempt != 0)
        return;
    if (!transport.isEmpty() && m_phones[path].state == "disconnected")
        setState(path, "connecting");
    setState(path, transport.isEmpty() ? "disconnected"
                   : sound == "pending" || sound == "active" ? "playing" : "connected");
}

void Bluez4::setState(const QString &path, const QString &state)
{
    if (m_phones[path].state == state)
        return;
    m_phones[path].state = state;
    tellProperty(path, "org.bluez.AudioSource", "State", state);
}
