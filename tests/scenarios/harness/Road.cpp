#include "Road.h"

#include "Steps.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

const QString AddressBegin = QStringLiteral("00:1A:7D:DA:71:");
const char Reconnect[] = "BLUETOOTH/bt-timeout-reconnect-1";
const char SinkCommand[] = "pactl load-module module-alsa-sink sink_name=output device=dm-audio";
const char DiscoveryCommand[] = "pactl load-module module-bluetooth-discover";

QString addressOf(const QString &name)
{
    return AddressBegin + Road::Phones.value(name);
}

QString pathEnd(const QString &name)
{
    return "/dev_" + addressOf(name).replace(':', '_');
}

QString loopbackCommand(const QString &name)
{
    return "pactl load-module module-loopback source_dont_move=yes source=bluez_source."
        + addressOf(name).replace(':', '_')
        + " sink=output latency_msec=1000 adjust_time=60 remix=false";
}

VirtualProduct::Options fastBluez(VirtualProduct::Options options)
{
    // The adapter is there at once, so that the first agent finds it and stays.
    options.tell =
        QStringList {"fault bluetoothd adapter-delay=0", "timescale 0.05"} + options.tell;
    if (!options.settings.contains(Reconnect))
        options.settings.insert(Reconnect, 100);
    return options;
}

/// Object paths as the names of what they belong to.
QString withNames(QString text)
{
    static const QRegularExpression adapter("/org/bluez/\\d+/hci0");
    text.replace(adapter, "{adapter}");
    for (const QString &name : Road::Phones.keys())
        text.replace("{adapter}" + pathEnd(name), '{' + name + '}');
    return text;
}

QString argumentText(const QJsonValue &argument)
{
    const QString text = argument.toVariant().toString();
    return text.isEmpty() ? QString("''") : text;
}

QString messageText(const QJsonObject &entry)
{
    QStringList words;
    for (const QJsonValue &argument : entry.value("arguments").toArray())
        words.append(argumentText(argument));
    words.prepend(entry.value("member").toString());
    if (entry.value("bus") == "system") {
        words.first().prepend(entry.value("interface").toString().section('.', -1) + '.');
        words.insert(1, entry.value("path").toString());
    }
    return words.join(' ');
}

QString messageLine(const QJsonObject &entry)
{
    if (entry.value("senderName") != "service")
        return QString();
    if (entry.value("kind") == "signal")
        return "@ " + messageText(entry);
    if (entry.value("kind") != "call"
        || entry.value("destination").toString().startsWith("org.freedesktop."))
        return QString();
    return (entry.value("bus") == "system" ? "> " : "@ ") + messageText(entry);
}

QString startLine(const QJsonObject &entry)
{
    static const QStringList children {"bluetoothd", "agent", "pulseaudio"};
    const QString program = entry.value("program").toString();
    QStringList words {children.contains(program) ? "&" : "$", program};
    for (const QJsonValue &argument : entry.value("arguments").toArray())
        words.append(argument.toString());
    return program == "service" ? QString() : words.join(' ');
}

QString logLine(const QJsonObject &entry)
{
    const QString message = entry.value("message").toString();
    const bool isTrace = message.startsWith("DevicePropertyChanged (")
        || message.startsWith("AudioSourcePropertyChanged (")
        || message == "[DBUS|Internal] GetStatus() requested";
    return isTrace ? QString() : QString::number(entry.value("level").toInt()) + ' ' + message;
}

/// Kinds with an order of their own: everything but "&", ">" and "@" is one.
int kindOf(const QString &line)
{
    return 1 + int(QString("&>@").indexOf(line.front()));
}

} // namespace

const QMap<QString, QString> Road::Phones {{"anna", "13"}, {"berta", "14"}, {"carla", "15"}};

Road::Road(const Options &options, Place place) : VirtualProduct(fastBluez(options), place)
{
    if (options.startService && options.settings.value("BLUETOOTH/bt-enable") != QJsonValue(0))
        Steps::waitUntilOn(*this, place);
}

Road::Road(Place place) : Road(Options(), place) { }

void Road::meet(const QString &name, const QString &traits, Place place)
{
    tell("phone add " + name + " address=" + addressOf(name) + ' ' + traits, place);
}

void Road::stream(const QString &name, Place place)
{
    rewind(mark());
    tell("phone " + name + " connect", place);
    await("$ " + loopbackCommand(name), place);
    await("@ PlayBluetooth", place);
}

void Road::bring(const QString &state, Place place)
{
    meet("anna", state == "accepted" ? "known" : "trusted", place);
    const int from = mark();
    if (state == "polling")
        tell("fault pactl:stat exit=1", place);
    else if (state == "linking")
        tell("fault pactl:loopback exit=1", place);
    if (state == "streaming" || state == "playing")
        stream("anna", place);
    else if (state != "idle")
        tell("phone anna connect", place);

    if (state == "playing") {
        tell("phone anna play", place);
    } else if (state == "accepted") {
        await("4 load timer for reconnect", place);
        awaitPhone(from, "anna", "stream-open", place);
        // Or else BlueZ closes the stream soon, which nobody starts.
        tell("phone anna play", place);
    } else if (state == "polling") {
        await("4 wait pulseaudio ... 2", place);
    } else if (state == "linking") {
        await("4 wait pulseaudio bluetooth module ready... 2", place);
    }
    settle(place);
}

VirtualProduct::Options Road::acceptedFor(int milliseconds)
{
    Options options;
    options.settings.insert(Reconnect, milliseconds);
    return options;
}

