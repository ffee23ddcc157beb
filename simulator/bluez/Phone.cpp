#include "Phone.h"

#include "core/Journal.h"
#include "core/Words.h"

#include <QJsonObject>

#include <algorithm>

namespace {

// Milliseconds of product time.
const int LinkSetup = 40;
const int ChannelSetup = 20;
const int Reaction = 100; ///< between two steps of its own
const int AudioAfterPairing = 500; ///< of a usual phone
const int AutoPlay = 350; ///< from an open stream to one that plays by itself

} // namespace

struct Phone::Verb
{
    const char *name;
    const char *argument;
    const char *help;
    Needs needs;
    void (*act)(Phone &phone, const QString &argument);
};

const QVector<Phone::Verb> Phone::Verbs {
    {"pair", "", "pairs, without connecting its audio", Needs::NoBond,
     [](Phone &phone, const QString &) {
         phone.openLink(true, [&phone] { phone.startPairing(nullptr); });
     }},
    {"connect", "", "connects its audio as a usual phone, pairs if it must", Needs::Unit,
     [](Phone &phone, const QString &) { phone.connect(); }},
    {"connect-acl", "", "opens the radio link only", Needs::Unit,
     [](Phone &phone, const QString &) { phone.openLink(true, [] {}); }},
    {"connect-a2dp", "", "connects its audio, with the bond that it has", Needs::Audio,
     [](Phone &phone, const QString &) { phone.connectAudio(); }},
    {"connect-signalling", "", "connects its audio, but opens no stream", Needs::Audio,
     [](Phone &phone, const QString &) {
         phone.openLink(true, [&phone] { phone.m_device.audio().phoneConnects(true); });
     }},
    {"play", "", "starts the stream", Needs::Paused,
     [](Phone &phone, const QString &) { phone.play(); }},
    {"pause", "", "suspends the stream", Needs::Playing,
     [](Phone &phone, const QString &) { phone.pause(); }},
    {"close", "", "closes the stream", Needs::Open,
     [](Phone &phone, const QString &) { phone.m_device.audio().closeStream(); }},
    {"leave", "", "ends everything in order", Needs::Link,
     [](Phone &phone, const QString &) { phone.leave(); }},
    {"drop", "", "loses the link at once", Needs::Link,
     [](Phone &phone, const QString &) { phone.m_device.dropLink("the phone drops it"); }},
    {"out-of-range", "", "cannot be reached any more, nor reach the unit", Needs::Nothing,
     [](Phone &phone, const QString &) {
         phone.m_inRange = false;
         phone.m_step.stop();
         phone.m_device.dropLink("the phone is out of range");
     }},
    {"in-range", "", "can be reached again", Needs::Nothing,
     [](Phone &phone, const QString &) { phone.m_inRange = true; }},
    {"ignore", "", "will never answer the unit's audio requests", Needs::Nothing,
     [](Phone &phone, const QString &) { phone.m_answer = "ignore"; }},
    {"refuse", "", "will close the unit's audio connections at once", Needs::Nothing,
     [](Phone &phone, const QString &) { phone.m_answer = "refuse"; }},
    {"reject", "", "will reject the unit's stream configuration", Needs::Nothing,
     [](Phone &phone, const QString &) { phone.m_answer = "reject"; }},
    {"accept", "", "will accept again", Needs::Nothing,
     [](Phone &phone, const QString &) { phone.m_answer = "accept"; }},
    {"answer-late", "MILLISECONDS", "will answer each audio request that much later",
     Needs::Nothing,
     [](Phone &phone, const QString &argument) { phone.m_late = argument.toInt(); }},
    {"auto-play", "on|off", "whether it plays as soon as a stream is open", Needs::Nothing,
     [](Phone &phone, const QString &argument) { phone.m_autoPlay = argument == "on"; }},
    {"forget", "", "forgets its bond with the unit", Needs::Nothing,
     [](Phone &phone, const QString &) { phone.m_key = 0; }},
    {"pin", "PIN", "will pair with another PIN", Needs::Nothing,
     [](Phone &phone, const QString &argument) { phone.m_traits.pin = argument; }}};

Phone::Phone(Adapter &adapter, Journal &journal, const Traits &traits, QObject *parent)
    : QObject(parent)
    , m_adapter(adapter)
    , m_journal(journal)
    , m_traits(traits)
    , m_device(adapter, *this)
    , m_step(adapter.clock, this)
{
}

