#ifndef PHONE_H
#define PHONE_H

#include "Device.h"

#include <QStringList>

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
    enum class Stream { None, Paused, Playing };
    struct Traits
    {
        QString handle; ///< what people here call it
        QString address;
        QString name; ///< what it shows to others
        QString pin;
        QString audio; ///< the file that it plays
    };

    Phone(Adapter &adapter, Journal &journal, const Traits &traitsOfIt, QObject *parent);

    Traits traits;
    Device device; ///< what the unit knows of it
    bool isBonded = false; ///< as far as the phone knows
    bool isInRange = true;

    /// What a person can do with it.
    static QStringList verbs();
    /// A line on each of them.
    static QString help();
    /// Does \p words, a verb with its argument. Returns why not; empty when it has begun to.
    QString act(const QStringList &words);
    /// A line for people.
    QString describe() const;

    /// Closes the signalling channel at once, as it does without the bond.
    bool refusesAudio() const { return m_answer == "refuse" || !isBonded; }
    bool rejectsConfiguration() const { return m_answer == "reject"; }
    /// Milliseconds by which it answers late; nothing: never.
    std::optional<int> answerDelay() const;

    /// \p whyNotPaired is empty when it is paired.
    void pairingFinished(const QString &whyNotPaired);
    void linkWentDown(const QString &why);
    void setStream(Stream stream, const QString &why = QString());
    /// Writes \p state to the journal, with the reason \p why.
    void note(const QString &state, const QString &why = QString());

signals:
    /// As BlueZ::phonePlays().
    void streamChanged(const QString &handle, const QString &devicePath, const QString &audioFile,
                       bool playing);

private:
    /// What must be so before a person can do something.
    enum class Needs { Nothing, Unit, NoBond, Audio, Link, Open, Paused, Playing };
    struct Verb;
    static const QVector<Verb> Verbs;

    QString whyNot(Needs needs) const;
    void connectAsUsual();
    void connectAudio();
    void openAudioWithOldBond();
    void openLink(bool isAnnounced, const Timer::Action &then);
    void startPairing(const Timer::Action &then);
    void play();
    void pause();
    void leave();
    void closeSignallingAndLeave();

    Adapter &m_adapter;
    Journal &m_journal;
    bool m_autoPlay = false;
    QString m_answer {"accept"};
    int m_late = 0;
    Stream m_stream = Stream::None;
    Timer::Action m_afterPairing;
    Timer m_step; ///< between the steps of what a person wants
};

#endif
