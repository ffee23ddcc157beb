#include "Bench.h"

#include "Program.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QLocalSocket>
#include <QRegularExpression>
#include <QTimer>
#include <QtTest>

#include <csignal>

namespace {

const int Patience = 20000;

QString shortName(const QString &name)
{
    return QString(name).remove("org.bluez.").replace("org.freedesktop.DBus", "DBus");
}

} // namespace

Bench::Bench(const QString &backend) : m_monitor("system"), m_caller(m_bus.connection("caller"))
{
    for (const char *program : {"bluetoothd", "agent"})
        QFile::link(PRODUCT_SIMULATOR, m_folder.filePath(program));
    m_hub.setOption("timescale", Scale);
    m_hub.setOption("state", m_folder.filePath("state"));
    m_hub.setOption("adapter-delay", 200);
    m_hub.setOption("backend", backend);
    m_server.listen(m_folder.filePath("hub"));
    QObject::connect(&m_server, &QLocalServer::newConnection,
                     [this] { welcome(new Program(m_server.nextPendingConnection(), &m_server)); });

    m_clock.start();
    QString error;
    if (!m_monitor.start(m_bus.address(), &error))
        qFatal("the test's bus cannot be monitored: %s", qPrintable(error));
    QObject::connect(&m_monitor, &BusMonitor::readable, [this] {
        for (const QJsonObject &entry : m_monitor.takeEntries())
            record(entry);
    });
}

Bench::~Bench()
{
    for (QProcess *process : {&m_agent, &m_daemon}) {
        process->kill();
        process->waitForFinished();
    }
    QDBusConnection::disconnectFromBus("caller");
}

void Bench::welcome(Program *program)
{
    QObject::connect(program, &Program::helloReceived, [this, program] {
        QJsonObject answer {{"behaviour", "normal"}};
        m_hub.addOptions(&answer);
        program->send(answer);
        if (program->name() == "bluetoothd")
            m_hub.attach(program);
    });
    QObject::connect(program, &Program::received,
                     [this](const QJsonObject &object) { m_hub.handle(object); });
    QObject::connect(program, &Program::ended, [this, program] {
        m_hub.detach(program);
        program->deleteLater();
    });
}

void Bench::start(QProcess &process, const QString &program, const QStringList &arguments)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SYSTEM_BUS_ADDRESS", m_bus.address());
    environment.insert("PRODUCT_HUB", m_server.fullServerName());
    environment.insert("BLUEZHOSTNAME", "unit-0");
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(m_folder.filePath(program), arguments);
}

bool Bench::startDaemon()
{
    start(m_daemon, "bluetoothd", {"-n"});
    return QTest::qWaitFor([this] { return m_hub.isRunning(); });
}

bool Bench::startAgent()
{
    launchAgent();
    return waitForLine("return adapter Adapter.RegisterAgent");
}

void Bench::launchAgent()
{
    start(
        m_agent, "agent",
        {"--path", "/org/bluez/agent", "--delay", "1", "--capabilites", "NoInputNoOutput", "7351"});
}

bool Bench::stop(QProcess &process)
{
    ::kill(pid_t(process.processId()), SIGTERM);
    return QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, Patience)
        && (&process != &m_daemon || QTest::qWaitFor([this] { return !m_hub.isRunning(); }))
        && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

Result Bench::tell(const QString &line)
{
    QEventLoop loop;
    Result result = Result::failure("no answer");
    bool isAnswered = false;
    m_hub.command(line, [&](const Result &answer) {
        result = answer;
        isAnswered = true;
        loop.quit();
    });
    if (!isAnswered)
        loop.exec();
    return result;
}

bool Bench::addPhone(const QString &name, const QString &more)
{
    const QString address =
        QStringLiteral("00:AA:01:%1:00:%1").arg(m_phones.size() + 1, 2, 10, QChar('0'));
    m_phones.insert(name, "dev_" + QString(address).replace(':', '_'));
    return tell(QStringLiteral("phone add %1 address=%2 %3").arg(name, address, more)).ok;
}

