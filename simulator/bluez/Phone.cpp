#include "Phone.h"

#include "Adapter.h"
#include "Context.h"
#include "Device.h"
#include "Durations.h"
#include "PhoneBook.h"
#include "Uuids.h"

#include <QHash>
#include <QUuid>

namespace {

/// In the order of Phone::Answer.
const QStringList AnswerNames {"accept", "ignore", "refuse", "reject"};

} // namespace

Phone::Phone(Context *context, const QString &handle, const QJsonObject &description)
    : m_context(context)
    , m_handle(handle)
    , m_address(description.value("address").toString())
    , m_name(description.value("name").toString())
    , m_pin(description.value("pin").toString())
    , m_audio(description.value("audio").toString())
    , m_known(description.value("known").toBool())
    , m_trusted(description.value("trusted").toBool())
    , m_key(description.value("key").toString())
    , m_inRange(description.value("in-range").toBool(true))
    , m_autoPlay(description.value("auto-play").toBool())
    , m_answer(Answer(qMax(0, AnswerNames.indexOf(description.value("answer").toString()))))
    , m_late(description.value("answer-late").toInt())
    , m_step(&context->schedule)
{
}

QJsonObject Phone::toJson() const
{
    return {{"address", m_address},
            {"name", m_name},
            {"pin", m_pin},
            {"audio", m_audio},
            {"known", m_known},
            {"trusted", m_trusted},
            {"key", m_key},
            {"in-range", m_inRange},
            {"auto-play", m_autoPlay},
            {"answer", AnswerNames.at(int(m_answer))},
            {"answer-late", m_late}};
}

QString Phone::describe() const
{
    const QString stream = m_stream == Stream::Playing ? ", playing"
        : m_stream == Stream::Paused                   ? ", stream open"
        : linkedDevice()                               ? ", linked"
                                                       : "";
    return QStringLiteral("%1  %2  \"%3\"  pin %4%5%6%7%8")
        .arg(m_handle, m_address, m_name, m_pin, m_key.isEmpty() ? "" : ", paired",
             m_inRange ? "" : ", out of range",
             m_answer == Answer::Accept ? QString()
                                        : ", will " + AnswerNames.at(int(m_answer)) + " audio",
             stream);
}

void Phone::introduceTo(Adapter *adapter)
{
    if (!m_known)
        return;
    m_known = false;
    if (const Device *stored = adapter->device(m_address)) {
        setKey(stored->key());
        return;
    }
    setKey(QString::fromLatin1(QUuid::createUuid().toRfc4122().toHex()));
    adapter->introduce(this, m_key, m_trusted);
}

QString Phone::act(const QString &verb, const QStringList &arguments)
{
    static const QHash<QString, Verb> verbs {{"pair", &Phone::pair},
                                             {"connect", &Phone::connect},
                                             {"connect-acl", &Phone::connectLink},
                                             {"connect-a2dp", &Phone::connectAudio},
                                             {"connect-signalling", &Phone::connectSignalling},
                                             {"play", &Phone::play},
                                             {"pause", &Phone::pause},
                                             {"close", &Phone::close},
                                             {"leave", &Phone::leave},
                                             {"drop", &Phone::drop},
                                             {"out-of-range", &Phone::goOutOfRange},
                                             {"in-range", &Phone::comeInRange},
                                             {"accept", &Phone::accept},
                                             {"ignore", &Phone::ignore},
                                             {"refuse", &Phone::refuse},
                                             {"reject", &Phone::reject},
                                             {"answer-late", &Phone::answerLate},
                                             {"forget", &Phone::forget},
                                             {"auto-play", &Phone::autoPlay},
                                             {"pin", &Phone::changePin}};
    const auto known = verbs.constFind(verb);
    if (known == verbs.constEnd()) {
        QStringList names = verbs.keys();
        names.sort();
        return "a phone can: " + names.join(' ');
    }
    return (this->**known)(arguments);
}

// ---- what a person does

QString Phone::pair(const QStringList &)
{
    const QString why = whyUnreachable();
    if (!why.isEmpty())
        return why;
    if (isBonded())
        return m_handle + " is paired already";
    note("wants to pair");
    openLink(true, [this](Device *) { startPairing(nullptr); });
    return QString();
}

QString Phone::connect(const QStringList &)
{
    const QString why = whyUnreachable();
    if (!why.isEmpty())
        return why;
    if (m_stream != Stream::None)
        return m_handle + " is connected already";
    if (isBonded())
        return connectAudio({});
    note("wants to connect");
    openLink(true, [this](Device *) {
        // As a usual phone: it pairs first, then opens its audio connection.
        startPairing([this](Device *) {
            m_step.start(Durations::AudioAfterPairing, [this] { openAudio(false); });
        });
    });
    return QString();
}

QString Phone::connectLink(const QStringList &)
{
    const QString why = whyUnreachable();
    if (!why.isEmpty())
        return why;
    note("wants to connect, without audio");
    openLink(true, [](Device *) {});
    return QString();
}

