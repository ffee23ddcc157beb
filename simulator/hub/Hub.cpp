#include "Hub.h"

#include "BackgroundProcess.h"
#include "BusConnection.h"
#include "Control.h"
#include "Program.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QTimer>

#include <csignal>
#include <ctime>
#include <unistd.h>

namespace {

const char ProgramFolder[] = "/run/product/bin/";
const char HostPrograms[] = "/run/product/host/bin/";
const int BusStartTimeoutMs = 10000;
const int ServiceEndTimeoutMs = 20000;

/// Takes what comes before the first entry that the service has sent itself.
QVector<QJsonObject> takeCauses(QVector<QJsonObject> *entries)
{
    int count = 0;
    while (count < entries->size() && entries->at(count).value("senderName") != "service")
        ++count;
    const QVector<QJsonObject> causes = entries->mid(0, count);
    entries->remove(0, count);
    return causes;
}

/// The same from two readings of one bus.
QVector<QJsonObject> takeCauses(QVector<QJsonObject> *first, QVector<QJsonObject> *second)
{
    QVector<QJsonObject> causes = takeCauses(first);
    if (first->isEmpty())
        causes += takeCauses(second);
    return causes;
}

} // namespace

Hub::Hub(const QString &build, const QString &folder, bool realPulse, QObject *parent)
    : QObject(parent)
    , m_folder(folder)
    , m_journal(folder + "/journal.jsonl")
    , m_sessionMonitor("session")
    , m_systemMonitor("system")
    , m_service(build + "/service/bluetoothmanager")
    , m_soundPath(realPulse, build)
    , m_control(new Control(*this))
{
    const QDir programs(ProgramFolder);
    for (const QFileInfo &file : programs.entryInfoList(QDir::Files | QDir::System))
        m_files.insert(file.fileName(), file.symLinkTarget());
}

Hub::~Hub()
{
    m_service.disconnect(this);
    for (QProcess *bus : m_buses) {
        bus->kill();
        bus->waitForFinished();
    }
}

bool Hub::start(QString *error)
{
    if (!m_journal.isOpen()) {
        *error = "cannot write the journal into " + m_folder;
        return false;
    }
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // The board's sound is told by that clock.
    record({{"lane", "control"},
            {"kind", "clock"},
            {"text", "product started"},
            {"monotonic", double(now.tv_sec) + double(now.tv_nsec) / 1e9}});
    connectPieces();
    for (const QString &bus : {QString("session"), QString("system")}) {
        m_buses.insert(bus, new BackgroundProcess(this));
        if (!startBus(bus, error))
            return false;
    }
    if (!m_server.listen(m_folder + "/hub")) {
        *error = m_server.errorString();
        return false;
    }
    return true;
}

void Hub::connectPieces()
{
    for (BusMonitor *monitor : {&m_sessionMonitor, &m_systemMonitor}) {
        monitor->setProgramNames([this](qint64 pid) { return programName(pid); });
        connect(monitor, &BusMonitor::readable, this, &Hub::catchUp);
    }
    connect(&m_service, &ServiceProcess::readable, this, &Hub::catchUp);
    connect(&m_service, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            &Hub::serviceFinished);
    connect(&m_server, &QLocalServer::newConnection, this, &Hub::acceptConnections);
    connect(&m_bluetoothd, &Bluetoothd::waitingPhoneRefused, this,
            [this](const QString &line, const QString &reason) {
                record({{"lane", "control"}, {"kind", "error"}, {"text", line + ": " + reason}});
            });
    connect(&m_soundPath, &SoundPath::takenChanged, this, [this](bool taken) {
        m_bluetoothd.setOption("stream-taken", taken ? QJsonValue(true) : QJsonValue());
    });
    connect(&m_soundPath, &SoundPath::happened, this, [this](const QString &text) {
        record({{"lane", "pulse"}, {"kind", "source"}, {"text", text}});
    });
    connect(&m_loginManager, &LoginManager::happened, this, [this](const QString &text) {
        record({{"lane", "platform"}, {"kind", "machine"}, {"text", text}});
    });
}

