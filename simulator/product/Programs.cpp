#include "Programs.h"

#include "Buses.h"
#include "bluez/BlueZ.h"
#include "core/Faults.h"
#include "core/Journal.h"
#include "sound/Sound.h"

#include <QDir>
#include <QJsonArray>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char SocketPath[] = "/run/product/stubs";
const QString ProgramFolder = QStringLiteral("/run/product/bin/");
const QString RealPrograms = QStringLiteral("/run/product/host/bin/");
const QString PulseFolder = QStringLiteral("/var/run/pulse/");
const QStringList Daemons {"bluetoothd", "agent", "pulseaudio"};
const int EndMs = 20; ///< from SIGTERM to the end of a daemon; the real ones take 10 to 50

/// As a real one answers "browse local". The service cuts the record's number out of it by the
/// words "Headset Audio Gateway", which stand there twice, and so deletes nothing.
const char Browsed[] = R"(Browsing FF:FF:FF:00:00:00 ...
Service Name: Headset Audio Gateway
Service RecHandle: 0x10005
Service Class ID List:
  "Headset Audio Gateway" (0x1112)
  "Generic Audio" (0x1203)
)";

const char *laneOf(const QString &program)
{
    if (program == "bluetoothd")
        return "bluez";
    if (program == "agent")
        return "agent";
    return program == "pulseaudio" || program == "pactl" ? "pulse" : "tool";
}

} // namespace

/// A program as long as it lives: our end of the socket of its stub.
struct Programs::Stub : QSocketNotifier
{
    Stub(int socket, QObject *parent) : QSocketNotifier(socket, Read, parent)
    {
        ucred peer = {};
        socklen_t size = sizeof peer;
        getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size);
        pid = peer.pid;
    }
    ~Stub() override
    {
        setEnabled(false);
        ::close(int(socket()));
    }

    /// Gives an order of stub.c.
    void order(const QStringList &texts) const
    {
        const QByteArray packet = texts.join(QChar('\0')).toUtf8() + '\0';
        ::send(int(socket()), packet.constData(), size_t(packet.size()), MSG_NOSIGNAL);
    }
    void exit(int status)
    {
        endsBy = "status";
        endCode = status;
        order({"exit", QString::number(status)});
    }
    void endBy(int signal)
    {
        endCode = signal;
        order({"signal", QString::number(signal)});
    }

    qint64 pid = 0;
    QString name;
    QString hostName; ///< its environment variable BLUEZHOSTNAME
    QStringList arguments;
    bool ignoresTerm = false;
    QString endsBy = "signal"; ///< or "status"; empty of a real program, which tells nobody
    int endCode = SIGKILL; ///< of SIGTERM it tells
};

Programs::Programs(Journal &journal, Faults &faults, BlueZ &bluez, Sound &sound, bool realPulse)
    : m_journal(journal), m_faults(faults), m_bluez(bluez), m_sound(sound), m_realPulse(realPulse)
{
    for (const QFileInfo &file : QDir(ProgramFolder).entryInfoList(QDir::Files | QDir::System))
        m_files.insert(file.fileName(), file.symLinkTarget());
    connect(&bluez, &BlueZ::agentExited, this, [this](int status) {
        if (m_agent)
            m_agent->exit(status);
        m_agent = nullptr;
    });
    connect(&bluez, &BlueZ::phonePlays, this, [this](const QString &phone, const QString &device) {
        const QString before = m_sources.take(phone);
        if (!device.isEmpty())
            m_sources.insert(phone, "bluez_source." + device.section("/dev_", -1));
        else if (!before.isEmpty() && before == m_loopback)
            setLoopback(QString());
    });
}

Programs::~Programs()
{
    ::close(m_socket);
}

QString Programs::listen()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, SocketPath, sizeof address.sun_path);
    m_socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (::bind(m_socket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || ::listen(m_socket, SOMAXCONN) != 0)
        return SocketPath + QString(": ") + strerror(errno);
    auto *notifier = new QSocketNotifier(m_socket, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &Programs::accept);
    return {};
}