QString Phone::connectAudio(const QStringList &)
{
    const QString why = whyUnreachable();
    if (!why.isEmpty())
        return why;
    if (m_stream != Stream::None)
        return m_handle + " is connected already";
    if (m_key.isEmpty())
        return m_handle + " is not paired";
    note("wants to connect its audio");
    if (!isBonded()) {
        openAudioWithOldKey();
        return QString();
    }
    const bool linked = linkedDevice();
    // The daemon may hear of the audio connection before it hears of the link.
    const bool announced = !m_context->options.showsOtherOrder() || !device()->source().exists();
    openLink(announced, [this, linked, announced](Device *device) {
        if (linked) {
            openAudio(false);
            return;
        }
        m_step.start(Durations::ChannelSetup, [this, device, announced] {
            openAudio(false);
            if (!announced)
                device->announceConnected();
        });
    });
    return QString();
}

QString Phone::connectSignalling(const QStringList &)
{
    const QString why = whyUnreachable();
    if (!why.isEmpty())
        return why;
    if (!isBonded())
        return m_handle + " is not paired";
    note("wants to open its audio signalling only");
    openLink(true, [this](Device *) {
        m_step.start(Durations::ChannelSetup, [this] { openAudio(true); });
    });
    return QString();
}

QString Phone::play(const QStringList &)
{
    if (m_stream == Stream::None)
        return m_handle + " has no stream to the unit";
    if (m_stream == Stream::Playing)
        return m_handle + " plays already";
    start();
    return QString();
}

QString Phone::pause(const QStringList &)
{
    if (m_stream != Stream::Playing)
        return m_handle + " does not play";
    m_stream = Stream::Paused;
    note("pauses", "paused");
    device()->session().phoneSuspends();
    return QString();
}

QString Phone::close(const QStringList &)
{
    if (m_stream == Stream::None)
        return m_handle + " has no stream to the unit";
    streamClosed("closes its stream");
    device()->session().phoneClosesStream();
    return QString();
}

QString Phone::leave(const QStringList &)
{
    if (!linkedDevice())
        return m_handle + " is not connected";
    note("leaves");
    // Pause, stream, signalling channel, link: each step only if there is something to end.
    if (m_stream == Stream::Playing)
        pause({});
    const auto dropLink = [this] {
        if (Device *linked = linkedDevice())
            linked->dropLink("has left");
    };
    const auto closeSignalling = [this, dropLink] {
        if (!linkedDevice() || !device()->session().isActive()) {
            dropLink();
            return;
        }
        device()->session().phoneClosesSignalling();
        m_step.start(Durations::PhoneReacts, dropLink);
    };
    if (m_stream == Stream::None) {
        closeSignalling();
        return QString();
    }
    m_step.start(Durations::PhoneReacts, [this, closeSignalling] {
        if (m_stream != Stream::None)
            close({});
        m_step.start(Durations::PhoneReacts, closeSignalling);
    });
    return QString();
}

QString Phone::drop(const QStringList &)
{
    Device *linked = linkedDevice();
    if (!linked)
        return m_handle + " is not connected";
    linked->dropLink("drops the link");
    return QString();
}

QString Phone::goOutOfRange(const QStringList &)
{
    m_inRange = false;
    m_step.stop();
    m_context->phones->save();
    note("walks out of range");
    if (Device *linked = linkedDevice())
        linked->dropLink("is out of range");
    return QString();
}

QString Phone::comeInRange(const QStringList &)
{
    m_inRange = true;
    m_context->phones->save();
    note("comes back in range");
    return QString();
}

QString Phone::accept(const QStringList &)
{
    return setAnswer(Answer::Accept, "will accept audio connections");
}

QString Phone::ignore(const QStringList &)
{
    return setAnswer(Answer::Ignore, "will not answer audio connections");
}

QString Phone::refuse(const QStringList &)
{
    return setAnswer(Answer::Refuse, "will close audio connections at once");
}

QString Phone::reject(const QStringList &)
{
    return setAnswer(Answer::Reject, "will reject the audio configuration");
}

QString Phone::answerLate(const QStringList &arguments)
{
    bool ok = false;
    const int late = arguments.value(0).toInt(&ok);
    if (!ok || late < 0)
        return "answer-late MILLISECONDS";
    m_late = late;
    m_context->phones->save();
    note(QStringLiteral("will answer audio requests %1 ms late").arg(late));
    return QString();
}

QString Phone::forget(const QStringList &)
{
    setKey(QString());
    note("forgets the unit");
    return QString();
}

QString Phone::autoPlay(const QStringList &arguments)
{
    const QString value = arguments.value(0);
    if (value != "on" && value != "off")
        return "auto-play on|off";
    m_autoPlay = value == "on";
    m_context->phones->save();
    note(m_autoPlay ? "will play when connected" : "will not play by itself");
    return QString();
}

