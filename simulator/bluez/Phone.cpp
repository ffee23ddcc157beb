#include "Phone.h"

#include "Adapter.h"
#include "Device.h"
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
    const char *arguments;
    QString (Phone::*act)(const QStringList &words);
    const char *help;
};

const QVector<Phone::Verb> Phone::Verbs {
    {"pair", "", &Phone::pair, "pairs, without connecting its audio"},
    {"connect", "", &Phone::connectAsUsual, "pairs if it must, and connects its audio"},
    {"connect-acl", "", &Phone::connectLink, "opens the radio link only"},
    {"connect-a2dp", "", &Phone::connectAudio, "connects its audio, with the bond that it has"},
    {"connect-signalling", "", &Phone::connectSignalling, "opens no stream over its audio"},
    {"play", "", &Phone::play, "starts the stream"},
    {"pause", "", &Phone::pause, "suspends the stream"},
    {"close", "", &Phone::close, "closes the stream"},
    {"leave", "", &Phone::leave, "ends everything in order"},
    {"drop", "", &Phone::drop, "loses the link at once"},
    {"out-of-range", "", &Phone::goOutOfRange, "neither reaches the unit nor is reached"},
    {"in-range", "", &Phone::comeInRange, "can be reached again"},
    {"ignore", "", &Phone::setAnswer, "never answers the unit's audio requests"},
    {"refuse", "", &Phone::setAnswer, "closes the unit's audio connections at once"},
    {"reject", "", &Phone::setAnswer, "rejects the unit's stream configuration"},
    {"accept", "", &Phone::setAnswer, "accepts again"},
    {"answer-late", "MILLISECONDS", &Phone::answerLate, "answers each audio request later"},
    {"auto-play", "on|off", &Phone::autoPlay, "plays as soon as a stream is open"},
    {"forget", "", &Phone::forget, "forgets its bond with the unit"},
    {"pin", "PIN", &Phone::changePin, "will pair with another PIN"}};

Phone::Phone(Adapter &adapter, Journal &journal, const QString &handle, const Traits &traits,
             QObject *parent)
    : QObject(parent)
    , m_adapter(adapter)
    , m_journal(journal)
    , m_handle(handle)
    , m_traits(traits)
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
        lines.append(QString("%1 %2").arg(verb.name, verb.arguments).leftJustified(26) + verb.help);
    return lines.join('\n');
}

QString Phone::act(const QStringList &words)
{
    const auto verb = std::find_if(Verbs.begin(), Verbs.end(), [&words](const Verb &candidate) {
        return words.value(0) == candidate.name;
    });
    if (verb == Verbs.end())
        return unknownWord("verb of a phone", words.value(0), verbs());
    if ((words.size() == 2) != (*verb->arguments != '\0') || words.size() > 2)
        return QString("%1 %2").arg(verb->name, verb->arguments).trimmed();
    return (this->*verb->act)(words);
}

QString Phone::describe() const
{
    QString text =
        QString("%1  %2  \"%3\"  pin %4").arg(m_handle, address(), bluetoothName(), pin());
    if (m_key)
        text += ", paired";
    if (!m_inRange)
        text += ", out of range";
    if (m_answer != "accept")
        text += ", will " + m_answer + " audio";
    if (m_stream != Stream::None)
        text += m_stream == Stream::Playing ? ", playing" : ", stream open";
    else if (linkedDevice())
        text += ", linked";
    return text;
}

// ---- what a person does

QString Phone::pair(const QStringList &)
{
    const QString why = whyUnreachable();
    if (!why.isEmpty())
        return why;
    if (isBonded())
        return m_handle + " is paired already";
    openLink(true, [this](Device *) { startPairing(nullptr); });
    return QString();
}

QString Phone::connectAsUsual(const QStringList &words)
{
    if (isBonded())
        return connectAudio(words);
    const QString why = whyUnreachable();
    if (!why.isEmpty())
        return why;
    openLink(true, [this](Device *) {
        startPairing(
            [this](Device *) { m_step.start(AudioAfterPairing, [this] { openAudio(false); }); });
    });
    return QString();
}

QString Phone::connectLink(const QStringList &)
{
    const QString why = whyUnreachable();
    if (why.isEmpty())
        openLink(true, [](Device *) {});
    return why;
}