QString Bench::path(const QString &object) const
{
    const QString adapter = QStringLiteral("/org/bluez/%1/hci0").arg(m_daemon.processId());
    if (object == "adapter")
        return adapter;
    if (object == "agent")
        return "/org/bluez/agent";
    return m_phones.contains(object) ? adapter + '/' + m_phones.value(object) : object;
}

void Bench::clear()
{
    m_lines.clear();
    m_times.clear();
}

bool Bench::waitForLines(int count) const
{
    return waitUntil([&] { return m_lines.size() >= count; });
}

bool Bench::waitForLine(const QString &line) const
{
    return waitUntil([&] { return m_lines.contains(line); });
}

bool Bench::waitUntil(const std::function<bool()> &condition) const
{
    // Woken by each message, since product time runs fast: no polling.
    QEventLoop loop;
    QObject::connect(&m_monitor, &BusMonitor::readable, &loop, [&] {
        if (condition())
            loop.quit();
    });
    QTimer::singleShot(Patience, &loop, &QEventLoop::quit);
    if (!condition())
        loop.exec();
    return condition();
}

void Bench::record(const QJsonObject &entry)
{
    const QString kind = entry.value("kind").toString();
    const QString interface = shortName(entry.value("interface").toString());
    const QString member = entry.value("member").toString();
    const QString object = role(entry.value("path").toString());
    const QJsonArray arguments = entry.value("arguments").toArray();
    const QString what = object + ' ' + interface + '.' + member;
    QStringList words;
    for (const QJsonValue argument : arguments)
        words.append(text(argument));

    const auto add = [this](const QString &line) {
        m_lines.append(line);
        m_times.append(m_clock.elapsed());
    };
    if (member == "NameOwnerChanged" && arguments.first() == "org.bluez")
        add(arguments.at(2) == "" ? "org.bluez vanishes" : "org.bluez appears");
    else if (!entry.value("interface").toString().startsWith("org.bluez."))
        return;
    else if (kind == "signal" && member == "PropertyChanged")
        add(object + ' ' + interface + '.' + arguments.first().toString() + " = " + words.value(1));
    else if (kind == "signal" || (kind == "call" && object == "agent"))
        add((QStringList {kind, what} + words).join(' '));
    // Nobody waits for the answer to Release: it may come after the daemon's end.
    else if (kind == "reply" && member != "Release")
        add((QStringList {"return", what} + words).join(' '));
    else if (kind == "error" && member != "Release")
        add((QStringList {kind, what, shortName(entry.value("name").toString())} + words)
                .join(' '));
}

QString Bench::role(const QString &path) const
{
    static const QRegularExpression daemonsPart("^/org/bluez/\\d+/hci0(/|$)");
    if (path == "/org/bluez/agent")
        return "agent";
    QString rest = path;
    if (rest.remove(daemonsPart) == path)
        return path;
    return rest.isEmpty() ? "adapter" : m_phones.key(rest, rest);
}

QString Bench::text(const QJsonValue &value) const
{
    static const QRegularExpression uuid("^0000(....)-0000-1000-8000-00805f9b34fb$");
    QStringList parts;
    if (value.isArray()) {
        for (const QJsonValue part : value.toArray())
            parts.append(text(part));
        return '[' + parts.join(' ') + ']';
    }
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto field = object.begin(); field != object.end(); ++field)
            parts.append('"' + field.key() + "\" " + text(field.value()));
        return '{' + parts.join(' ') + '}';
    }
    if (!value.isString())
        return value.toVariant().toString();
    const QString string = value.toString().trimmed();
    if (string.startsWith('/'))
        return role(string);
    const auto match = uuid.match(string);
    return match.hasMatch() ? match.captured(1) : '"' + string + '"';
}
