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

struct Topic
{
    const char *name;
    const char *commands; ///< that it explains
    const char *text;
};

const Topic Topics[] = {
    {"service", "status enable disable pin volume mute disconnect forget call ulmoctl busctl",
     R"(The service over D-Bus
  status                      what it says of itself
  enable, disable             Bluetooth on and off
  pin 1234                    the PIN for pairing
  volume N, mute N            0 to 100; 1 and 0
  disconnect                  the connected phone
  forget ADDRESS|all          the paired phone, or all of them
  call METHOD [TYPE:VALUE...] any method; types s i b u o as v, as in v:b:true
  ulmoctl ..., busctl ...     these programs on the product's buses, at the prompt
The service as a process
  service start|stop|restart
  service kill SIGNAL)"},
    {"phones", "phone",
     R"(Phones
  phone add NAME [address=A] [name=TEXT] [pin=7351] [audio=FILE] [known] [trusted]
  phone NAME ACTION           "phone NAME help" lists the actions
  phones                      all of them)"},
    {"faults", "fault kill",
     R"(Programs: bluetoothd agent hciconfig sdptool modprobe connmanctl pulseaudio pactl
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
    {"bluez", "backend timescale signal spoof",
     R"(BlueZ
  backend mgmt|hci [other]    the order of some signals, and the rarer order
  timescale F                 factor of the timers of BlueZ and of phones
  signal PATH INTERFACE.SIGNAL [TYPE:VALUE...]
                              from BlueZ, which means nothing by it
  spoof [to=BUSNAME] PATH INTERFACE.SIGNAL [TYPE:VALUE...]
                              the same from a stranger)"},
    {"product", "platform bus journal follow unfollow quit",
     R"(The rest of the product
  platform suspend|shutdown|reboot [REASON], platform supervisor-end
  platform spoof-suspend ...  the same from a stranger
  bus session|system kill|start
                              only the product's own services get back to it
  journal [N]                 the last N entries
  follow, unfollow            the journal as it goes on, at the prompt
  quit)"},
};

const char Overview[] =
    R"(The virtual product can be told this; "help TOPIC" or "help COMMAND" says more.
  service   status enable disable pin volume mute disconnect forget call service
            ulmoctl busctl
  phones    phone phones
  faults    fault kill
  bluez     backend timescale signal spoof
  product   platform bus journal follow unfollow quit)";

/// What may follow a command, word by word; the names in capitals are lists of their own.
const QMap<QString, QString> Grammar {{"forget", "all"},
                                      {"mute", "0|1"},
                                      {"service", "start|stop|restart|kill SIGNAL"},
                                      {"phone", "add|PHONE VERB"},
                                      {"kill", "PROGRAM SIGNAL"},
                                      {"fault", "bluez:|clear|TARGET BEHAVIOUR times=|after="},
                                      {"backend", "mgmt|hci other"},
                                      {"platform", "EVENT"},
                                      {"bus", "session|system kill|start"},
                                      {"help", "COMMAND"}};

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

/// 0 when there is no such signal.
int signalOf(const QString &name)
{
    const QString bare = name.startsWith("SIG") ? name.mid(3) : name;
    return Signals.value(bare.toUpper(), qMax(0, bare.toInt()));
}

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
    , m_commands {{"status", &Control::status},
                  {"enable", &Control::callShort},
                  {"disable", &Control::callShort},
                  {"pin", &Control::callShort},
                  {"volume", &Control::callShort},
                  {"mute", &Control::callShort},
                  {"disconnect", &Control::callShort},
                  {"forget", &Control::callShort},
                  {"call", &Control::call},
                  {"service", &Control::service},
                  {"phone", &Control::bluez},
                  {"phones", &Control::bluez},
                  {"signal", &Control::bluez},
                  {"backend", &Control::bluez},
                  {"timescale", &Control::timescale},
                  {"spoof", &Control::spoof},
                  {"kill", &Control::killProgram},
                  {"fault", &Control::fault},
                  {"platform", &Control::platform},
                  {"bus", &Control::bus},
                  {"journal", &Control::journal},
                  {"help", &Control::help},
                  {"quit", &Control::quit}}
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
    const QString name = words.value(0);
    m_product.journal.record("control", name == "fault" ? "fault" : "control",
                             "- " + line.trimmed());
    const Done answer = [this, done](const Answer &outcome) {
        if (!outcome.ok)
            m_product.journal.record("control", "error", "- error: " + outcome.text);
        done(outcome);
    };
    if (line.count('"') % 2 != 0)
        answer(failure("a quote is not closed"));
    else if (!m_commands.contains(name))
        answer(failure(unknownWord("command", name, m_commands.keys())));
    else
        (this->*m_commands.value(name))(words, answer);
}