QString Phone::connectAudio(const QStringList &)
{
    const QString why = whyNoAudio();
    if (!why.isEmpty())
        return why;
    if (!isBonded()) {
        openAudioWithOldKey();
        return QString();
    }
    const bool wasLinked = linkedDevice();
    // The daemon may hear of the audio connection before it hears of the link.
    const bool isAnnounced = !m_adapter.audioFirst || !device()->hasAudioSource();
    openLink(isAnnounced, [this, wasLinked, isAnnounced](Device *linked) {
        if (wasLinked) {
            openAudio(false);
            return;
        }
        m_step.start(ChannelSetup, [this, linked, isAnnounced] {
            openAudio(false);
            if (!isAnnounced)
                linked->announceConnected();
        });
    });
    return QString();
}

QString Phone::connectSignalling(const QStringList &)
{
    const QString why = whyNoAudio();
    if (!why.isEmpty())
        return why;
    openLink(true, [this](Device *) { m_step.start(ChannelSetup, [this] { openAudio(true); }); });
    return QString();
}

QString Phone::play(const QStringList &)
{
    const QString why = whyNoStream();
    if (!why.isEmpty())
        return why;
    if (m_stream == Stream::Playing)
        return m_handle + " plays already";
    setStream(Stream::Playing);
    device()->audio().phoneStarts();
    return QString();
}

QString Phone::pause(const QStringList &)
{
    if (m_stream != Stream::Playing)
        return m_handle + " does not play";
    setStream(Stream::Paused);
    device()->audio().phoneSuspends();
    return QString();
}

QString Phone::close(const QStringList &)
{
    const QString why = whyNoStream();
    if (why.isEmpty())
        device()->audio().phoneClosesStream();
    return why;
}

QString Phone::leave(const QStringList &)
{
    const QString why = whyNotLinked();
    if (!why.isEmpty())
        return why;
    // Pause, stream, signalling channel, link: each step only if there is something to end.
    if (m_stream == Stream::Playing)
        pause({});
    if (m_stream == Stream::None) {
        closeSignallingAndLeave();
        return QString();
    }
    m_step.start(Reaction, [this] {
        close({});
        m_step.start(Reaction, [this] { closeSignallingAndLeave(); });
    });
    return QString();
}

void Phone::closeSignallingAndLeave()
{
    const auto dropLink = [this] {
        if (Device *linked = linkedDevice())
            linked->dropLink("the phone leaves");
    };
    if (!linkedDevice() || !linkedDevice()->audio().isActive()) {
        dropLink();
        return;
    }
    linkedDevice()->audio().phoneClosesSignalling();
    m_step.start(Reaction, dropLink);
}

QString Phone::drop(const QStringList &)
{
    const QString why = whyNotLinked();
    if (why.isEmpty())
        linkedDevice()->dropLink("the phone drops it");
    return why;
}

QString Phone::goOutOfRange(const QStringList &)
{
    m_inRange = false;
    m_step.stop();
    if (Device *linked = linkedDevice())
        linked->dropLink("the phone is out of range");
    return QString();
}

QString Phone::comeInRange(const QStringList &)
{
    m_inRange = true;
    return QString();
}

QString Phone::setAnswer(const QStringList &words)
{
    m_answer = words.first();
    return QString();
}

QString Phone::answerLate(const QStringList &words)
{
    bool isNumber = false;
    const int late = words.at(1).toInt(&isNumber);
    if (!isNumber || late < 0)
        return "answer-late MILLISECONDS";
    m_late = late;
    return QString();
}

QString Phone::autoPlay(const QStringList &words)
{
    if (words.at(1) != "on" && words.at(1) != "off")
        return "auto-play on|off";
    m_autoPlay = words.at(1) == "on";
    return QString();
}

QString Phone::forget(const QStringList &)
{
    m_key = 0;
    return QString();
}

QString Phone::changePin(const QStringList &words)
{
    m_traits.pin = words.at(1);
    return QString();
}

// ---- how it does that

QString Phone::whyUnreachable() const
{
    if (!m_inRange)
        return m_handle + " is out of range";
    if (!m_adapter.isReady())
        return "the unit's radio is not ready";
    if (!linkedDevice() && !m_adapter.isConnectable())
        return "the unit is not connectable";
    return QString();
}

