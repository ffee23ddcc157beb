#include "Observer.h"

#include "JournalText.h"

#include <QDeadlineTimer>

#include <cstdio>
#include <stdexcept>
#include <unistd.h>

namespace {

/// Longer than anything on the road of a phone takes.
const int PatienceMs = 30000;

} // namespace

Observer::Observer()
{
    if (!m_hub.connectTo("/run/product/hub", PatienceMs))
        throw std::runtime_error("this is no virtual product; start scripts/run");
    m_hub.follow();
}

QString Observer::tell(const QString &line)
{
    m_hub.tell(line);
    const QDeadlineTimer deadline(PatienceMs);
    while (m_hub.answers.isEmpty()) {
        if (deadline.hasExpired())
            throw std::runtime_error(qPrintable("no answer to: " + line));
        receive(int(deadline.remainingTime()));
    }
    const QJsonObject answer = m_hub.answers.takeFirst();
    if (answer.contains("error"))
        throw std::runtime_error(qPrintable(line + ": " + answer.value("error").toString()));
    return answer.value("ok").toString();
}

QJsonObject Observer::waitFor(const QString &what, const Predicate &predicate)
{
    const QDeadlineTimer deadline(PatienceMs);
    for (;;) {
        while (!m_hub.journal.isEmpty()) {
            const QJsonObject entry = m_hub.journal.takeFirst();
            show(entry);
            if (predicate(entry))
                return entry;
        }
        if (deadline.hasExpired())
            throw std::runtime_error(qPrintable("did not happen: " + what));
        receive(int(deadline.remainingTime()));
    }
}

QJsonObject Observer::waitForLog(const QString &beginning)
{
    return waitFor("\"" + beginning + "\" in the log", [&beginning](const QJsonObject &entry) {
        return entry.value("kind") == "log"
            && entry.value("message").toString().startsWith(beginning);
    });
}

QJsonObject Observer::waitForMessage(const QString &kind, const QString &member)
{
    return waitFor(kind + " of " + member, [&kind, &member](const QJsonObject &entry) {
        return entry.value("kind") == kind && entry.value("member") == member;
    });
}

QJsonObject Observer::waitForPhone(const QString &state)
{
    return waitFor("the phone's " + state, [&state](const QJsonObject &entry) {
        return entry.value("kind") == "phone" && entry.value("state") == state;
    });
}

void Observer::catchUp()
{
    receive(0);
    while (!m_hub.journal.isEmpty())
        show(m_hub.journal.takeFirst());
}

void Observer::receive(int milliseconds)
{
    if (!m_hub.receive(milliseconds) && !m_hub.isConnected())
        throw std::runtime_error("the virtual product has ended");
}

void Observer::show(const QJsonObject &entry) const
{
    if (entry.value("kind") != "log")
        return;
    puts(qPrintable(journalText(entry, isatty(STDOUT_FILENO))));
    fflush(stdout);
}
