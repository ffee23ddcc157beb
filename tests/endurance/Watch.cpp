#include "Watch.h"

#include "JournalText.h"

#include <QRegularExpression>

namespace {

const QStringList Children {"bluetoothd", "agent", "pulseaudio"};
/// The 10 s after which a silent phone is reported, less what a timer may be early: 5 per cent.
const double NoPlaySeconds = 9.4;
/// The same of the 15 s for which the service waits for BlueZ.
const double StartSeconds = 14.2;

} // namespace

QString Watch::follow()
{
    const QVector<QJsonObject> entries = m_product.entries({}, m_position);
    m_position += entries.size();
    for (const QJsonObject &entry : entries) {
        const QString wrong = read(entry);
        if (!wrong.isEmpty())
            return wrong + ": " + journalText(entry);
    }
    return findDoubled();
}

void Watch::forget()
{
    m_product.forget();
    m_position = 0;
}

QString Watch::read(const QJsonObject &entry)
{
    const QString kind = entry.value("kind").toString();
    if (kind == "start" || kind == "end")
        return readProcess(entry);
    if (kind == "log")
        return readLog(entry.value("message").toString(), entry.value("time").toDouble());
    if (kind == "reply" && entry.value("member") == "RegisterAgent"
        && entry.value("destinationName") == "agent")
        m_agentRegistered = true;
    const QString text = entry.value("text").toString();
    if (kind == "output" && (text.contains("Sanitizer") || text.contains("runtime error")))
        return "a sanitizer reports";
    return QString();
}

QString Watch::readProcess(const QJsonObject &entry)
{
    const QString program = entry.value("program").toString();
    const int pid = entry.value("pid").toInt();
    if (program == "agent" || program == "bluetoothd")
        m_agentRegistered = false;
    if (entry.value("kind") == "start") {
        m_alive[program].insert(pid);
        if (program == "service") {
            m_endExpected = false;
            m_held.clear();
            m_reconnectPending = false;
            m_restartPending = false;
            m_polls = false;
            m_silentSince = -1;
            m_startingSince = -1;
        }
        return QString();
    }
    m_alive[program].remove(pid);
    return program == "service" && !m_endExpected ? "the service has ended" : QString();
}

QString Watch::readLog(const QString &message, double time)
{
    readSaved(message);
    const QString wrong = readHolding(message);
    return wrong.isEmpty() ? readTimers(message, time) : wrong;
}

/// At most one phone is accepted.
QString Watch::readHolding(const QString &message)
{
    static const QRegularExpression device("^Device (\\S+) (.*)$");
    const QRegularExpressionMatch match = device.match(message);
    if (message == "forceSyncDown") {
        m_held.clear();
    } else if (match.captured(2) == "CONNECTED AND ACCEPTED") {
        if (!m_held.isEmpty() && m_held != match.captured(1))
            return "accepted beside " + m_held;
        m_held = match.captured(1);
    } else if (match.hasMatch() && match.captured(1) == m_held) {
        m_held.clear();
    }
    return QString();
}

/// No timer outlives what it is for.
QString Watch::readTimers(const QString &message, double time)
{
    if (message.startsWith("try to start pulseaudio for "))
        m_polls = true;
    else if (message == "there is step to start pulseaudio running"
             || message == "stop pulseaudio because not used any more")
        m_polls = false;
    else if (!m_polls
             && (message.startsWith("wait pulseaudio ") || message.contains("pactl load-module ")))
        return "nobody waits for pulseaudio";

    if (message.startsWith("bluezDown down"))
        m_restartPending = true;
    else if (message == "startStartupSequence requested")
        m_restartPending = false;
    else if (message == "bluez started and wait registration")
        m_startingSince = time;
    else if (message.startsWith("bluez service registered"))
        m_startingSince = -1;
    else if (message.startsWith("bluez service timeout")
             && (m_startingSince < 0 || time - m_startingSince < StartSeconds))
        return "nobody has waited for BlueZ for so long";

    if (message == "load timer for reconnect"
        || (message.startsWith("trust for ") && message.endsWith(" is true"))) {
        m_reconnectPending = true;
    } else if (message == "reconnect") {
        if (!m_reconnectPending)
            return "nobody is to be connected again";
        m_reconnectPending = false;
    }
    return readSilence(message, time);
}

/// The same of the timer of a phone that is connected and silent.
QString Watch::readSilence(const QString &message, double time)
{
    static const QRegularExpression change("^AudioSourcePropertyChanged \\(\\S+\\)(\\S+) State=");
    const QString source = change.match(message).captured(1);
    if (message == "start/restart timer for no play") {
        m_silentSince = time;
        m_silentSource = m_changedSource;
    } else if (message.startsWith("Disconnect /")) {
        m_silentBefore = m_silentSince;
        m_silentSince = -1;
    } else if (message.startsWith("disconnectDevice ")
               && message.endsWith("connected but error on it")) {
        m_silentSince = m_silentBefore;
    } else if (message == "forceSyncDown" || (!source.isEmpty() && source == m_silentSource)) {
        m_silentSince = -1;
    } else if (message == "CONNECTED BUT NOT PLAYING") {
        if (m_silentSince < 0 || time - m_silentSince < NoPlaySeconds)
            return "nobody has been silent for so long";
        m_silentSince = time;
    }
    if (!source.isEmpty())
        m_changedSource = source;
    return QString();
}

void Watch::readSaved(const QString &message)
{
    static const QRegularExpression saved("^(Enable|PID) SAVED \\((.*)\\)$");
    const QRegularExpressionMatch match = saved.match(message);
    if (match.captured(1) == "Enable")
        m_saved.insert("BLUETOOTH/bt-enable", match.captured(2) == "true" ? "1" : "0");
    else if (match.hasMatch())
        m_saved.insert("BLUETOOTH/bt-pid", match.captured(2));
}

/// No child is there twice. The journal may hear of a process' end after the next one's start.
QString Watch::findDoubled()
{
    for (const QString &child : Children) {
        while (m_alive.value(child).size() > 1) {
            m_product.rewind(m_position);
            const QJsonObject end = m_product.expect(
                child + " is there twice", [this, &child](const QJsonObject &entry) {
                    return entry.value("kind") == "end" && entry.value("program") == child
                        && m_alive.value(child).contains(entry.value("pid").toInt());
                });
            if (end.isEmpty())
                return child + " is there twice";
            m_alive[child].remove(end.value("pid").toInt());
        }
    }
    return QString();
}
