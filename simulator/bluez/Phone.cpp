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

using Text = const QString &;

struct Phone::Verb
{
    const char *name;
    const char *argument;
    Needs needs;
    const char *help;
    void (*act)(Phone &phone, Text argument);
};

const QVector<Phone::Verb> Phone::Verbs {
    {"pair", "", Needs::NoBond, "pairs, without connecting its audio",
     [](Phone &phone, Text) { phone.openLink(true, [&] { phone.startPairing(nullptr); }); }},
    {"connect", "", Needs::Unit, "connects its audio as a usual phone, pairs if it must",
     [](Phone &phone, Text) { phone.connectAsUsual(); }},
    {"connect-acl", "", Needs::Unit, "opens the radio link only",
     [](Phone &phone, Text) { phone.openLink(true, [] {}); }},
    {"connect-a2dp", "", Needs::Audio, "connects its audio, with the bond that it has",
     [](Phone &phone, Text) { phone.connectAudio(); }},
    {"connect-signalling", "", Needs::Audio, "connects its audio, but opens no stream",
     [](Phone &phone, Text) {
         phone.openLink(true, [&] { phone.device.audio().phoneConnects(true); });
     }},
    {"play", "", Needs::Paused, "starts the stream", [](Phone &phone, Text) { phone.play(); }},
    {"pause", "", Needs::Playing, "suspends the stream", [](Phone &phone, Text) { phone.pause(); }},
    {"close", "", Needs::Open, "closes the stream",
     [](Phone &phone, Text) { phone.device.audio().closeStream(); }},
    {"leave", "", Needs::Link, "ends everything in order",
     [](Phone &phone, Text) { phone.leave(); }},
    {"drop", "", Needs::Link, "loses the link at once",
     [](Phone &phone, Text) { phone.device.dropLink("the phone drops it"); }},
    {"out-of-range", "", Needs::Nothing, "cannot be reached any more, nor reach the unit",
     [](Phone &phone, Text) {
         phone.isInRange = false;
         phone.m_step.stop();
         phone.device.dropLink("the phone is out of range");
     }},
    {"in-range", "", Needs::Nothing, "can be reached again",
     [](Phone &phone, Text) { phone.isInRange = true; }},
    {"ignore", "", Needs::Nothing, "will never answer the unit's audio requests",
     [](Phone &phone, Text) { phone.m_answer = "ignore"; }},
    {"refuse", "", Needs::Nothing, "will close the unit's audio connections at once",
     [](Phone &phone, Text) { phone.m_answer = "refuse"; }},
    {"reject", "", Needs::Nothing, "will reject the unit's stream configuration",
     [](Phone &phone, Text) { phone.m_answer = "reject"; }},
    {"accept", "", Needs::Nothing, "will accept again",
     [](Phone &phone, Text) { phone.m_answer = "accept"; }},
    {"answer-late", "MILLISECONDS", Needs::Nothing, "will answer each audio request that late",
     [](Phone &phone, Text argument) { phone.m_late = argument.toInt(); }},
    {"auto-play", "on|off", Needs::Nothing, "whether it plays as soon as a stream is open",
     [](Phone &phone, Text argument) { phone.m_autoPlay = argument == "on"; }},
    {"forget", "", Needs::Nothing, "forgets its bond with the unit",
     [](Phone &phone, Text) { phone.isBonded = false; }},
    {"pin", "PIN", Needs::Nothing, "will pair with another PIN",
     [](Phone &phone, Text argument) { phone.traits.pin = argument; }}};

Phone::Phone(Adapter &adapter, Journal &journal, const Traits &traitsOfIt, QObject *parent)
    : QObject(parent)
    , traits(traitsOfIt)
    , device(adapter, *this)
    , m_adapter(adapter)
    , m_journal(journal)
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
        return unknownWord("phone verb", words.value(0), verbs());
    const QString wanted = verb->argument;
    const QString argument = words.value(1);
    bool fits = argument.isEmpty() == wanted.isEmpty() && words.size() <= 2;
    if (fits && wanted == "MILLISECONDS")
        fits = argument.toInt(&fits) >= 0 && fits;
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
                       .arg(traits.handle, traits.address, traits.name, traits.pin);
    if (isBonded)
        text += ", paired";
    if (!isInRange)
        text += ", out of range";
    if (m_answer != "accept")
        text += ", will " + m_answer + " audio";
    if (m_stream != Stream::None)
        text += m_stream == Stream::Playing ? ", playing" : ", stream open";
    else if (device.isLinkUp())
        text += ", linked";
    return text;
}

// ---- what a person does

QString Phone::whyNot(Needs needs) const
{
    const bool isOpen = m_stream != Stream::None;
    const bool needsUnit = needs == Needs::Unit || needs == Needs::NoBond || needs == Needs::Audio;
    if (needsUnit && !isInRange)
        return traits.handle + " is out of range";
    if (needsUnit && !m_adapter.isReady())
        return "the unit's radio is not ready";
    if (needsUnit && !device.isLinkUp() && !m_adapter.isConnectable())
        return "the unit is not connectable";
    if (needs == Needs::NoBond && isBonded && device.isBonded())
        return traits.handle + " is paired already";
    if (needs == Needs::Audio && isOpen)
        return traits.handle + " is connected already";
    if (needs == Needs::Audio && !isBonded)
        return traits.handle + " is not paired";
    if (needs == Needs::Link && !device.isLinkUp())
        return traits.handle + " is not connected";
    if ((needs == Needs::Open || needs == Needs::Paused) && !isOpen)
        return traits.handle + " has no stream to the unit";
    if (needs == Needs::Paused && m_stream == Stream::Playing)
        return traits.handle + " plays already";
    if (needs == Needs::Playing && m_stream != Stream::Playing)
        return traits.handle + " does not play";
    return QString();
}

