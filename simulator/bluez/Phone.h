#ifndef PHONE_H
#define PHONE_H

#include "Timer.h"

#include <QStringList>

#include <optional>

class Adapter;
class Device;
class Journal;

/**
 * A virtual phone: what a person does with it, and how it answers the unit. It outlives the daemon.
 *
 * Its states go to the journal before the daemon notices: link-up paired stream-open playing paused
 * stream-closed link-down, and no-link not-paired refused with the reason.
 */
class Phone : public QObject
{
    Q_OBJECT

public:
    /// How it is made: \p audio is the file that it plays.
    struct Traits
    {
        QString address;
        QString name; ///< what it shows to others
        QString pin;
        QString audio;
    };

    Phone(Adapter &adapter, Journal &journal, const QString &handle, const Traits &traits,
          QObject *parent);

    /// What a person can do with it, and a line on each.
    static QStringList verbs();
    static QString help();
    /// Does \p words, a verb with its arguments. Returns why not; empty when it has begun to.
    QString act(const QStringList &words);

    QString handle() const { return m_handle; }
    QString address() const { return m_traits.address; }
    QString bluetoothName() const { return m_traits.name; }
    QString pin() const { return m_traits.pin; }
    QString audio() const { return m_traits.audio; }
    /// Its device in the daemon; null when there is none.
    Device *device() const;
    /// A line for people.
    QString describe() const;
    /// The unit has read its name, and keeps it even without the device.
    bool nameKnown = false;

    /// \name What the unit finds
    /// @{
    bool isInRange() const { return m_inRange; }
    /// Whether it closes the signalling channel at once; a link with another key fares the same.
    bool refusesAudio(int key) const { return m_answer == "refuse" || m_key != key; }
    bool rejectsConfiguration() const { return m_answer == "reject"; }
    /// Milliseconds by which it answers late; nothing: never.
    std::optional<int> answerDelay() const;
    /// @}

    /// \name What happens to it
    /// @{
    /// Has it bonded anew, and returns the key.
    int makeKey();
    /// \p whyNot is empty when it is paired.
    void pairingFinished(const QString &whyNot);
    void linkWentDown(const QString &why);
    void streamOpened();
    void streamClosed(const QString &why);
    void suspendedByUnit();
    /// Writes \p state to the journal, with the reason \p why.
    void note(const QString &state, const QString &why = QString());
    /// @}

signals:
    void streamChanged(bool isOpen, bool playing);

private:
    enum class Stream { None, Paused, Playing };
    struct Verb;
    using Continuation = std::function<void(Device *)>;

    QString pair(const QStringList &);
    QString connectAsUsual(const QStringList &);
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
    QString setAnswer(const QStringList &words);
    QString answerLate(const QStringList &words);
    QString autoPlay(const QStringList &words);
    QString forget(const QStringList &);
    QString changePin(const QStringList &words);

    QString whyUnreachable() const;
    QString whyNoAudio() const;
    QString whyNotLinked() const;
    QString whyNoStream() const;
    Device *linkedDevice() const;
    bool isBonded() const;
    void openLink(bool isAnnounced, const Continuation &then);
    void startPairing(const Continuation &then);
    void openAudio(bool quiet);
    void openAudioWithOldKey();
    void closeSignallingAndLeave();
    void setStream(Stream stream, const QString &why = QString());

    Adapter &m_adapter;
    Journal &m_journal;
    QString m_handle;
    Traits m_traits;
    int m_key = 0; ///< of the bond with the unit; 0 when it knows of none
    bool m_inRange = true;
    bool m_autoPlay = false;
    QString m_answer {"accept"};
    int m_late = 0;
    Stream m_stream = Stream::None;
    Continuation m_afterPairing;
    Timer m_step; ///< between the steps of what a person wants

    static const QVector<Verb> Verbs;
};

#endif
