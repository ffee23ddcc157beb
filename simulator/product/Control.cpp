#include "Control.h"

#include "Product.h"
#include "core/Words.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QPointer>
#include <QRegularExpression>

#include <csignal>

namespace {

const char ServiceName[] = "com.orbitalis.ulmo.bluetoothmanager";
const char ServicePath[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";
const char ServiceInterface[] = "com.orbitalis.ulmo.bluetoothinterface";
const int CallTimeoutMs = 120000;

const QMap<QString, QString> Topics {
    {"service", R"(The service over D-Bus
  status                      what it says of itself
  enable, disable             Bluetooth on and off
  pin 1234                    the PIN for pairing
  volume N, mute N            0 to 100; 1 and 0
  disconnect                  the connected phone
  forget ADDRESS|all          the paired phone, or all of them
  call METHOD [TYPE:VALUE...] any method; types s i b u o as v, as in v:b:true
The service as a process
  service start|stop|restart
  service kill SIGNAL)"},
    {"phones", R"(Phones
  phone add NAME [address=A] [name=TEXT] [pin=7351] [audio=FILE] [known] [trusted]
  phone NAME VERB             "phone NAME help" lists the verbs
  phones                      all of them)"},
    {"faults", R"(Programs: bluetoothd agent hciconfig sdptool modprobe connmanctl pulseaudio pactl
  kill PROGRAM [SIGNAL]       KILL without one
  fault PROGRAM[:ARGUMENT] exit=STATUS|hang|crash|ignore-term|delay=MS
        at each start with ARGUMENT in the command line
  fault PROGRAM missing       as if it were not installed
  fault bluetoothd name-delay=MS|no-name|adapter-delay=MS|no-adapter
BlueZ and the sound manager
  fault bluez:Interface.Method error[=NAME]|delay=MS|never
  fault soundmanager refuse[=MS]|delay=MS|never|absent
Any of them that counts
  ... [times=N] [after=N]     the next N times only, after N that go well
  fault clear [PROGRAM|bluez|soundmanager])"},
    {"bluez", R"(BlueZ
  backend mgmt|hci [other]    the order of some signals, and the rarer order
  timescale F                 factor of the timers of BlueZ and of phones
  signal PATH INTERFACE.SIGNAL [TYPE:VALUE...]
                              from BlueZ, which means nothing by it
  spoof [to=BUSNAME] PATH INTERFACE.SIGNAL [TYPE:VALUE...]
                              the same from a stranger)"},
    {"product", R"(The rest of the product
  platform suspend|shutdown|reboot [REASON], platform supervisor-end
  platform spoof-suspend ...  the same from a stranger
  bus session|system kill|start
                              only the product's own services get back to it
  ulmoctl ..., busctl ...     these programs on the product's buses, at the prompt
  journal [N]                 the last N entries
  follow, unfollow            the journal as it goes on, at the prompt
  quit)"}};

/// Commands that only call the service.
const QMap<QString, QString> Calls {
    {"enable", "SetEnabled b:true"}, {"disable", "SetEnabled b:false"},
    {"pin", "SetPid s:%1"},          {"volume", "SetVolume i:%1"},
    {"mute", "SetMute i:%1"},        {"disconnect", "DisconnectDevice"},
    {"forget", "RemoveDevice s:%1"}};

const QMap<QString, QString> PlatformEvents {{"suspend", "PowerSuspend"},
                                             {"shutdown", "PowerShutdown"},
                                             {"reboot", "PowerReboot"},
                                             {"supervisor-end", "SupervisorShutdown"}};

const QMap<QString, int> Signals {
    {"HUP", SIGHUP},   {"INT", SIGINT},   {"QUIT", SIGQUIT}, {"ABRT", SIGABRT}, {"KILL", SIGKILL},
    {"SEGV", SIGSEGV}, {"TERM", SIGTERM}, {"STOP", SIGSTOP}, {"CONT", SIGCONT}, {"USR1", SIGUSR1}};

Control::Answer failure(const QString &why)
{
    return {false, why, {}};
}

/// The answer of what returns why not, or an empty text.
Control::Answer answerOf(const QString &error)
{
    return {error.isEmpty(), error, {}};
}

void send(QLocalSocket *client, const QByteArray &line)
{
    client->write(line + '\n');
    client->flush();
}

void send(QLocalSocket *client, const QJsonObject &object)
{
    send(client, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

Control::Control(Product &product)
    : m_product(product)
    , m_commands {
          {"status", {"service", "", &Control::status}},
          {"enable", {"service", "", &Control::callShort}},
          {"disable", {"service", "", &Control::callShort}},
          {"pin", {"service", "PIN", &Control::callShort}},
          {"volume", {"service", "N", &Control::callShort}},
          {"mute", {"service", "N", &Control::callShort}},
          {"disconnect", {"service", "", &Control::callShort}},
          {"forget", {"service", "all|ADDRESS", &Control::callShort}},
          {"call", {"service", "METHOD [TYPE:VALUE...]", &Control::call}},
          {"service", {"service", "start|stop|restart|kill [SIGNAL]", &Control::service}},
          {"phone", {"phones", "add|PHONE VERB|NAME [...]", &Control::bluez}},
          {"phones", {"phones", "", &Control::bluez}},
          {"fault",
           {"faults", "clear|bluez:|TARGET [BEHAVIOUR...] [times=N|after=N...]", &Control::fault}},
          {"kill", {"faults", "PROGRAM [SIGNAL]", &Control::killProgram}},
          {"backend", {"bluez", "mgmt|hci [other]", &Control::bluez}},
          {"timescale", {"bluez", "F", &Control::timescale}},
          {"signal", {"bluez", "PATH INTERFACE.SIGNAL [TYPE:VALUE...]", &Control::bluez}},
          {"spoof", {"bluez", "PATH INTERFACE.SIGNAL [TYPE:VALUE...]", &Control::spoof}},
          {"platform", {"product", "EVENT [REASON...]", &Control::platform}},
          {"bus", {"product", "session|system kill|start", &Control::bus}},
          {"journal", {"product", "[N]", &Control::journal}},
          {"help", {"product", "[TOPIC|COMMAND]", &Control::help}},
          {"quit", {"product", "", &Control::quit}},
          {"follow", {"product", "", nullptr}},
          {"unfollow", {"product", "", nullptr}},
          {"ulmoctl", {"product", "[...]", nullptr}},
          {"busctl", {"product", "[...]", nullptr}}}
{
    connect(this, &QLocalServer::newConnection, this, &Control::accept);
}

void Control::accept()
{
    while (QLocalSocket *client = nextPendingConnection()) {
        connect(client, &QLocalSocket::readyRead, this, [this, client] { readLines(client); });
        connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
        readLines(client);
    }
}

void Control::readLines(QLocalSocket *client)
{
    while (client->canReadLine()) {
        const QJsonObject request = QJsonDocument::fromJson(client->readLine()).object();
        const QPointer<QLocalSocket> asker(client);
        if (request.contains("follow")) {
            follow(client);
        } else if (request.contains("complete")) {
            const QStringList words = complete(request.value("complete").toString());
            send(client, {{"words", QJsonArray::fromStringList(words)}});
        } else {
            tell(request.value("tell").toString(), [asker](const Answer &answer) {
                if (asker)
                    send(asker,
                         {{"ok", answer.ok}, {"text", answer.text}, {"values", answer.values}});
            });
        }
    }
}

void Control::follow(QLocalSocket *client)
{
    client->write(m_product.journal.contents());
    client->flush();
    connect(&m_product.journal, &Journal::recorded, client,
            [client](const QByteArray &entry) { send(client, entry); });
}

void Control::tell(const QString &line, const Done &done)
{
    const QStringList words = QProcess::splitCommand(line);
    m_product.journal.record("control", words.value(0) == "fault" ? "fault" : "control",
                             "- " + line.trimmed());
    const Done answer = [this, done](const Answer &outcome) {
        if (!outcome.ok)
            m_product.journal.record("control", "error", "- error: " + outcome.text);
        done(outcome);
    };
    const QString error = line.count('"') % 2 ? "a quote is not closed" : whyNot(words);
    if (error.isEmpty())
        (this->*m_commands.value(words.first()).command)(words, answer);
    else
        answer(failure(error));
}

/// What is wrong with a line, as far as the table of commands can tell; empty when nothing is.
QString Control::whyNot(const QStringList &words) const
{
    const QString name = words.value(0);
    if (!m_commands.contains(name))
        return unknownWord("command", name, m_commands.keys());
    const QString parameters = m_commands[name].parameters;
    const QStringList places = parameters.split(' ', Qt::SkipEmptyParts);
    if (!m_commands[name].command)
        return name + " works at the prompt only";
    if (words.size() <= places.size() - parameters.count('[')
        || (words.size() > places.size() + 1 && !parameters.endsWith("...]")))
        return QString("usage: " + name + ' ' + parameters).trimmed();
    for (int i = 1; i < words.size(); ++i) {
        const Place place = placeAfter(words.mid(0, i));
        if (!place.isFree && !place.known.contains(words.at(i)))
            return unknownWord(place.what, words.at(i), place.known);
    }
    return {};
}

Control::Place Control::placeAfter(const QStringList &words) const
{
    const QString first = words.value(1);
    QStringList programs = Faults::targets();
    programs.removeOne("soundmanager");
    QStringList events = PlatformEvents.keys();
    for (const QString &event : PlatformEvents.keys())
        events.append("spoof-" + event);
    const QMap<QString, QStringList> lists {
        {"COMMAND", m_commands.keys()},
        {"TOPIC", Topics.keys()},
        {"SIGNAL", Signals.keys()},
        {"PHONE", m_product.bluez.phoneNames()},
        {"VERB", first == "add" ? QStringList() : m_product.bluez.verbs()},
        {"PROGRAM", programs},
        {"TARGET", Faults::targets()},
        {"BEHAVIOUR", first == "clear" ? Faults::targets() : Faults::behavioursOf(first)},
        {"EVENT", events}};
    QString alternatives = "COMMAND";
    if (!words.isEmpty())
        alternatives =
            m_commands.value(words.first()).parameters.split(' ').value(words.size() - 1);

    Place place;
    place.what = words.value(0) + " command";
    place.isFree = alternatives.isEmpty() || alternatives.contains("...");
    for (const QString &word : alternatives.remove(QRegularExpression("[[\\].]")).split('|')) {
        if (lists.contains(word)) {
            place.what = word.toLower();
            place.known += lists.value(word);
        } else if (word != word.toUpper()) {
            place.known.append(word);
        } else {
            place.isFree = true;
        }
    }
    place.isFree = place.isFree || place.known.contains("bluez:");
    return place;
}

QStringList Control::complete(const QString &line) const
{
    QStringList words = line.split(' ', Qt::SkipEmptyParts);
    const QString begun = line.isEmpty() || line.endsWith(' ') ? QString() : words.takeLast();
    QStringList fitting = placeAfter(words).known;
    // Of "exit=STATUS" all that is no example.
    fitting.replaceInStrings(QRegularExpression("\\[?=.*"), "=");
    fitting = fitting.filter(QRegularExpression('^' + QRegularExpression::escape(begun)));
    fitting.sort();
    return fitting;
}

void Control::status(const QStringList &, const Done &done)
{
    call({"call", "GetStatus"}, [done](const Answer &answer) {
        const QJsonArray &values = answer.values;
        if (!answer.ok) {
            done(answer);
            return;
        }
        const QString text =
            QString("Bluetooth is %1 and %2; the PIN is %3")
                .arg(values.at(2).toBool() ? "on" : "off",
                     values.at(1).toBool() ? "enabled" : "disabled", values.at(3).toString());
        done({true, text, values});
    });
}

void Control::callShort(const QStringList &words, const Done &done)
{
    const QString form = Calls.value(words.first());
    bool isNumber = false;
    words.last().toInt(&isNumber);
    if (form.contains("i:%1") && !isNumber)
        done(failure(words.first() + " wants a number"));
    else if (words.first() == "forget" && words.last() == "all")
        call({"call", "RemoveAllDevices"}, done);
    else
        call(QStringList {"call"} + QString(form).replace("%1", words.last()).split(' '), done);
}

void Control::call(const QStringList &words, const Done &done)
{
    QVariantList arguments;
    QString error;
    if (!parseTypedArguments(words.mid(2), &arguments, &error)) {
        done(failure(error));
        return;
    }
    const QString method = words.at(1);
    const QString interface = method.contains('.') ? method.section('.', 0, -2) : ServiceInterface;
    QDBusMessage message = QDBusMessage::createMethodCall(ServiceName, ServicePath, interface,
                                                          method.section('.', -1));
    message.setArguments(arguments);
    const QDBusConnection bus = Buses::connection("session", "caller");
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(message, CallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, done] {
        watcher->deleteLater();
        const QDBusMessage reply = watcher->reply();
        const QJsonArray values = QJsonArray::fromVariantList(reply.arguments());
        if (reply.type() == QDBusMessage::ErrorMessage)
            done(failure(reply.errorName() + ": " + reply.errorMessage()));
        else
            done({true, QJsonDocument(values).toJson(QJsonDocument::Compact), values});
    });
}

void Control::service(const QStringList &words, const Done &done)
{
    Service &service = m_product.service;
    const QString what = words.at(1);
    if (what == "kill" && words.size() < 3) {
        done(failure("usage: service kill SIGNAL"));
    } else if (what == "kill") {
        done(answerOf(service.kill(Signals.value(words.at(2)))));
    } else if (what == "start" || (what == "restart" && !service.isRunning())) {
        done(answerOf(service.startService()));
    } else if (!service.isRunning()) {
        done(failure("the service is not running"));
    } else {
        auto *once = new QObject(this);
        connect(&service, &Service::ended, once, [=, &service](const QString &how) {
            once->deleteLater();
            done(what == "stop" ? Answer {true, "it has ended " + how, {}}
                                : answerOf(service.startService()));
        });
        service.kill(SIGTERM);
    }
}

void Control::bluez(const QStringList &words, const Done &done)
{
    QString text;
    const QString error = m_product.bluez.tell(words, &text);
    done({error.isEmpty(), error.isEmpty() ? text : error, {}});
}

void Control::timescale(const QStringList &words, const Done &done)
{
    const double scale = words.value(1).toDouble();
    if (scale > 0)
        m_product.clock.scale = scale;
    done(answerOf(scale > 0 ? QString() : "timescale wants a number above 0"));
}

void Control::spoof(const QStringList &line, const Done &done)
{
    QStringList words = line;
    const QString to = words.at(1).startsWith("to=") ? words.takeAt(1).mid(3) : QString();
    const QString signal = words.value(2);
    QVariantList arguments;
    QString error;
    if (parseTypedArguments(words.mid(3), &arguments, &error)) {
        QDBusMessage message = QDBusMessage::createTargetedSignal(
            to, words.at(1), signal.section('.', 0, -2), signal.section('.', -1));
        message.setArguments(arguments);
        if (!Buses::connection("system", "spoofer").send(message))
            error = "this cannot be sent";
    }
    done(answerOf(error));
}

void Control::killProgram(const QStringList &words, const Done &done)
{
    const int signal = Signals.value(words.value(2, "KILL"));
    done(answerOf(m_product.programs.kill(words.at(1), signal)));
}

void Control::fault(const QStringList &words, const Done &done)
{
    const QString error = words.at(1) == "clear" ? m_product.faults.clear(words.value(2))
                                                 : m_product.faults.add(words.mid(1));
    m_product.programs.updatePresence();
    m_product.soundManager.updatePresence();
    done(answerOf(error));
}

void Control::platform(const QStringList &words, const Done &done)
{
    const QString event = QString(words.at(1)).remove(QRegularExpression("^spoof-"));
    QDBusMessage message = QDBusMessage::createSignal("/com/orbitalis/ulmo/platform",
                                                      "com.orbitalis.ulmo.platformevents",
                                                      PlatformEvents.value(event));
    if (event != "supervisor-end")
        message << words.mid(2).join(' ');
    const QString sender = event == words.at(1) ? "platform" : "stranger";
    const bool sent = Buses::connection("session", sender).send(message);
    done(answerOf(sent ? QString() : "there is no session bus"));
}

void Control::bus(const QStringList &words, const Done &done)
{
    const bool isKill = words.at(2) == "kill";
    done(answerOf(isKill ? m_product.killBus(words.at(1)) : m_product.startBus(words.at(1))));
}

void Control::journal(const QStringList &words, const Done &done)
{
    const int count = words.value(1, "20").toInt();
    const QList<QByteArray> entries = m_product.journal.contents().trimmed().split('\n');
    QStringList lines;
    for (const QByteArray &text : entries.mid(qMax(0, entries.size() - count))) {
        const QJsonObject entry = QJsonDocument::fromJson(text).object();
        lines.append(QString("%1 %2")
                         .arg(entry.value("time").toDouble(), 9, 'f', 3)
                         .arg(entry.value("line").toString()));
    }
    done(count > 0 ? Answer {true, lines.join('\n'), {}}
                   : failure("journal wants the number of entries"));
}

void Control::help(const QStringList &words, const Done &done)
{
    const QString wanted = words.value(1, "help");
    const QString topic = m_commands.contains(wanted) ? m_commands[wanted].topic : wanted;
    QString text = Topics.value(topic);
    if (wanted == "help") {
        text = "The product can be told this; \"help TOPIC\" or \"help COMMAND\" says more.";
        for (const QString &name : Topics.keys()) {
            text += "\n  " + name.leftJustified(9);
            for (auto entry = m_commands.begin(); entry != m_commands.end(); ++entry)
                text += entry->topic == name ? ' ' + entry.key() : QString();
        }
    }
    done({true, text, {}});
}

void Control::quit(const QStringList &, const Done &done)
{
    done({true, {}, {}});
    m_product.quit();
}