bool Hub::startBus(const QString &bus, QString *error)
{
    QProcess *process = m_buses.value(bus);
    process->setStandardErrorFile(m_folder + "/buses.log", QIODevice::Append);
    process->start("dbus-daemon",
                   {"--config-file=/run/product/bus.conf", "--nofork", "--nopidfile",
                    "--address=" + busAddress(bus), "--print-address"});
    // Once the address is printed, the socket is there.
    if (!process->waitForReadyRead(BusStartTimeoutMs)) {
        *error = "the " + bus + " bus does not start";
        return false;
    }
    BusMonitor &monitor = bus == "session" ? m_sessionMonitor : m_systemMonitor;
    if (!monitor.start(busAddress(bus), error))
        return false;
    if (!startServices(bus)) {
        *error = "the product's services cannot connect to the " + bus + " bus";
        return false;
    }
    // How all this came to the bus is not part of the story.
    monitor.takeEntries();
    return true;
}

bool Hub::startServices(const QString &bus)
{
    return bus == "session" ? m_soundManager.start() && m_platform.start()
                            : m_loginManager.connectToBus();
}

void Hub::record(const QJsonObject &entry)
{
    catchUp();
    m_journal.record(entry);
}

/**
 * Records what the buses and the service have said meanwhile, causes before effects.
 *
 * What the service sent comes after what it had logged before: so each bus is read before the log.
 * What others sent comes before what the service then logged about it: so each is read after the
 * log too, to the point where it is now, and what others sent goes first. The rest of that second
 * reading waits for another reading of the log. What the service sends after the end of a program
 * that it has waited for comes after that end.
 */
void Hub::catchUp()
{
    QVector<QJsonObject> system = m_systemMonitor.takeEntries();
    QVector<QJsonObject> session = m_sessionMonitor.takeEntries();
    do {
        const QList<Program *> hungUp = hungUpPrograms();
        const QVector<QJsonObject> logged = m_service.takeEntries();
        if (!logged.isEmpty())
            settleBuses();
        QVector<QJsonObject> laterSystem = m_systemMonitor.takeEntries();
        QVector<QJsonObject> laterSession = m_sessionMonitor.takeEntries();
        recordAll(takeCauses(&system, &laterSystem) + takeCauses(&session, &laterSession) + logged);
        if (!system.isEmpty() || !session.isEmpty()) {
            for (Program *program : hungUp)
                recordEnd(program);
        }
        recordAll(system + session);
        system = laterSystem;
        session = laterSession;
    } while (!system.isEmpty() || !session.isEmpty());
}

QList<Program *> Hub::hungUpPrograms() const
{
    QList<Program *> hungUp;
    for (Program *program : m_programs) {
        if (program->hasHungUp())
            hungUp.append(program);
    }
    return hungUp;
}

void Hub::recordAll(const QVector<QJsonObject> &entries)
{
    for (const QJsonObject &entry : entries)
        m_journal.record(entry);
}

void Hub::recordEnd(Program *program)
{
    if (!program->isEndRecorded())
        m_journal.record(program->entry("end"));
    program->setEndRecorded();
}

/// Has the monitors read everything that has been sent so far, also what still lies in a bus.
void Hub::settleBuses()
{
    m_systemMonitor.settle();
    m_sessionMonitor.settle();
}

QString Hub::programName(qint64 pid) const
{
    if (m_service.isRunning() && m_service.processId() == pid)
        return "service";
    for (const Program *program : m_programs) {
        if (program->pid() == pid)
            return program->name();
    }
    return QString();
}

Result Hub::startService()
{
    QString error;
    if (!m_service.startService(&error))
        return Result::failure(error);
    record(m_service.startEntry());
    return Result::success();
}

