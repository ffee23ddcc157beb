#include "Control.h"

#include "Platform.h"
#include "Product.h"
#include "core/Words.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QJsonDocument>
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

const QMap<QString, int> Signals {
    {"HUP", SIGHUP},   {"INT", SIGINT},   {"QUIT", SIGQUIT}, {"ABRT", SIGABRT}, {"KILL", SIGKILL},
    {"SEGV", SIGSEGV}, {"TERM", SIGTERM}, {"STOP", SIGSTOP}, {"CONT", SIGCONT}, {"USR1", SIGUSR1}};

/// 0 when there is no such signal.
int signalOf(const QString &name)
{
    const QString bare = name.startsWith("SIG") ? name.mid(3) : name;
    return Signals.value(bare.toUpper(), qMax(0, bare.toInt()));
}

/// The answer of what returns why not, or an empty text.
Control::Answer answerOf(const QString &error)
{
    return {error.isEmpty(), error, {}};
}

Control::Answer failure(const QString &error)
{
    return {false, error, {}};
}

Control::Answer success(const QString &text, const QJsonArray &values = {})
{
    return {true, text, values};
}

} // namespace

Control::Control(Product &product, QObject *parent)
    : QObject(parent)
    , m_product(product)
    , m_commands {{"status", &Control::status},
                  {"enable", &Control::setEnabled},
                  {"disable", &Control::setEnabled},
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
                  {"kill", &Control::killProgram},
                  {"fault", &Control::fault},
                  {"spoof", &Control::spoof},
                  {"platform", &Control::platform},
                  {"bus", &Control::bus},
                  {"journal", &Control::journal},
                  {"help", &Control::help},
                  {"quit", &Control::quit}}
{
}

void Control::tell(const QString &line, const Done &done)
{
    QStringList words;
    const bool complete = splitWords(line, &words);
    const QString name = words.value(0);
    m_product.journal.record("control", name == "fault" ? "fault" : "control",
                             "- " + line.trimmed());
    const Done answer = [this, done](const Answer &outcome) {
        if (!outcome.ok)
            m_product.journal.record("control", "error", "- error: " + outcome.text);
        done(outcome);
    };
    if (!complete)
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
    const QString command = words.value(0);
    const QString first = words.value(1);
    QStringList known;
    if (words.isEmpty())
        known = m_commands.keys() + QStringList {"follow", "unfollow", "ulmoctl", "busctl"};
    else if (command == "phone" && words.size() == 1)
        known = m_product.bluez.phoneNames() + QStringList {"add"};
    else if (command == "phone" && first == "add" && words.size() > 2)
        known = QStringList {"address=", "name=", "pin=", "audio=", "known", "trusted"};
    else if (command == "phone" && first != "add" && words.size() == 2)
        known = m_product.bluez.verbs();
    else if (command == "service" && words.size() == 1)
        known = QStringList {"start", "stop", "restart", "kill"};
    else if (words.size() == 2 && (command == "kill" || (command == "service" && first == "kill")))
        known = Signals.keys();
    else if (command == "kill" && words.size() == 1)
        known = Faults::targets().mid(0, Faults::targets().size() - 1);
    else if (command == "fault" && words.size() == 1)
        known = Faults::targets() + QStringList {"bluez:", "clear"};
    else if (command == "fault" && first == "clear")
        known = Faults::targets() + QStringList {"bluez"};
    else if (command == "fault")
        known = Faults::behavioursOf(first).replaceInStrings(QRegularExpression("[A-Z\\[\\]]"), "")
            + QStringList {"times=", "after="};
    else if (command == "bus")
        known =
            words.size() == 1 ? QStringList {"session", "system"} : QStringList {"kill", "start"};
    else if (command == "platform" && words.size() == 1)
        known = Platform::events()
            + Platform::events().replaceInStrings(QRegularExpression("^"), "spoof-");
    else if (command == "backend")
        known = words.size() == 1 ? QStringList {"mgmt", "hci"} : QStringList {"other"};
    else if (command == "help")
        known = m_commands.keys();
    known = known.filter(QRegularExpression('^' + QRegularExpression::escape(begun)));
    known.sort();
    return known;
}