QStringList Phone::verbs()
{
    QStringList names;
    for (const Verb &verb : Verbs)
        names.append(verb.name);
    return names;
}

QString Phone::help()
{
    QStringList lines;
    for (const Verb &verb : Verbs)
        lines.append(QString("%1 %2").arg(verb.name, verb.argument).leftJustified(26) + verb.help);
    return lines.join('\n');
}

QString Phone::act(const QStringList &words)
{
    const auto verb = std::find_if(Verbs.begin(), Verbs.end(), [&](const Verb &candidate) {
        return words.value(0) == candidate.name;
    });
    if (verb == Verbs.end())
        return unknownWord("verb of phones", words.value(0), verbs());
    const QString wanted = verb->argument;
    const QString argument = words.value(1);
    bool fits = argument.isEmpty() == wanted.isEmpty() && words.size() <= 2;
    if (fits && wanted == "MILLISECONDS")
        fits = argument.toUInt(&fits) <= INT_MAX && fits;
    else if (fits && wanted.contains('|'))
        fits = wanted.split('|').contains(argument);
    if (!fits)
        return QString("%1 %2").arg(verb->name, wanted).trimmed();
    const QString refusal = whyNot(verb->needs);
    if (refusal.isEmpty())
        verb->act(*this, argument);
    return refusal;
}

QString Phone::describe() const
{
    QString text = QString("%1  %2  \"%3\"  pin %4")
                       .arg(m_traits.handle, m_traits.address, m_traits.name, m_traits.pin);
    if (m_key)
        text += ", paired";
    if (!m_inRange)
        text += ", out of range";
    if (m_answer != "accept")
        text += ", will " + m_answer + " audio";
    if (m_stream != Stream::None)
        text += m_stream == Stream::Playing ? ", playing" : ", stream open";
    else if (m_device.isLinkUp())
        text += ", linked";
    return text;
}

// ---- what a person does

QString Phone::whyNot(Needs needs) const
{
    const bool isOpen = m_stream != Stream::None;
    const bool needsUnit = needs == Needs::Unit || needs == Needs::NoBond || needs == Needs::Audio;
    if (needsUnit && !m_inRange)
        return m_traits.handle + " is out of range";
    if (needsUnit && !m_adapter.isReady())
        return "the unit's radio is not ready";
    if (needsUnit && !m_device.isLinkUp() && !m_adapter.isConnectable())
        return "the unit is not connectable";
    if (needs == Needs::NoBond && isBonded())
        return m_traits.handle + " is paired already";
    if (needs == Needs::Audio && isOpen)
        return m_traits.handle + " is connected already";
    if (needs == Needs::Audio && !m_key)
        return m_traits.handle + " is not paired";
    if (needs == Needs::Link && !m_device.isLinkUp())
        return m_traits.handle + " is not connected";
    if ((needs == Needs::Open || needs == Needs::Paused) && !isOpen)
        return m_traits.handle + " has no stream to the unit";
    if (needs == Needs::Paused && m_stream == Stream::Playing)
        return m_traits.handle + " plays already";
    if (needs == Needs::Playing && m_stream != Stream::Playing)
        return m_traits.handle + " does not play";
    return QString();
}

void Phone::connect()
{
    if (isBonded()) {
        connectAudio();
        return;
    }
    openLink(true, [this] {
        startPairing([this] {
            m_step.start(AudioAfterPairing, [this] { m_device.audio().phoneConnects(false); });
        });
    });
}

void Phone::connectAudio()
{
    if (!isBonded()) {
        openAudioWithOldKey();
        return;
    }
    // The daemon may hear of the audio connection before it hears of the link.
    const bool isAnnounced = !m_adapter.audioFirst || !m_device.hasService(Audio::SourceUuid);
    const bool isLinked = m_device.isLinkUp();
    openLink(isAnnounced, [this, isAnnounced, isLinked] {
        m_step.start(ChannelSetup, [this, isAnnounced, isLinked] {
            m_device.audio().phoneConnects(false);
            if (!isAnnounced && !isLinked)
                m_device.announceConnected();
        });
    });
}