Result Hub::signalService(int signal)
{
    if (!m_service.isRunning())
        return Result::failure("the service is not running");
    kill(pid_t(m_service.processId()), signal);
    return Result::success();
}

void Hub::stopService(const Done &done)
{
    const Result signalled = signalService(SIGTERM);
    if (signalled.ok)
        m_serviceEnd.append(done);
    else
        done(signalled);
}

void Hub::serviceFinished()
{
    const QJsonObject entry = m_service.endEntry();
    settleBuses();
    record(entry);
    const QList<Done> waiting = m_serviceEnd;
    m_serviceEnd.clear();
    const QString how = entry.contains("status")
        ? QString("exit status %1").arg(entry.value("status").toInt())
        : QString("ended by signal %1").arg(entry.value("signal").toInt());
    for (const Done &done : waiting)
        done(Result::success(how));
}

void Hub::quit(int status)
{
    if (!m_service.isRunning()) {
        catchUp();
        QCoreApplication::exit(status);
        return;
    }
    stopService([status](const Result &) { QCoreApplication::exit(status); });
    QTimer::singleShot(ServiceEndTimeoutMs, this, [status] { QCoreApplication::exit(status); });
}

bool Hub::isBoardProgram(const QString &program) const
{
    return m_files.contains(program);
}

void Hub::updatePresence()
{
    for (auto file = m_files.constBegin(); file != m_files.constEnd(); ++file) {
        const QString link = ProgramFolder + file.key();
        if (m_faults.isMissing(file.key()))
            QFile::remove(link);
        else if (!QFileInfo(link).isSymLink())
            QFile::link(file.value(), link);
    }
}

Result Hub::killProgram(const QString &name, int signal)
{
    for (auto program = m_programs.crbegin(); program != m_programs.crend(); ++program) {
        if ((*program)->name() == name) {
            kill(pid_t((*program)->pid()), signal);
            return Result::success();
        }
    }
    return Result::failure(name + " is not running");
}

Result Hub::killBus(const QString &bus)
{
    QProcess *process = m_buses.value(bus);
    if (!process || process->state() == QProcess::NotRunning)
        return Result::failure("there is no bus \"" + bus + '"');
    catchUp();
    process->kill();
    process->waitForFinished();
    return Result::success();
}

Result Hub::startBus(const QString &bus)
{
    const QProcess *process = m_buses.value(bus);
    if (!process || process->state() != QProcess::NotRunning)
        return Result::failure("no bus \"" + bus + "\" was ended");
    QString error;
    return startBus(bus, &error) ? Result::success() : Result::failure(error);
}

void Hub::acceptConnections()
{
    while (QLocalSocket *socket = m_server.nextPendingConnection()) {
        auto *program = new Program(socket, this);
        connect(program, &Program::helloReceived, this, [this, program] { welcome(program); });
        connect(program, &Program::received, this,
                [this, program](const QJsonObject &object) { received(program, object); });
        connect(program, &Program::ended, this, [this, program] { ended(program); });
    }
}

void Hub::welcome(Program *program)
{
    // In this order: one that has ended already is not to end before its start.
    record(program->entry("start"));
    m_programs.append(program);
    const QJsonObject answer = answerTo(*program);
    if (answer.value("behaviour") == "normal")
        forwardAdapterCommand(*program);
    program->send(answer);
    if (program->name() == "bluetoothd")
        m_bluetoothd.attach(program);
}

QJsonObject Hub::answerTo(const Program &program)
{
    const QJsonObject fault = m_faults.behaviourOfStart(program.name(), program.arguments());
    static const QStringList fatal {"exit", "crash", "hang"};
    if (fatal.contains(fault.value("behaviour").toString()))
        return fault;
    QJsonObject answer = usualAnswerTo(program);
    for (auto field = fault.begin(); field != fault.end(); ++field)
        answer.insert(field.key(), field.value());
    return answer;
}