void Phone::connectAsUsual()
{
    if (isBonded && device.isBonded()) {
        connectAudio();
        return;
    }
    openLink(true, [this] {
        startPairing([this] {
            m_step.start(AudioAfterPairing, [this] { device.audio().phoneConnects(false); });
        });
    });
}

void Phone::connectAudio()
{
    if (!device.isBonded()) {
        openAudioWithOldBond();
        return;
    }
    // The daemon may hear of the audio connection before it hears of the link.
    const bool isAnnounced = !m_adapter.audioFirst || !device.hasService(Audio::SourceUuid);
    const bool isLinked = device.isLinkUp();
    openLink(isAnnounced, [this, isAnnounced, isLinked] {
        m_step.start(ChannelSetup, [this, isAnnounced, isLinked] {
            device.audio().phoneConnects(false);
            if (!isAnnounced && !isLinked)
                device.announceConnected();
        });
    });
}

void Phone::openAudioWithOldBond()
{
    // The unit has forgotten the phone, which does not know that: the audio channel arrives with a
    // key that the unit lacks, so the unit asks its agent for a PIN.
    if (m_adapter.backend == Adapter::Backend::Management) {
        // The channel is refused meanwhile, and the link is not announced before it has a key.
        openLink(false, [this] {
            startPairing(nullptr);
            device.addService(Audio::AdvancedUuid);
            note("refused", "the unit has forgotten the bond");
        });
        return;
    }
    // Raw HCI: the channel is let through, and the unit takes the old bond for valid at first.
    openLink(true, [this] {
        device.audio().phoneConnects(false);
        device.announcePaired();
    });
}

void Phone::openLink(bool isAnnounced, const Timer::Action &then)
{
    m_step.stop();
    if (device.isLinkUp()) {
        then();
        return;
    }
    m_step.start(LinkSetup, [this, isAnnounced, then] {
        const QString refusal = whyNot(Needs::Unit);
        if (!refusal.isEmpty()) {
            note("no-link", refusal);
            return;
        }
        if (!device.isLinkUp())
            device.linkUp(isAnnounced);
        then();
    });
}

void Phone::startPairing(const Timer::Action &then)
{
    m_afterPairing = then;
    if (!device.isPairing())
        device.startPairing();
}

void Phone::play()
{
    setStream(Stream::Playing);
    device.audio().phoneStarts();
}

void Phone::pause()
{
    setStream(Stream::Paused);
    device.audio().phoneSuspends();
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
        device.audio().closeStream();
        m_step.start(Reaction, [this] { closeSignallingAndLeave(); });
    });
}

void Phone::closeSignallingAndLeave()
{
    const auto dropLink = [this] { device.dropLink("the phone leaves"); };
    if (!device.audio().isActive()) {
        dropLink();
        return;
    }
    device.audio().hangUp();
    m_step.start(Reaction, dropLink);
}

// ---- what the unit finds and does

std::optional<int> Phone::answerDelay() const
{
    return m_answer == "ignore" ? std::nullopt : std::optional<int>(m_late);
}

void Phone::pairingFinished(const QString &whyNotPaired)
{
    const Timer::Action then = m_afterPairing;
    m_afterPairing = nullptr;
    if (whyNotPaired.isEmpty())
        isBonded = true;
    note(whyNotPaired.isEmpty() ? "paired" : "not-paired", whyNotPaired);
    if (whyNotPaired.isEmpty() && then)
        then();
}

void Phone::linkWentDown(const QString &why)
{
    m_step.stop();
    m_afterPairing = nullptr;
    setStream(Stream::None, "the link is gone");
    note("link-down", why);
}

void Phone::setStream(Stream stream, const QString &why)
{
    if (stream == m_stream)
        return;
    const bool wasOpen = m_stream != Stream::None;
    m_stream = stream;
    note(stream == Stream::None          ? "stream-closed"
             : stream == Stream::Playing ? "playing"
             : wasOpen                   ? "paused"
                                         : "stream-open",
         why);
    emit streamChanged(traits.handle, stream == Stream::None ? QString() : device.path(),
                       traits.audio, stream == Stream::Playing);
    if (!wasOpen && m_autoPlay)
        m_step.start(AutoPlay, [this] {
            if (m_stream == Stream::Paused)
                play();
        });
}

void Phone::note(const QString &state, const QString &why)
{
    static const QStringList mishaps {"no-link", "not-paired", "refused"};
    QJsonObject facts {{"phone", traits.handle}, {"state", state}, {"path", device.path()}};
    if (!why.isEmpty())
        facts["why"] = why;
    const QString line = "* " + traits.handle + ' ' + state;
    m_journal.record("phone", "phone", mishaps.contains(state) ? line + ": " + why : line, facts);
}