QString Phone::changePin(const QStringList &arguments)
{
    if (arguments.size() != 1)
        return "pin PIN";
    m_pin = arguments.first();
    m_context->phones->save();
    note("will pair with PIN " + m_pin);
    return QString();
}

// ---- how it does that

QString Phone::whyUnreachable() const
{
    if (!m_inRange)
        return m_handle + " is out of range";
    if (!m_unit)
        return "the unit's radio is not ready";
    if (linkedDevice())
        return QString();
    if (!m_unit->isConnectable())
        return "the unit is not connectable";
    if (device() && device()->isBlocked())
        return "the unit has blocked " + m_handle;
    return QString();
}

Device *Phone::device() const
{
    return m_unit ? m_unit->device(m_address) : nullptr;
}

Device *Phone::linkedDevice() const
{
    Device *known = device();
    return known && known->isLinkUp() ? known : nullptr;
}

bool Phone::isBonded() const
{
    const Device *known = device();
    return known && !m_key.isEmpty() && known->key() == m_key;
}

void Phone::openLink(bool announced, const Continuation &then)
{
    m_step.stop();
    if (Device *linked = linkedDevice()) {
        then(linked);
        return;
    }
    m_step.start(Durations::LinkSetup, [this, announced, then] {
        if (Device *linked = linkedDevice()) {
            then(linked);
            return;
        }
        const QString why = whyUnreachable();
        if (!why.isEmpty()) {
            note("gets no link: " + why);
            return;
        }
        Device *known = m_unit->deviceFor(this);
        known->linkUp(announced ? Device::Announce::Now : Device::Announce::Later);
        then(known);
    });
}

void Phone::startPairing(const Continuation &then)
{
    Device *linked = linkedDevice();
    if (linked->pairing().isActive())
        return;
    m_afterPairing = then;
    linked->pairing().start();
}

void Phone::openAudio(bool quiet)
{
    Device *linked = linkedDevice();
    if (linked)
        linked->session().phoneConnects(quiet);
}

void Phone::openAudioWithOldKey()
{
    // The unit has forgotten the phone, which does not know that: the audio channel arrives with a
    // key that the unit lacks, so the unit asks its agent for a PIN.
    if (m_context->options.backend == Options::Backend::Management) {
        // The channel is refused meanwhile, and the link is not announced before it has a key.
        openLink(false, [this](Device *device) {
            startPairing(nullptr);
            device->addUuid(Uuids::AdvancedAudio);
            refused("connection refused: the unit has forgotten the bond");
        });
        return;
    }
    // Raw HCI: the channel is let through, and the unit takes the old bond for valid at first.
    openLink(true, [this](Device *device) {
        openAudio(false);
        device->announcePaired();
    });
}

void Phone::start()
{
    m_stream = Stream::Playing;
    note("plays", "playing");
    device()->session().phoneStarts();
}

QString Phone::setAnswer(Answer answer, const QString &text)
{
    m_answer = answer;
    m_context->phones->save();
    note(text);
    return QString();
}

void Phone::note(const QString &text, const QString &state)
{
    QJsonObject entry {{"lane", "phone"},
                       {"kind", "phone"},
                       {"phone", m_handle},
                       {"address", m_address},
                       {"text", text}};
    if (!state.isEmpty())
        entry.insert("state", state);
    if (!m_audio.isEmpty())
        entry.insert("audio", m_audio);
    m_context->journal(entry);
}

// ---- what the unit finds and does

bool Phone::refusesAudio(const QString &key) const
{
    return m_answer == Answer::Refuse || m_key != key;
}

std::optional<int> Phone::answerDelay() const
{
    if (m_answer == Answer::Ignore)
        return std::nullopt;
    return Durations::Answer + m_late;
}

void Phone::setKey(const QString &key)
{
    m_key = key;
    m_context->phones->save();
}

void Phone::pairingFinished(bool ok, const QString &why)
{
    const Continuation then = std::move(m_afterPairing);
    m_afterPairing = nullptr;
    if (!ok) {
        note("is not paired: " + why);
        return;
    }
    note("is paired", "paired");
    if (then)
        then(linkedDevice());
}

void Phone::linkCameUp()
{
    note("has a link", "link-up");
}

void Phone::linkWentDown(const QString &why)
{
    m_step.stop();
    m_afterPairing = nullptr;
    streamClosed("loses its stream");
    note(why, "link-down");
}

void Phone::streamOpened()
{
    m_stream = Stream::Paused;
    note("has a stream to the unit", "stream-open");
    if (m_autoPlay) {
        m_step.start(Durations::AutoPlay, [this] {
            if (m_stream == Stream::Paused)
                start();
        });
    }
}

void Phone::streamClosed(const QString &why)
{
    if (m_stream == Stream::None)
        return;
    m_stream = Stream::None;
    note(why, "stream-closed");
}

void Phone::suspendedByUnit()
{
    m_stream = Stream::Paused;
    note("is suspended by the unit: nobody takes its stream", "paused");
}

void Phone::refused(const QString &why)
{
    note(why);
}