void Programs::accept()
{
    int socket = -1;
    while ((socket = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
        auto *stub = new Stub(socket, this);
        m_stubs.append(stub);
        connect(stub, &Stub::activated, this, [this, stub] { read(stub); });
        read(stub);
    }
}

void Programs::catchUp()
{
    accept();
    const QList<Stub *> stubs = m_stubs;
    for (Stub *stub : stubs) {
        // One that is read may end others.
        if (m_stubs.contains(stub))
            read(stub);
    }
}

void Programs::read(Stub *stub)
{
    char packet[65536];
    ssize_t size = 0;
    while ((size = ::recv(int(stub->socket()), packet, sizeof packet, MSG_DONTWAIT)) > 0) {
        QStringList texts = QString::fromUtf8(packet, int(size)).split(QChar('\0'));
        texts.removeLast();
        if (stub->name.isEmpty()) {
            stub->name = texts.takeFirst();
            stub->hostName = texts.takeFirst();
            stub->arguments = texts;
            emit aboutToSpeak();
            recordStart(*stub);
            started(stub);
        } else if (texts.value(0) == "term") {
            emit aboutToSpeak();
            terminationRequested(stub);
        } else {
            const int status = texts.value(1).toInt();
            if (status == 0 && stub->arguments.contains("module-bluetooth-discover"))
                m_sound.discovered();
            stub->exit(status);
        }
    }
    const bool isGone = size == 0 || (errno != EAGAIN && errno != EINTR);
    if (isGone && m_stubs.removeOne(stub)) {
        stub->setEnabled(false);
        stub->deleteLater();
        ended(stub);
    }
}

void Programs::recordStart(const Stub &stub)
{
    const QString mark = Daemons.contains(stub.name) ? "& " : "$ ";
    m_journal.record(laneOf(stub.name), "start",
                     mark + (QStringList {stub.name} + stub.arguments).join(' '),
                     {{"program", stub.name},
                      {"pid", stub.pid},
                      {"arguments", QJsonArray::fromStringList(stub.arguments)}});
}

void Programs::recordEnd(const Stub &stub)
{
    QStringList words {".", stub.name};
    if (!Daemons.contains(stub.name))
        words += stub.arguments;
    words.append("ended");
    QJsonObject facts {{"program", stub.name}, {"pid", stub.pid}};
    if (!stub.endsBy.isEmpty()) {
        words.append(stub.endsBy == "status" ? "with status" : "by signal");
        words.append(QString::number(stub.endCode));
        facts.insert(stub.endsBy, stub.endCode);
    }
    m_journal.record(laneOf(stub.name), "end", words.join(' '), facts);
}

void Programs::updatePresence()
{
    for (auto file = m_files.constBegin(); file != m_files.constEnd(); ++file) {
        const QString link = ProgramFolder + file.key();
        if (m_faults.standing(file.key(), "missing"))
            QFile::remove(link);
        else if (!QFileInfo(link).isSymLink())
            QFile::link(file.value(), link);
    }
}

QString Programs::kill(const QString &program, int signal)
{
    for (auto place = m_stubs.crbegin(); place != m_stubs.crend(); ++place) {
        Stub *stub = *place;
        if (stub->name != program)
            continue;
        if (signal != SIGTERM && signal != SIGSTOP && signal != SIGCONT) {
            stub->endsBy = "signal";
            stub->endCode = signal;
        }
        ::kill(pid_t(stub->pid), signal);
        return {};
    }
    return program + " is not running";
}

void Programs::systemBusLost()
{
    if (m_bluetoothd) {
        m_bluez.stop(false);
        m_bluetoothd->exit(1);
    }
    if (m_agent) {
        m_bluez.stopAgent(false);
        m_agent->exit(1);
    }
    m_bluetoothd = nullptr;
    m_agent = nullptr;
}

void Programs::started(Stub *stub)
{
    const Faults::Behaviour fault = m_faults.next(stub->name, stub->arguments.join(' '));
    if (fault.name == "exit") {
        stub->exit(fault.number());
    } else if (fault.name == "crash") {
        stub->endBy(SIGSEGV);
    } else if (fault.name == "delay") {
        QTimer::singleShot(fault.number(), stub, [this, stub] { carryOut(stub); });
    } else if (fault.name != "hang") {
        if (fault.name == "ignore-term")
            stub->ignoresTerm = true;
        carryOut(stub);
    }
}

void Programs::carryOut(Stub *stub)
{
    const QString name = stub->name;
    if (name == "bluetoothd" || name == "agent") {
        startOnBus(stub);
    } else if (name == "pulseaudio") {
        startPulseaudio(stub);
    } else if (name == "pactl") {
        runPactl(stub);
    } else if (name == "sdptool") {
        runSdptool(stub);
    } else {
        if (name == "hciconfig")
            m_bluez.hciconfig(stub->arguments);
        stub->exit(0);
    }
}

void Programs::startOnBus(Stub *stub)
{
    const bool isAgent = stub->name == "agent";
    Stub *&place = isAgent ? m_agent : m_bluetoothd;
    // There can be one at a time, and none without a bus.
    if (place || !Buses::connection("system", "probe").isConnected()) {
        stub->exit(1);
        return;
    }
    place = stub;
    if (isAgent)
        m_bluez.startAgent(stub->arguments);
    else
        m_bluez.start(stub->pid, stub->hostName);
}

void Programs::startPulseaudio(Stub *stub)
{
    m_pulse = stub;
    if (m_realPulse) {
        stub->endsBy.clear();
        stub->order(
            {"become", RealPrograms + stub->name, qEnvironmentVariable("PRODUCT_ONE_GROUP")});
        return;
    }
    QDir().mkpath(PulseFolder);
    QFile pidFile(PulseFolder + "pid");
    if (pidFile.open(QIODevice::WriteOnly))
        pidFile.write(QByteArray::number(stub->pid) + '\n');
}

void Programs::runSdptool(Stub *stub)
{
    const QStringList arguments = stub->arguments;
    if (arguments.value(0) == "browse")
        stub->order({"print", Browsed});
    const bool fails = arguments.value(0) == "del" && !arguments.value(1).startsWith("0x");
    stub->exit(fails ? 255 : 0);
}

void Programs::runPactl(Stub *stub)
{
    const QStringList arguments = stub->arguments;
    const bool isLoad = arguments.value(0) == "load-module";
    if (m_realPulse) {
        stub->order({"run", RealPrograms + stub->name});
    } else if (!m_pulse || (isLoad && !loadModule(arguments))) {
        stub->exit(1);
    } else {
        if (isLoad)
            stub->order({"print", QString::number(m_nextModule++) + '\n'});
        const bool needsLoopback = arguments.value(0).startsWith("set-source-output-");
        stub->exit(needsLoopback && m_loopback.isEmpty() ? 1 : 0);
    }
}

/// Whether the scripted server has loaded it.
bool Programs::loadModule(const QStringList &arguments)
{
    m_discovery = m_discovery || arguments.contains("module-bluetooth-discover");
    if (!arguments.contains("module-loopback"))
        return true;
    for (const QString &source : qAsConst(m_sources)) {
        if (m_discovery && arguments.contains("source=" + source)) {
            setLoopback(source);
            return true;
        }
    }
    return false;
}

void Programs::setLoopback(const QString &source)
{
    if (source == m_loopback)
        return;
    m_loopback = source;
    emit streamTaken(!source.isEmpty());
}

void Programs::terminationRequested(Stub *stub)
{
    if (stub->ignoresTerm)
        return;
    if (stub == m_bluetoothd) {
        m_bluez.stop(true);
        m_bluetoothd = nullptr;
    } else if (stub == m_agent) {
        m_bluez.stopAgent(true);
        m_agent = nullptr;
    } else if (stub == m_pulse) {
        QFile::remove(PulseFolder + "pid");
    } else {
        stub->endBy(SIGTERM);
        return;
    }
    QTimer::singleShot(EndMs, stub, [stub] { stub->exit(0); });
}

void Programs::ended(Stub *stub)
{
    if (!stub->name.isEmpty())
        recordEnd(*stub);
    if (stub == m_bluetoothd) {
        m_bluetoothd = nullptr;
        m_bluez.stop(false);
    } else if (stub == m_agent) {
        m_agent = nullptr;
        m_bluez.stopAgent(false);
    } else if (stub == m_pulse) {
        m_pulse = nullptr;
        m_discovery = false;
        setLoopback(QString());
        m_sound.pulseStopped();
    }
}
