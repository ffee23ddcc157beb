#include "BlueZ.h"

#include "Agent.h"
#include "Phone.h"
#include "core/Faults.h"
#include "core/Words.h"

#include <QRegularExpression>
#include <QTimer>

namespace {

const int UsualAdapterDelay = 60; ///< from the name to the adapter, in real milliseconds
const QString AddUsage = QStringLiteral(
    "phone add NAME [address=A] [name=TEXT] [pin=PIN] [audio=FILE] [known] [trusted]");

} // namespace

BlueZ::BlueZ(Journal &journal, Clock &clock, Faults &faults, const QString &systemBusAddress)
    : m_journal(journal)
    , m_clock(clock)
    , m_faults(faults)
    , m_busAddress(systemBusAddress)
    , m_adapter(clock)
{
}

// ---- programs

void BlueZ::start(qint64 pid, const QString &hostName)
{
    m_bus = new Bus(
        m_busAddress, m_faults, [this](const Call &call) { m_adapter.handle(call); }, this);
    if (m_faults.standing("bluetoothd", "no-name"))
        return;
    const int nameDelay = m_faults.standing("bluetoothd", "name-delay").number();
    QTimer::singleShot(nameDelay, m_bus, [this, pid, hostName] {
        m_bus->connection().registerService("org.bluez");
        // The name comes first, always: for a while there is a daemon without an adapter.
        const auto delay = m_faults.standing("bluetoothd", "adapter-delay");
        if (!m_faults.standing("bluetoothd", "no-adapter"))
            QTimer::singleShot(delay ? delay.number() : UsualAdapterDelay, m_bus,
                               [this, pid, hostName] { m_adapter.appear(m_bus, pid, hostName); });
    });
}

void BlueZ::stop(bool orderly)
{
    if (orderly)
        m_adapter.releaseAgent();
    delete m_bus;
    m_adapter.vanish();
}

void BlueZ::startAgent(const QStringList &arguments)
{
    m_agent = new Agent(m_busAddress, m_faults, m_clock, arguments, this);
    connect(m_agent, &Agent::exited, this, [this](int status) {
        stopAgent(false);
        emit agentExited(status);
    });
}

void BlueZ::stopAgent(bool orderly)
{
    if (!m_agent)
        return;
    m_agent->disconnect(this);
    if (orderly) {
        m_agent->stop();
    } else {
        m_agent->deleteLater();
        m_adapter.forgetAgent();
    }
    m_agent = nullptr;
}

// ---- control

QStringList BlueZ::verbs() const
{
    return Phone::verbs();
}

QString BlueZ::tell(const QStringList &words, QString *text)
{
    const QString command = words.value(0);
    if (command == "phone")
        return tellPhone(words.mid(1), text);
    if (command == "signal")
        return sendSignal(words.mid(1));
    if (command == "backend")
        return setBackend(words.mid(1));
    QStringList lines;
    for (const Phone *phone : qAsConst(m_phones))
        lines.append(phone->describe());
    *text = lines.isEmpty() ? "no phones" : lines.join('\n');
    return QString();
}

QString BlueZ::tellPhone(const QStringList &words, QString *text)
{
    const QString name = words.value(0);
    if (name == "add")
        return addPhone(words.mid(1));
    if (words.size() < 2)
        return "phone NAME VERB, phone NAME help, or " + AddUsage;
    Phone *phone = m_phones.value(name);
    if (!phone)
        return unknownWord("phone", name, phoneNames());
    if (words.at(1) != "help")
        return phone->act(words.mid(1));
    *text = Phone::help();
    return QString();
}

QString BlueZ::addPhone(const QStringList &words)
{
    static const QRegularExpression addressForm("^([0-9A-F]{2}:){5}[0-9A-F]{2}$");
    const QString name = words.value(0);
    if (name.isEmpty() || name.contains('=') || name == "add")
        return "a phone needs a name";
    if (m_phones.contains(name))
        return "there is a phone " + name + " already";

    Phone::Traits traits {name, QString(), name, "7351", QString()};
    for (int last = 0x13; traits.address.isEmpty(); last++) {
        const QString free = QString("00:1A:7D:DA:71:%1").arg(last, 2, 16).toUpper();
        if (nameOf(free).isEmpty())
            traits.address = free;
    }
    const QMap<QString, QString *> fields {{"address", &traits.address},
                                           {"name", &traits.name},
                                           {"pin", &traits.pin},
                                           {"audio", &traits.audio}};
    for (const QString &word : words.mid(1)) {
        QString *field = fields.value(word.section('=', 0, 0));
        if (field && word.contains('='))
            *field = word.section('=', 1);
        else if (word != "known" && word != "trusted")
            return AddUsage;
    }
    traits.address = traits.address.toUpper();
    if (!addressForm.match(traits.address).hasMatch())
        return '"' + traits.address + "\" is not an address";
    const QString other = nameOf(traits.address);
    if (!other.isEmpty())
        return other + " has this address";

    auto *phone = new Phone(m_adapter, m_journal, traits, this);
    m_phones.insert(name, phone);
    connect(phone, &Phone::streamChanged, this, &BlueZ::phonePlays);
    if (words.contains("known") || words.contains("trusted"))
        phone->device.setKnown(words.contains("trusted"));
    return QString();
}

QString BlueZ::sendSignal(const QStringList &words)
{
    const QString name = words.value(1);
    QVariantList arguments;
    QString error;
    if (words.size() < 2)
        return "signal PATH INTERFACE.SIGNAL [TYPE:VALUE ...]";
    if (!parseTypedArguments(words.mid(2), &arguments, &error))
        return error;
    if (!m_bus)
        return "bluetoothd is not running";
    QDBusMessage signal =
        QDBusMessage::createSignal(words.first(), name.section('.', 0, -2), name.section('.', -1));
    signal.setArguments(arguments);
    return m_bus->connection().send(signal) ? "" : "this signal cannot be sent";
}

QString BlueZ::setBackend(const QStringList &words)
{
    const bool isHci = words.value(0) == "hci";
    const bool isOther = isHci && words.value(1) == "other";
    if ((!isHci && words.value(0) != "mgmt") || words.size() != (isOther ? 2 : 1))
        return "backend mgmt|hci, or backend hci other";
    m_adapter.backend = isHci ? Adapter::Backend::RawHci : Adapter::Backend::Management;
    m_adapter.audioFirst = isOther;
    return QString();
}

QString BlueZ::nameOf(const QString &address) const
{
    for (auto phone = m_phones.begin(); phone != m_phones.end(); ++phone) {
        if (phone.value()->traits.address == address)
            return phone.key();
    }
    return QString();
}

QString BlueZ::shortName(const QString &objectPath) const
{
    static const QRegularExpression form("^/org/bluez/\\d+/hci0(/dev_(.{17}))?$");
    const auto match = form.match(objectPath);
    if (match.hasMatch() && match.captured(1).isEmpty())
        return "hci0";
    const QString name = nameOf(match.captured(2).replace('_', ':'));
    return name.isEmpty() ? objectPath : name;
}