void Phone::openAudioWithOldKey()
{
    // The unit has forgotten the phone, which does not know that: the audio channel arrives with a
    // key that the unit lacks, so the unit asks its agent for a PIN.
    if (m_adapter.backend == Adapter::Backend::Management) {
        // The channel is refused meanwhile, and the link is not announced before it has a key.
        openLink(false, [this] {
            startPairing(nullptr);
            m_device.addService(Audio::AdvancedUuid);
            note("refused", "the unit has forgotten the bond");
        });
        return;
    }
    // Raw HCI: the channel is let through, and the unit takes the old bond for valid at first.
    openLink(true, [this] {
        m_device.audio().phoneConnects(false);
        m_device.announcePaired();
    });
}

void Phone::openLink(bool isAnnounced, const Timer::Action &then)
{
    m_step.stop();
    if (m_device.isLinkUp()) {
        then();
        return;
    }
    m_step.start(LinkSetup, [this, isAnnounced, then] {
        const QString refusal = whyNot(Needs::Unit);
        if (!refusal.isEmpty()) {
            note("no-link", refusal);
            return;
        }
        if (!m_device.isLinkUp())
            m_device.linkUp(isAnnounced);
        then();
    });
}

void Phone::startPairing(const Timer::Action &then)
{
    m_afterPairing = then;
    if (!m_device.isPairing())
        m_device.startPairing();
}

void Phone::play()
{
    setStream(Stream::Playing, "playing");
    m_device.audio().phoneStarts();
}

void Phone::pause()
{
    setStream(Stream::Paused, "paused");
    m_device.audio().phoneSuspends();
}

void Phone::leave()
{
    // Pause, stream, signalling channel, link: each step only if there is something to end.
    if (m_stream == Stream::Playing)
        pause();
    if (m_stream == Stream::None) {
        closeSignallingAndLeave();
        return;
    }
    m_step.start(Reaction, [this] {
        m_device.audio().closeStream();
        m_step.start(Reaction, [this] { closeSignallingAndLeave(); });
    });
}

void Phone::closeSignallingAndLeave()
{
    const auto dropLink = [this] { m_device.dropLink("the phone leaves"); };
    if (!m_device.audio().isActive()) {
        dropLink();
        return;
    }
    m_device.audio().hangUp();
    m_step.start(Reaction, dropLink);
}

// ---- what the unit finds and does

std::optional<int> Phone::answerDelay() const
{
    return m_answer == "ignore" ? std::nullopt : std::optional<int>(m_late);
}

int Phone::makeKey()
{
    static int lastKey = 0;
    m_key = ++lastKey;
    return m_key;
}

void Phone::pairingFinished(const QString &whyNotPaired)
{
    const Timer::Action then = m_afterPairing;
    m_afterPairing = nullptr;
    note(whyNotPaired.isEmpty() ? "paired" : "not-paired", whyNotPaired);
    if (whyNotPaired.isEmpty() && then)
        then();
}

void Phone::linkWentDown(const QString &why)
{
    m_step.stop();
    m_afterPairing = nullptr;
    streamClosed("the link is gone");
    note("link-down", why);
}

void Phone::streamOpened()
{
    setStream(Stream::Paused, "stream-open");
    if (m_autoPlay)
        m_step.start(AutoPlay, [this] {
            if (m_stream == Stream::Paused)
                play();
        });
}

void Phone::streamClosed(const QString &why)
{
    if (m_stream != Stream::None)
        setStream(Stream::None, "stream-closed", why);
}

void Phone::suspendedByUnit()
{
    setStream(Stream::Paused, "paused", "the unit suspends it: nobody takes the stream");
}

void Phone::setStream(Stream stream, const char *state, const QString &why)
{
    m_stream = stream;
    note(state, why);
    emit streamChanged(m_traits.handle, stream == Stream::None ? QString() : m_device.path(),
                       m_traits.audio, stream == Stream::Playing);
}

void Phone::note(const QString &state, const QString &why)
{
    static const QStringList mishaps {"no-link", "not-paired", "refused"};
    QJsonObject facts {{"phone", m_traits.handle}, {"state", state}, {"path", m_device.path()}};
    if (!why.isEmpty())
        facts["why"] = why;
    const QString line = "* " + m_traits.handle + ' ' + state;
    m_journal.record("phone", "phone", mishaps.contains(state) ? line + ": " + why : line, facts);
}
