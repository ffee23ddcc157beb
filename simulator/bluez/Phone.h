#ifndef PHONE_H
#define PHONE_H

#include "Schedule.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

class Adapter;
class Device;
struct Context;

/**
 * A virtual phone: what a person does with it, and how it answers the unit.
 *
 * Every action and state goes to the journal before the daemon notices, with state "link-up",
 * "paired", "stream-open", "playing", "paused", "stream-closed" or "link-down" when it changes one.
 */
class Phone
{
public:
    /// How the phone answers audio connections that the unit makes.
    enum class Answer {
        Accept,
        Ignore, ///< never answers a request
        Refuse, ///< closes the signalling channel
        Reject ///< rejects the stream's configuration
    };

    /// \p description: see PhoneBook, or an earlier toJson().
    Phone(Context *context, const QString &handle, const QJsonObject &description);

    /// Everything about the phone that outlives the daemon.
    QJsonObject toJson() const;
    /// A line for people.
    QString describe() const;
    /// The short name it has at the prompt and in the journal.
    QString handle() const { return m_handle; }
    QString address() const { return m_address; }
    /// The name it shows to others.
    QString bluetoothName() const { return m_name; }
    QString pin() const { return m_pin; }

    /// Has the phone know the unit from before, when its description says so.
    void introduceTo(Adapter *adapter);
    /// The unit's radio is there: it can be reached from now on.
    void setUnit(Adapter *adapter) { m_unit = adapter; }

    /**
     * Does what a person wants: \p verb with its \p arguments. Returns why not, or an empty text
     * when the phone has begun to do it.
     *
     *   pair                pairs, without connecting its audio
     *   connect             connects its audio as a usual phone; pairs first when it is not paired
     *   connect-acl         opens the radio link only
     *   connect-a2dp        connects its audio over a link that is up or comes up; once
     *   connect-signalling  opens the audio connection, but no stream
     *   play, pause         starts and suspends the stream
     *   close               closes the stream
     *   leave               ends everything in order
     *   drop                loses the link at once
     *   out-of-range        cannot be reached any more, nor reach the unit; in-range: again
     *   ignore              never answers the unit's audio requests
     *   refuse              closes the unit's audio connections at once
     *   reject              rejects the unit's stream configuration
     *   accept              accepts again
     *   answer-late MS      answers each audio request that much later
     *   auto-play on|off    whether it plays as soon as a stream is open
     *   forget              forgets its bond with the unit
     *   pin PIN             will pair with another PIN
     */
    QString act(const QString &verb, const QStringList &arguments);

    /// \name What the unit finds
    /// @{
    bool isInRange() const { return m_inRange; }
    /// Whether the signalling channel is closed at once; a link with another key fares the same.
    bool refusesAudio(const QString &key) const;
    bool rejectsConfiguration() const { return m_answer == Answer::Reject; }
    /// Milliseconds until a request is answered; nothing: never.
    std::optional<int> answerDelay() const;
    /// @}

    /// \name What happens to the phone
    /// @{
    void setKey(const QString &key);
    void pairingFinished(bool ok, const QString &why);
    void linkCameUp();
    void linkWentDown(const QString &why);
    void streamOpened();
    void streamClosed(const QString &why);
    void suspendedByUnit();
    /// The unit has not let an audio connection through.
    void refused(const QString &why);
    /// @}

private:
    enum class Stream { None, Paused, Playing };
    using Verb = QString (Phone::*)(const QStringList &);
    using Continuation = std::function<void(Device *)>;

    QString pair(const QStringList &);
    QString connect(const QStringList &);
    QString connectLink(const QStringList &);
    QString connectAudio(const QStringList &);
    QString connectSignalling(const QStringList &);
    QString play(const QStringList &);
    QString pause(const QStringList &);
    QString close(const QStringList &);
    QString leave(const QStringList &);
    QString drop(const QStringList &);
    QString goOutOfRange(const QStringList &);
    QString comeInRange(const QStringList &);
    QString accept(const QStringList &);
    QString ignore(const QStringList &);
    QString refuse(const QStringList &);
    QString reject(const QStringList &);
    QString answerLate(const QStringList &arguments);
    QString forget(const QStringList &);
    QString autoPlay(const QStringList &arguments);
    QString changePin(const QStringList &arguments);

    QString whyUnreachable() const;
    Device *device() const;
    Device *linkedDevice() const;
    bool isBonded() const;
    void openLink(bool announced, const Continuation &then);
    void startPairing(const Continuation &then);
    void openAudio(bool quiet);
    void openAudioWithOldKey();
    void start();
    QString setAnswer(Answer answer, const QString &text);
    void note(const QString &text, const QString &state = QString());

    Context *m_context;
    Adapter *m_unit = nullptr;
    QString m_handle;
    QString m_address;
    QString m_name;
    QString m_pin;
    QString m_audio;
    bool m_known;
    bool m_trusted;
    QString m_key; ///< of the bond with the unit; empty when the phone knows of none
    bool m_inRange;
    bool m_autoPlay;
    Answer m_answer;
    int m_late;
    Stream m_stream = Stream::None;
    Continuation m_afterPairing;
    Timer m_step; ///< between the steps of what a person wants
};

#endif