QStringList Control::complete(const QString &line) const
{
    QStringList words = line.split(' ', Qt::SkipEmptyParts);
    const QString begun = line.isEmpty() || line.endsWith(' ') ? QString() : words.takeLast();
    const QStringList commands =
        m_commands.keys() + QStringList {"follow", "unfollow", "ulmoctl", "busctl"};
    QStringList behaviours = Faults::behavioursOf(words.value(1));
    behaviours.replaceInStrings(QRegularExpression("[A-Z\\[\\]]"), "");
    QStringList events = PlatformEvents.keys();
    for (const QString &event : PlatformEvents.keys())
        events.append("spoof-" + event);
    const QMap<QString, QStringList> lists {{"COMMAND", commands},
                                            {"SIGNAL", Signals.keys()},
                                            {"PHONE", m_product.bluez.phoneNames()},
                                            {"VERB", m_product.bluez.verbs()},
                                            {"PROGRAM", Faults::targets()},
                                            {"TARGET", Faults::targets()},
                                            {"BEHAVIOUR", behaviours},
                                            {"EVENT", events}};
    const QString place = words.isEmpty()
        ? "COMMAND"
        : Grammar.value(words.first()).split(' ').value(words.size() - 1);
    QStringList fitting;
    for (const QString &word : place.split('|', Qt::SkipEmptyParts))
        fitting += lists.value(word, {word});
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
    words.value(1).toInt(&isNumber);
    if (words.size() != (form.contains('%') ? 2 : 1))
        done(
            failure(words.first() + (form.contains('%') ? " wants one value" : " wants no value")));
    else if (form.contains("i:%1") && !isNumber)
        done(failure(words.first() + " wants a number"));
    else if (words.first() == "forget" && words.last() == "all")
        call({"call", "RemoveAllDevices"}, done);
    else
        call(QStringList {"call"} + form.arg(words.last()).split(' '), done);
}