QJsonObject Hub::usualAnswerTo(const Program &program)
{
    QJsonObject answer {{"behaviour", "normal"}};
    const bool real = m_soundPath.isReal();
    if (program.name() == "bluetoothd") {
        m_bluetoothd.addOptions(&answer);
    } else if (program.name() == "pactl" && !real) {
        answer = m_soundPath.pactlAnswer(program.arguments());
    } else if (program.name() == "pactl" || (program.name() == "pulseaudio" && real)) {
        answer.insert("exec", HostPrograms + program.name());
        if (program.name() == "pulseaudio")
            answer.insert("preload", qEnvironmentVariable("PRODUCT_ONE_GROUP"));
    } else if (program.name() == "sdptool" && program.arguments().value(0) == "browse") {
        answer.insert("output",
                      "Service Name: Headset Audio Gateway\n"
                      "Service RecHandle: 0x10000\n");
    }
    return answer;
}

/// The kernel tells bluetoothd of what hciconfig does.
void Hub::forwardAdapterCommand(const Program &program)
{
    static const QStringList adapterCommands {"up", "down", "piscan", "noscan"};
    const QString command = program.arguments().value(1);
    if (program.name() == "hciconfig" && adapterCommands.contains(command)
        && m_bluetoothd.isRunning())
        m_bluetoothd.command("adapter " + command, [](const Result &) {});
}

void Hub::received(Program *program, const QJsonObject &object)
{
    if (program->name().isEmpty()) {
        controlReceived(program, object);
    } else if (object.contains("event")) {
        const QJsonObject entry = object.value("event").toObject();
        record(entry);
        if (entry.value("kind") == "phone")
            m_soundPath.phoneEvent(entry);
    } else if (object.contains("ready")) {
        m_soundPath.setServerReady(true);
    } else {
        m_bluetoothd.handle(object);
    }
}

void Hub::controlReceived(Program *connection, const QJsonObject &object)
{
    if (object.contains("follow")) {
        disconnect(&m_journal, nullptr, connection, nullptr);
        if (object.value("follow").toBool())
            follow(connection);
    } else if (object.contains("sync")) {
        settleBuses();
        catchUp();
        connection->send({{"ok", QString()}});
    } else if (object.contains("tell")) {
        connection->told().append(object.value("tell").toString());
        if (connection->told().size() == 1)
            carryOutNext(connection);
    }
}

void Hub::carryOutNext(Program *connection)
{
    const QPointer<Program> alive(connection);
    m_control->tell(connection->told().first(), [this, alive](const Result &result) {
        if (!alive)
            return;
        QJsonObject answer {{result.ok ? "ok" : "error", result.text}};
        if (!result.values.isEmpty())
            answer.insert("values", result.values);
        alive->send(answer);
        alive->told().removeFirst();
        if (!alive->told().isEmpty())
            QMetaObject::invokeMethod(
                this,
                [this, alive] {
                    if (alive)
                        carryOutNext(alive);
                },
                Qt::QueuedConnection);
    });
}

void Hub::follow(Program *connection)
{
    const auto sendEntry = [connection](const QByteArray &line) {
        connection->sendLine("{\"journal\":" + line + '}');
    };
    for (const QByteArray &line : m_journal.contents().split('\n')) {
        if (!line.isEmpty())
            sendEntry(line);
    }
    connect(&m_journal, &Journal::recorded, connection, sendEntry);
}

void Hub::ended(Program *program)
{
    program->deleteLater();
    if (program->name().isEmpty())
        return;
    if (program->name() == "bluetoothd" || program->name() == "agent")
        settleBuses();
    catchUp();
    recordEnd(program);
    m_programs.removeOne(program);
    m_bluetoothd.detach(program);
    if (program->name() == "pulseaudio")
        m_soundPath.setServerReady(false);
    // A daemon that was killed could not tell that the phone's stream went with it.
    if (program->name() == "bluetoothd")
        m_soundPath.phoneEvent({{"state", "stream-closed"}});
}