void Control::callService(const QString &method, const QVariantList &arguments, const Done &done)
{
    const QDBusConnection connection = Buses::connection("session", "caller");
    const QString interface = method.contains('.') ? method.section('.', 0, -2) : ServiceInterface;
    QDBusMessage message = QDBusMessage::createMethodCall(ServiceName, ServicePath, interface,
                                                          method.section('.', -1));
    message.setArguments(arguments);
    auto *watcher = new QDBusPendingCallWatcher(connection.asyncCall(message, CallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, done] {
        watcher->deleteLater();
        const QDBusMessage reply = watcher->reply();
        if (reply.type() == QDBusMessage::ErrorMessage) {
            done(failure(reply.errorName() + ": " + reply.errorMessage()));
            return;
        }
        const QJsonArray values = toJson(reply.arguments());
        done(success(QJsonDocument(values).toJson(QJsonDocument::Compact), values));
    });
}

void Control::status(const QStringList &, const Done &done)
{
    callService("GetStatus", {}, [done](const Answer &answer) {
        const QJsonArray &values = answer.values;
        if (!answer.ok || values.size() != 4) {
            done(answer);
            return;
        }
        done(success(QString("Bluetooth is %1 and %2; the PIN is %3")
                         .arg(values.at(2).toBool() ? "on" : "off",
                              values.at(1).toBool() ? "enabled" : "disabled",
                              values.at(3).toString()),
                     values));
    });
}

void Control::setEnabled(const QStringList &words, const Done &done)
{
    callService("SetEnabled", {words.first() == "enable"}, done);
}

/// "pin 1234" and the like: one word, and its argument where it has one.
void Control::callShort(const QStringList &words, const Done &done)
{
    const QString name = words.first();
    const QString argument = words.value(1);
    bool isNumber = false;
    const int number = argument.toInt(&isNumber);
    if (name == "disconnect" && words.size() == 1)
        callService("DisconnectDevice", {}, done);
    else if (name == "disconnect")
        done(failure("disconnect takes nothing"));
    else if (words.size() != 2)
        done(failure(name + " wants one value"));
    else if (name == "pin")
        callService("SetPid", {argument}, done);
    else if (name == "forget" && argument == "all")
        callService("RemoveAllDevices", {}, done);
    else if (name == "forget")
        callService("RemoveDevice", {argument}, done);
    else if (!isNumber)
        done(failure(name + " wants a number"));
    else
        callService(name == "volume" ? "SetVolume" : "SetMute", {number}, done);
}

void Control::call(const QStringList &words, const Done &done)
{
    QVariantList arguments;
    QString error;
    if (words.size() < 2)
        done(failure("call METHOD [TYPE:VALUE...]"));
    else if (!parseTypedArguments(words.mid(2), &arguments, &error))
        done(failure(error));
    else
        callService(words.at(1), arguments, done);
}

void Control::service(const QStringList &words, const Done &done)
{
    Service &service = m_product.service;
    const QString what = words.value(1);
    const bool isWaiting = what == "stop" || (what == "restart" && service.isRunning());
    if (what == "kill" && words.size() == 3) {
        const int signal = signalOf(words.at(2));
        done(answerOf(signal ? service.kill(signal)
                             : unknownWord("signal", words.at(2), Signals.keys())));
    } else if (what == "kill") {
        done(failure("service kill SIGNAL"));
    } else if (isWaiting) {
        const QString error = service.kill(SIGTERM);
        if (!error.isEmpty()) {
            done(failure(error));
            return;
        }
        auto *context = new QObject(this);
        connect(&service, &Service::ended, context, [=, &service](const QString &how) {
            context->deleteLater();
            const Answer ended = success("it has ended " + how);
            done(what == "stop" ? ended : answerOf(service.startService()));
        });
    } else if (what == "start" || what == "restart") {
        done(answerOf(service.startService()));
    } else {
        done(failure(what.isEmpty() ? "service start|stop|restart, or service kill SIGNAL"
                                    : unknownWord("service command", what,
                                                  {"start", "stop", "restart", "kill"})));
    }
}

