#ifndef OBSERVER_H
#define OBSERVER_H

#include "HubClient.h"

#include <functional>

/**
 * Follows the journal of the virtual product that it runs in, shows the service's log as it comes,
 * and tells the product what to do. Trouble is thrown as a std::runtime_error that says what was
 * waited for.
 */
class Observer
{
public:
    using Predicate = std::function<bool(const QJsonObject &entry)>;

    Observer();

    /// Carries out a control line and returns its answer; throws when it is refused.
    QString tell(const QString &line);

    /// Reads on to the first entry that fits; \p what describes it for whoever waits in vain.
    QJsonObject waitFor(const QString &what, const Predicate &predicate);
    /// The same for a log line of the service that begins with a text, without its prefix.
    QJsonObject waitForLog(const QString &beginning);
    /// The same for a message on a bus: kind "call", "reply" or "signal".
    QJsonObject waitForMessage(const QString &kind, const QString &member);
    /// The same for something a phone did, by the state it is in afterwards.
    QJsonObject waitForPhone(const QString &state);

    /// Shows what has come in the meantime.
    void catchUp();

private:
    void receive(int milliseconds);
    void show(const QJsonObject &entry) const;

    HubClient m_hub;
};

#endif