QString Phone::whyNoAudio() const
{
    const QString why = whyUnreachable();
    if (!why.isEmpty())
        return why;
    if (m_stream != Stream::None)
        return m_handle + " is connected already";
    return m_key ? QString() : m_handle + " is not paired";
}

QString Phone::whyNotLinked() const
{
    return linkedDevice() ? QString() : m_handle + " is not connected";
}

QString Phone::whyNoStream() const
{
    return m_stream == Stream::None ? m_handle + " has no stream to the unit" : QString();
}

Device *Phone::device() const
{
    return m_adapter.device(address());
}

Device *Phone::linkedDevice() const
{
    Device *known = device();
    return known && known->isLinkUp() ? known : nullptr;
}

bool Phone::isBonded() const
{
    return m_key && device() && device()->key() == m_key;
}

void Phone::openLink(bool isAnnounced, const Continuation &then)
{
    m_step.stop();
    if (Device *linked = linkedDevice()) {
        then(linked);
        return;
    }
    m_step.start(LinkSetup, [this, isAnnounced, then] {
        const QString why = whyUnreachable();
        if (!why.isEmpty()) {
            note("no-link", why);
            return;
        }
        Device *known = m_adapter.deviceFor(*this);
        if (!known->isLinkUp())
            known->linkUp(isAnnounced);
        then(known);
    });
}

void Phone::startPairing(const Continuation &then)
{
    Device *linked = linkedDevice();
    if (linked->isPairing())
        return;
    m_afterPairing = then;
    linked->startPairing();
}

void Phone::openAudio(bool quiet)
{
    if (Device *linked = linkedDevice())
        linked->audio().phoneConnects(quiet);
}

void Phone::openAudioWithOldKey()
{
    // The unit has forgotten the phone, which does not know that: the audio channel arrives with a
    // key that the unit lacks, so the unit asks its agent for a PIN.
    if (m_adapter.backend == Adapter::Backend::Management) {
        // The channel is refused meanwhile, and the link is not announced before it has a key.
        openLink(false, [this](Device *linked) {
            startPairing(nullptr);
            linked->addService(Audio::AdvancedUuid);
            note("refused", "the unit has forgotten the bond");
        });
        return;
    }
    // Raw HCI: the channel is let through, and the unit takes the old bond for valid at first.
    openLink(true, [this](Device *linked) {
        openAudio(false);
        linked->announcePaired();
    });
}

void Phone::setStream(Stream stream, const QString &why)
{
    const bool wasOpen = m_stream != Stream::None;
    m_stream = stream;
    note(stream == Stream::None          ? "stream-closed"
             : stream == Stream::Playing ? "playing"
             : wasOpen                   ? "paused"
                                         : "stream-open",
         why);
    emit streamChanged(stream != Stream::None, stream == Stream::Playing);
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

void Phone::pairingFinished(const QString &whyNot)
{
    const Continuation then = m_afterPairing;
    m_afterPairing = nullptr;
    note(whyNot.isEmpty() ? "paired" : "not-paired", whyNot);
    if (whyNot.isEmpty() && then)
        then(linkedDevice());
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
    setStream(Stream::Paused);
    if (!m_autoPlay)
        return;
    m_step.start(AutoPlay, [this] {
        if (m_stream == Stream::Paused)
            play({});
    });
}

void Phone::streamClosed(const QString &why)
{
    if (m_stream != Stream::None)
        setStream(Stream::None, why);
}

void Phone::suspendedByUnit()
{
    setStream(Stream::Paused, "the unit suspends it: nobody takes the stream");
}

void Phone::note(const QString &state, const QString &why)
{
    static const QStringList mishaps {"no-link", "not-paired", "refused"};
    QString line = "* " + m_handle + ' ' + state;
    if (mishaps.contains(state))
        line += ": " + why;
    QJsonObject facts {{"phone", m_handle}, {"state", state}};
    if (!why.isEmpty())
        facts["why"] = why;
    if (const Device *known = device())
        facts["path"] = known->path();
    m_journal.record("phone", "phone", line, facts);
}
