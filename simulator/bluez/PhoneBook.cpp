#include "PhoneBook.h"

#include "Adapter.h"
#include "Context.h"
#include "Phone.h"

#include <QRegularExpression>

namespace {

const QString Subject = QStringLiteral("phones");
const QString UsualPin = QStringLiteral("7351");

bool isAddress(const QString &text)
{
    static const QRegularExpression form("^([0-9A-F]{2}:){5}[0-9A-F]{2}$");
    return form.match(text).hasMatch();
}

} // namespace

PhoneBook::PhoneBook(Context *context) : m_context(context)
{
    const QJsonObject stored = m_context->store.read(Subject);
    for (auto phone = stored.begin(); phone != stored.end(); ++phone)
        m_phones[phone.key()] =
            std::make_unique<Phone>(m_context, phone.key(), phone.value().toObject());
}

PhoneBook::~PhoneBook() = default;

void PhoneBook::setUnit(Adapter *adapter)
{
    m_unit = adapter;
    for (const auto &phone : m_phones) {
        phone.second->setUnit(adapter);
        phone.second->introduceTo(adapter);
    }
}

bool PhoneBook::carryOut(const QStringList &words, QString *answer)
{
    QString refusal;
    const QString first = words.value(0);
    const auto phone = m_phones.find(first);
    if (first == "add")
        refusal = add(words.value(1), words.mid(2));
    else if (phone == m_phones.end())
        refusal = "there is no phone " + first;
    else
        refusal = phone->second->act(words.value(1), words.mid(2));
    *answer = refusal.isEmpty() ? QStringLiteral("ok") : refusal;
    return refusal.isEmpty();
}

QString PhoneBook::list() const
{
    QStringList lines;
    for (const auto &phone : m_phones)
        lines.append(phone.second->describe());
    return lines.isEmpty() ? QStringLiteral("no phones") : lines.join('\n');
}

Phone *PhoneBook::at(const QString &address) const
{
    for (const auto &phone : m_phones) {
        if (phone.second->address().compare(address, Qt::CaseInsensitive) == 0)
            return phone.second.get();
    }
    return nullptr;
}

void PhoneBook::save() const
{
    QJsonObject phones;
    for (const auto &phone : m_phones)
        phones.insert(phone.first, phone.second->toJson());
    m_context->store.write(Subject, phones);
}

QString PhoneBook::add(const QString &handle, const QStringList &words)
{
    QJsonObject description;
    for (const QString &word : words) {
        const QString key = word.section('=', 0, 0);
        const bool isFlag = key == "known" || key == "trusted";
        const bool isValue = key == "address" || key == "name" || key == "pin" || key == "audio";
        if (isFlag && !word.contains('='))
            description.insert(key, true);
        else if (isValue && word.contains('='))
            description.insert(key, word.section('=', 1));
        else
            return "phone add NAME [address=..] [name=..] [pin=..] [audio=FILE] [known] [trusted]";
    }
    return add(handle, description);
}

QString PhoneBook::add(const QString &handle, QJsonObject description)
{
    if (handle.isEmpty() || handle == "add")
        return "a phone needs a name";
    if (m_phones.count(handle))
        return "there is a phone " + handle + " already";
    const QString address = description.contains("address")
        ? description.value("address").toString().toUpper()
        : freeAddress();
    if (!isAddress(address))
        return "\"" + address + "\" is not an address";
    if (const Phone *other = at(address))
        return other->handle() + " has this address";
    description.insert("address", address);
    if (!description.contains("name"))
        description.insert("name", handle);
    if (!description.contains("pin"))
        description.insert("pin", UsualPin);
    if (description.value("trusted").toBool())
        description.insert("known", true);
    m_phones[handle] = std::make_unique<Phone>(m_context, handle, description);
    if (m_unit) {
        m_phones[handle]->setUnit(m_unit);
        m_phones[handle]->introduceTo(m_unit);
    }
    save();
    return QString();
}

QString PhoneBook::freeAddress() const
{
    for (int number = 1;; number++) {
        const QString address =
            QStringLiteral("00:AA:01:%1:00:%1").arg(number, 2, 16, QChar('0')).toUpper();
        if (!at(address))
            return address;
    }
}