void Control::call(const QStringList &words, const Done &done)
{
    QVariantList arguments;
    QString error;
    if (words.size() < 2 || !parseTypedArguments(words.mid(2), &arguments, &error)) {
        done(failure(error.isEmpty() ? "call METHOD [TYPE:VALUE...]" : error));
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
    const QString what = words.value(1);
    if (what == "stop" || (what == "restart" && m_product.service.isRunning()))
        stopService(what == "restart", done);
    else if (what == "start" || what == "restart")
        done(answerOf(m_product.service.startService()));
    else if (what == "kill" && signalOf(words.value(2)))
        done(answerOf(m_product.service.kill(signalOf(words.value(2)))));
    else if (what == "kill" && words.size() > 2)
        done(failure(unknownWord("signal", words.at(2), Signals.keys())));
    else if (what == "kill" || what.isEmpty())
        done(failure("service start|stop|restart, or service kill SIGNAL"));
    else
        done(failure(unknownWord("service command", what, {"start", "stop", "restart", "kill"})));
}

void Control::stopService(bool startsAgain, const Done &done)
{
    const QString error = m_product.service.kill(SIGTERM);
    if (!error.isEmpty()) {
        done(failure(error));
        return;
    }
    auto *once = new QObject(this);
    connect(&m_product.service, &Service::ended, once, [=](const QString &how) {
        once->deleteLater();
        if (startsAgain)
            done(answerOf(m_product.service.startService()));
        else
            done({true, "it has ended " + how, {}});
    });
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
    QVariantList arguments;
    QString error;
    const QString to = words.value(1).startsWith("to=") ? words.takeAt(1).mid(3) : QString();
    if (words.size() < 3)
        error = "spoof [to=BUSNAME] PATH INTERFACE.SIGNAL [TYPE:VALUE...]";
    if (!error.isEmpty() || !parseTypedArguments(words.mid(3), &arguments, &error)) {
        done(failure(error));
        return;
    }
    const QString signal = words.at(2);
    QDBusMessage message = QDBusMessage::createTargetedSignal(
        to, words.at(1), signal.section('.', 0, -2), signal.section('.', -1));
    message.setArguments(arguments);
    const bool sent = Buses::connection("system", "spoofer").send(message);
    done(answerOf(sent ? QString() : "this cannot be sent"));
}

void Control::killProgram(const QStringList &words, const Done &done)
{
    const QString name = words.value(1);
    const int signal = signalOf(words.value(2, "KILL"));
    if (name.isEmpty())
        done(failure("kill PROGRAM [SIGNAL]"));
    else if (name == "service")
        done(failure("that is \"service kill SIGNAL\""));
    else if (!Faults::targets().contains(name))
        done(failure(unknownWord("program", name, Faults::targets())));
    else if (signal == 0)
        done(failure(unknownWord("signal", words.at(2), Signals.keys())));
    else
        done(answerOf(m_product.programs.kill(name, signal)));
}

void Control::fault(const QStringList &words, const Done &done)
{
    if (words.size() < 2) {
        done(failure("fault TARGET BEHAVIOUR [times=N] [after=N]; see \"help faults\""));
        return;
    }
    const QString error = words.at(1) == "clear" ? m_product.faults.clear(words.value(2))
                                                 : m_product.faults.add(words.mid(1));
    m_product.programs.updatePresence();
    m_product.soundManager.updatePresence();
    done(answerOf(error));
}

void Control::platform(const QStringList &words, const Done &done)
{
    QString event = words.value(1);
    const bool isSpoofed = event.startsWith("spoof-");
    event.remove(QRegularExpression("^spoof-"));
    if (event.isEmpty() || !PlatformEvents.contains(event)) {
        const QString all = "platform " + PlatformEvents.keys().join('|') + " [REASON]";
        done(failure(
            event.isEmpty() ? all : unknownWord("platform event", event, PlatformEvents.keys())));
        return;
    }
    QDBusMessage message = QDBusMessage::createSignal("/com/orbitalis/ulmo/platform",
                                                      "com.orbitalis.ulmo.platformevents",
                                                      PlatformEvents.value(event));
    if (event != "supervisor-end")
        message << words.mid(2).join(' ');
    const QString sender = isSpoofed ? "stranger" : "platform";
    const bool sent = Buses::connection("session", sender).send(message);
    done(answerOf(sent ? QString() : "there is no session bus"));
}

void Control::bus(const QStringList &words, const Done &done)
{
    const QString bus = words.value(1);
    const QString what = words.value(2);
    if ((bus != "session" && bus != "system") || (what != "kill" && what != "start"))
        done(failure("bus session|system kill|start"));
    else
        done(answerOf(what == "kill" ? m_product.killBus(bus) : m_product.startBus(bus)));
}

void Control::journal(const QStringList &words, const Done &done)
{
    const int count = words.value(1, "20").toInt();
    if (count < 1) {
        done(failure("journal wants the number of entries"));
        return;
    }
    const QList<QByteArray> entries = m_product.journal.contents().trimmed().split('\n');
    QStringList lines;
    for (const QByteArray &text : entries.mid(qMax(0, entries.size() - count))) {
        const QJsonObject entry = QJsonDocument::fromJson(text).object();
        lines.append(QString("%1 %2")
                         .arg(entry.value("time").toDouble(), 9, 'f', 3)
                         .arg(entry.value("line").toString()));
    }
    done({true, lines.join('\n'), {}});
}

void Control::help(const QStringList &words, const Done &done)
{
    const QString wanted = words.value(1, "help");
    QStringList topics {"help"};
    for (const Topic &topic : Topics) {
        const QStringList commands = QString(topic.commands).split(' ');
        topics += QStringList {topic.name} + commands;
        if (wanted == topic.name || commands.contains(wanted)) {
            done({true, topic.text, {}});
            return;
        }
    }
    done(wanted == "help" ? Answer {true, Overview, {}}
                          : failure(unknownWord("topic", wanted, topics)));
}

void Control::quit(const QStringList &, const Done &done)
{
    done({true, {}, {}});
    m_product.quit();
}
