#include "BlueZ.h"

#include "Adapter.h"
#include "Agent.h"
#include "RegisteredAgent.h"
#include "Bus.h"
#include "Device.h"
#include "core/Faults.h"
#include "Phone.h"
#include "core/Words.h"

#include <QRegularExpression>
#include <QTimer>

namespace {

const int UsualAdapterDelay = 60; ///< from the name to the adapter, in real milliseconds
const char AddUsage[] = "phone add NAME [address=A] [name=TEXT] [pin=PIN] [audio=FILE] [known] "
                        "[trusted]";

} // namespace

BlueZ::BlueZ(Journal &journal, Clock &clock, Faults &faults, const QString &systemBusAddress)
    : m_journal(journal)
    , m_clock(clock)
    , m_faults(faults)
    , m_busAddress(systemBusAddress)
    , m_adapter(new Adapter(clock, this))
{
}

// ---- programs

void BlueZ::start(qint64 pid, const QString &hostName)
{
    m_pid = pid;
    m_bus = new Bus(
        m_busAddress, m_faults, [this](const Call &call) { m_adapter->handle(call); }, this);
    if (m_faults.standing("bluetoothd", "no-name"))
        return;
    const auto bringAdapterUp = [this, hostName] { m_adapter->appear(m_bus, m_pid, hostName); };
    const auto claimName = [this, bringAdapterUp] {
        m_bus->claim("org.bluez");
        // The name comes first, always: for a while there is a daemon without an adapter.
        const auto delay = m_faults.standing("bluetoothd", "adapter-delay");
        if (!m_faults.standing("bluetoothd", "no-adapter"))
            QTimer::singleShot(delay ? delay.number() : UsualAdapterDelay, m_bus, bringAdapterUp);
    };
    QTimer::singleShot(m_faults.standing("bluetoothd", "name-delay").number(), m_bus, claimName);
}

void BlueZ::stop(bool orderly)
{
    if (orderly) {
        m_adapter->releaseAgent();
        m_bus->flush();
    }
    delete m_bus;
    m_adapter->vanish();
}

void BlueZ::startAgent(qint64 pid, const QStringList &arguments)
{
    Q_UNUSED(pid)
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
    if (orderly)
        m_agent->stop();
    else
        m_agent->deleteLater();
    m_agent = nullptr;
}

void BlueZ::hciconfig(const QStringList &arguments)
{
    m_adapter->hciconfig(arguments);
}

void BlueZ::takeStream(bool taken)
{
    m_adapter->takeStream(taken);
}

// ---- control

QStringList BlueZ::phoneNames() const
{
    return m_phones.keys();
}

QStringList BlueZ::verbs() const
{
    return Phone::verbs();
}

QString BlueZ::tell(const QStringList &words, QString *text)
{
    const QString verb = words.value(0);
    if (verb == "phone")
        return tellPhone(words.mid(1), text);
    if (verb == "signal")
        return sendSignal(words.mid(1));
    if (verb == "backend")
        return setBackend(words.mid(1));
    if (verb != "phones")
        return unknownWord("command", verb, {"phone", "phones", "signal", "backend"});
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
        return QString("phone NAME VERB, or ") + AddUsage;
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

    int number = 0x13;
    const auto addressOf = [](int last) {
        return QString("00:1A:7D:DA:71:%1").arg(last, 2, 16, QChar('0')).toUpper();
    };
    while (phoneAt(addressOf(number)))
        number++;
    Phone::Traits traits {addressOf(number), name, "7351", QString()};
    const QHash<QString, QString *> fields {{"address", &traits.address},
                                            {"name", &traits.name},
                                            {"pin", &traits.pin},
                                            {"audio", &traits.audio}};
    bool isTrusted = false;
    bool isKnown = false;
    for (const QString &word : words.mid(1)) {
        if (word == "trusted")
            isTrusted = true;
        else if (word == "known")
            isKnown = true;
        else if (QString *field = fields.value(word.section('=', 0, 0));
                 field && word.contains('='))
            *field = word.section('=', 1);
        else
            return AddUsage;
    }
    traits.address = traits.address.toUpper();
    if (!addressForm.match(traits.address).hasMatch())
        return '"' + traits.address + "\" is not an address";
    if (const Phone *other = phoneAt(traits.address))
        return other->handle() + " has this address";

    auto *phone = new Phone(*m_adapter, m_journal, name, traits, this);
    m_phones.insert(name, phone);
    connect(phone, &Phone::streamChanged, this, [this, phone](bool isOpen, bool playing) {
        const QString path = isOpen ? phone->device()->path() : QString();
        emit phonePlays(phone->handle(), path, phone->audio(), playing);
    });
    if (isKnown || isTrusted)
        m_adapter->introduce(*phone, isTrusted);
    return QString();
}

QString BlueZ::sendSignal(const QStringList &words)
{
    if (words.size() < 2)
        return "signal PATH INTERFACE.SIGNAL [TYPE:VALUE ...]";
    QVariantList arguments;
    QString error;
    if (!parseTypedArguments(words.mid(2), &arguments, &error))
        return error;
    if (!m_bus)
        return "bluetoothd is not running";
    QDBusMessage signal = QDBusMessage::createSignal(words.first(), words.at(1).section('.', 0, -2),
                                                     words.at(1).section('.', -1));
    signal.setArguments(arguments);
    if (!m_bus->connection().send(signal))
        return "this signal cannot be sent";
    return QString();
}

QString BlueZ::setBackend(const QStringList &words)
{
    const bool isHci = words.value(0) == "hci";
    const bool isOther = words.value(1) == "other";
    if ((!isHci && words != QStringList {"mgmt"}) || words.size() > (isOther ? 2 : 1))
        return "backend mgmt|hci, or backend hci other";
    m_adapter->backend = isHci ? Adapter::Backend::RawHci : Adapter::Backend::Management;
    m_adapter->audioFirst = isOther;
    return QString();
}

const Phone *BlueZ::phoneAt(const QString &address) const
{
    for (const Phone *phone : m_phones) {
        if (phone->address() == address)
            return phone;
    }
    return nullptr;
}

QString BlueZ::shortName(const QString &objectPath) const
{
    static const QRegularExpression form("^/org/bluez/\\d+/hci0(/dev_([0-9A-F_]{17}))?$");
    const auto match = form.match(objectPath);
    if (!match.hasMatch())
        return objectPath;
    if (match.captured(1).isEmpty())
        return "hci0";
    const Phone *phone = phoneAt(match.captured(2).replace('_', ':'));
    return phone ? phone->handle() : objectPath;
}
