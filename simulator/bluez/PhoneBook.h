#ifndef PHONEBOOK_H
#define PHONEBOOK_H

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <map>
#include <memory>

class Adapter;
class Phone;
struct Context;

/**
 * All virtual phones. They outlive the daemon: a restarted one finds them as they were, with their
 * bonds and their habits, but without a link.
 *
 * A phone is described by "address", "name" (what it shows to others), "pin", "audio" (the file it
 * plays), "known" (paired before, its services known) and "trusted" (known and trusted).
 */
class PhoneBook
{
public:
    explicit PhoneBook(Context *context);
    ~PhoneBook();

    /// The unit's radio is there.
    void setUnit(Adapter *adapter);

    /// Carries out "add NAME KEY=VALUE..." or "NAME VERB ..."; the answer is in \p answer.
    /// False when it is a refusal.
    bool carryOut(const QStringList &words, QString *answer);
    /// All phones, one a line.
    QString list() const;
    /// The phone with \p address; null when there is none.
    Phone *at(const QString &address) const;
    /// Keeps all phones over a restart.
    void save() const;

private:
    QString add(const QString &handle, const QStringList &words);
    QString add(const QString &handle, QJsonObject description);
    QString freeAddress() const;

    Context *m_context;
    Adapter *m_unit = nullptr;
    std::map<QString, std::unique_ptr<Phone>> m_phones; ///< by short name
};

#endif