QString Road::path(const QString &name)
{
    const QVector<QJsonObject> starts = entries({{"kind", "start"}, {"program", "bluetoothd"}});
    const int process = starts.isEmpty() ? 0 : starts.last().value("pid").toInt();
    const QString adapter = QString("/org/bluez/%1/hci0").arg(process);
    return name == "adapter" ? adapter : adapter + pathEnd(name);
}

QString Road::resolved(QString text)
{
    for (const QString &name : QStringList {"adapter"} + Phones.keys()) {
        const QString placeholder = '{' + name + '}';
        if (text.contains(placeholder))
            text.replace(placeholder, path(name));
    }
    return text;
}

QString Road::tell(const QString &line, Place place)
{
    return VirtualProduct::tell(resolved(line), place);
}

int Road::settle(Place place)
{
    // What came over the system bus is handled when this is, which comes the same way; then what
    // came over the session bus.
    const QVector<QJsonObject> daemon = entries({{"program", "bluetoothd"}});
    if (!daemon.isEmpty() && daemon.last().value("kind") == "start") {
        const QString number = QString::number(++m_settled);
        tell("signal /settled org.bluez.Device.PropertyChanged s:Number v:s:" + number, place);
        expectLog(4, "DevicePropertyChanged (org.bluez.Device)/settled Number=" + number, place);
    }
    call("GetStatus", {}, place);
    return mark();
}

QJsonObject Road::await(const QString &line, Place place)
{
    return expect(
        line,
        [&line](const QJsonObject &entry) {
            const QString deed = lineOf(entry);
            return line.endsWith('*') ? deed.startsWith(line.chopped(1)) : deed == line;
        },
        place);
}

void Road::awaitAll(int from, const QStringList &lines, Place place)
{
    const QStringList sorted = inKinds(lines);
    for (int i = 0; i < sorted.size(); ++i) {
        if (i == 0 || kindOf(sorted.at(i)) != kindOf(sorted.at(i - 1)))
            rewind(from);
        await(sorted.at(i), place);
    }
}

void Road::awaitPhone(int from, const QString &name, const QString &state, Place place)
{
    rewind(from);
    expect({{"kind", "phone"}, {"phone", name}, {"state", state}}, place);
}

QStringList Road::deeds(int from)
{
    QStringList lines;
    for (const QJsonObject &entry : entries({}, from)) {
        const QString line = lineOf(entry);
        if (!line.isEmpty())
            lines.append(line);
    }
    return inKinds(lines);
}

QStringList Road::deeds(int from, const QStringList &beginnings)
{
    QStringList lines;
    for (const QString &line : deeds(from)) {
        if (std::any_of(beginnings.begin(), beginnings.end(),
                        [&line](const QString &beginning) { return line.startsWith(beginning); }))
            lines.append(line);
    }
    return lines;
}

QStringList Road::inKinds(const QStringList &lines)
{
    QStringList sorted = lines;
    std::stable_sort(sorted.begin(), sorted.end(), [](const QString &left, const QString &right) {
        return kindOf(left) < kindOf(right);
    });
    return sorted;
}

QString Road::lineOf(const QJsonObject &entry)
{
    const QString kind = entry.value("kind").toString();
    const QString line = kind == "log" ? logLine(entry)
        : kind == "start"              ? startLine(entry)
        : entry.value("lane") == "bus" ? messageLine(entry)
                                       : QString();
    return withNames(line);
}

namespace {

/// \p lines with \p name in place of "anna".
QStringList of(const QString &name, QStringList lines)
{
    return lines.replaceInStrings("{anna}", '{' + name + '}');
}

} // namespace

QStringList Road::madeAgain(const QString &name)
{
    return of(name,
              {"4 reconnect", "4 Disconnect {anna}", "4 Device {anna} DISCONNECT",
               "4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO", "4 connectAudioSource {anna}",
               "> Device.Disconnect {anna}", "> AudioSource.Connect {anna}",
               "@ StopPlay bluetooth ''", "@ DisconnectAudioDevice"});
}

QStringList Road::ownConnection(const QString &name)
{
    return of(name,
              {"4 connection coming from ulmo", "4 trust {anna} true",
               "4 Device {anna} CONNECTED AND ACCEPTED", "4 try to start pulseaudio for {anna}",
               "& pulseaudio --system", "> Device.SetProperty {anna} Trusted true"});
}

QStringList Road::playback(const QString &name)
{
    const QString sink = SinkCommand;
    const QString discovery = DiscoveryCommand;
    const QString loopback = loopbackCommand(name);
    return {"4 /usr/bin/" + sink,      "$ " + sink,      "4 /usr/bin/" + sink + " <- 0",
            "9 /usr/bin/" + discovery, "$ " + discovery, "4 /usr/bin/" + discovery + " <- 0",
            "9 /usr/bin/" + loopback,  "$ " + loopback,  "@ ConnectAudioDevice",
            "@ PlayBluetooth"};
}

QStringList Road::gone(const QString &name)
{
    return of(name,
              {"4 Device {anna} DISCONNECT", "4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO",
               "4 stop pulseaudio because not used any more", "@ StopPlay bluetooth ''",
               "@ DisconnectAudioDevice"});
}

QStringList Road::forgotten(const QString &name)
{
    return of(name,
              {"4 trust {anna} false", "4 removeDevice {anna}",
               "4 removeDevice {anna} Remove Device, pair again",
               "> Device.SetProperty {anna} Trusted false",
               "> Adapter.RemoveDevice {adapter} {anna}"});
}