void Control::bluez(const QStringList &words, const Done &done)
{
    QString text;
    const QString error = m_product.bluez.tell(words, &text);
    done(error.isEmpty() ? success(text) : failure(error));
}

void Control::timescale(const QStringList &words, const Done &done)
{
    const double scale = words.value(1).toDouble();
    if (scale > 0)
        m_product.clock.scale = scale;
    done(answerOf(scale > 0 ? QString() : "timescale wants a number above 0"));
}

void Control::killProgram(const QStringList &words, const Done &done)
{
    const QString name = words.value(1);
    const int signal = signalOf(words.value(2, "KILL"));
    Stub *stub = m_product.stubs.find(name);
    if (name.isEmpty())
        done(failure("kill PROGRAM [SIGNAL]"));
    else if (Faults::behavioursOf(name).isEmpty() || name == "soundmanager")
        done(failure(name == "service" ? QString("that is \"service kill SIGNAL\"")
                                       : unknownWord("program", name, Faults::targets())));
    else if (signal == 0)
        done(failure(unknownWord("signal", words.at(2), Signals.keys())));
    else if (!stub)
        done(failure(name + " is not running"));
    else
        done(answerOf(stub->kill(signal)));
}

void Control::fault(const QStringList &words, const Done &done)
{
    if (words.size() < 2) {
        done(failure("fault TARGET BEHAVIOUR [times=N] [after=N]; see \"help faults\""));
        return;
    }
    const QString error = words.at(1) == "clear" ? m_product.faults.clear(words.value(2))
                                                 : m_product.faults.add(words.mid(1));
    m_product.applyFaults();
    done(answerOf(error));
}

void Control::spoof(const QStringList &line, const Done &done)
{
    QStringList words = line;
    QVariantList arguments;
    QString error;
    const QString to = words.value(1).startsWith("to=") ? words.takeAt(1).mid(3) : QString();
    if (words.size() < 3) {
        done(failure("spoof [to=BUSNAME] PATH INTERFACE.SIGNAL [TYPE:VALUE...]"));
        return;
    }
    if (!parseTypedArguments(words.mid(3), &arguments, &error)) {
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

void Control::platform(const QStringList &words, const Done &done)
{
    QString event = words.value(1);
    const bool stranger = event.startsWith("spoof-");
    if (stranger)
        event.remove(0, int(strlen("spoof-")));
    if (event.isEmpty())
        done(failure("platform " + Platform::events().join('|') + " [REASON]"));
    else if (!Platform::events().contains(event))
        done(failure(unknownWord("platform event", event, Platform::events())));
    else
        done(answerOf(Platform::send(event, words.mid(2).join(' '), stranger)));
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
    bool isNumber = false;
    const int count = words.value(1, "20").toInt(&isNumber);
    if (!isNumber || count < 1 || words.size() > 2) {
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
    done(success(lines.join('\n')));
}

void Control::help(const QStringList &words, const Done &done)
{
    const QString wanted = words.value(1);
    if (wanted.isEmpty()) {
        done(success(Overview));
        return;
    }
    for (const Topic &topic : Topics) {
        if (wanted == topic.name || QString(topic.commands).split(' ').contains(wanted)) {
            done(success(topic.text));
            return;
        }
    }
    QStringList topics {"help"};
    for (const Topic &topic : Topics)
        topics += QStringList {topic.name} + QString(topic.commands).split(' ');
    done(wanted == "help" ? success(Overview) : failure(unknownWord("topic", wanted, topics)));
}

void Control::quit(const QStringList &, const Done &done)
{
    done(success({}));
    m_product.quit(0);
}
