#include "Programs.h"

#include "Buses.h"
#include "Stubs.h"
#include "bluez/BlueZ.h"
#include "core/Faults.h"
#include "sound/Sound.h"

#include <QDir>
#include <QFile>
#include <QTimer>

#include <csignal>

namespace {

const char ProgramFolder[] = "/run/product/bin/";
const char RealPrograms[] = "/run/product/host/bin/";
const char PulseFolder[] = "/var/run/pulse";
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

} // namespace

Programs::Programs(Stubs &stubs, Faults &faults, BlueZ &bluez, Sound &sound, bool realPulse,
                   QObject *parent)
    : QObject(parent)
    , m_stubs(stubs)
    , m_faults(faults)
    , m_bluez(bluez)
    , m_sound(sound)
    , m_realPulse(realPulse)
{
    const QDir programs(ProgramFolder);
    for (const QFileInfo &file : programs.entryInfoList(QDir::Files | QDir::System))
        m_files.insert(file.fileName(), file.symLinkTarget());
    connect(&stubs, &Stubs::started, this, &Programs::started);
    connect(&stubs, &Stubs::terminationRequested, this, &Programs::terminationRequested);
    connect(&stubs, &Stubs::programEnded, this, &Programs::programEnded);
    connect(&stubs, &Stubs::ended, this, &Programs::ended);
    connect(&bluez, &BlueZ::agentExited, this, [this](int status) {
        if (m_agent)
            m_agent->exit(status);
        m_agent = nullptr;
    });
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

void Programs::systemBusLost()
{
    if (m_bluetoothd) {
        m_bluez.stop(false);
        m_bluetoothd->exit(1);
        m_bluetoothd = nullptr;
    }
    if (m_agent) {
        m_bluez.stopAgent(false);
        m_agent->exit(1);
        m_agent = nullptr;
    }
}

void Programs::started(Stub *stub)
{
    const Faults::Behaviour fault = m_faults.next(stub->name(), stub->arguments().join(' '));
    if (fault.name == "exit") {
        stub->exit(fault.number());
    } else if (fault.name == "crash") {
        stub->endBy(SIGSEGV);
    } else if (fault.name == "delay") {
        QTimer::singleShot(fault.number(), stub, [this, stub] { carryOut(stub); });
    } else if (fault.name != "hang") {
        if (fault.name == "ignore-term")
            m_ignoringTerm.insert(stub);
        carryOut(stub);
    }
}

void Programs::carryOut(Stub *stub)
{
    const QString name = stub->name();
    if (name == "bluetoothd") {
        startBluetoothd(stub);
    } else if (name == "agent") {
        startAgent(stub);
    } else if (name == "pulseaudio") {
        startPulseaudio(stub);
    } else if (name == "pactl") {
        runPactl(stub);
    } else if (name == "sdptool") {
        runSdptool(stub);
    } else {
        if (name == "hciconfig")
            m_bluez.hciconfig(stub->arguments());
        stub->exit(0);
    }
}

void Programs::startBluetoothd(Stub *stub)
{
    if (m_bluetoothd || !Buses::connection("system", "probe").isConnected()) {
        stub->exit(1);
        return;
    }
    m_bluetoothd = stub;
    m_bluez.start(stub->pid(), stub->hostName());
}

void Programs::startAgent(Stub *stub)
{
    if (m_agent || !Buses::connection("system", "probe").isConnected()) {
        stub->exit(1);
        return;
    }
    m_agent = stub;
    m_bluez.startAgent(stub->pid(), stub->arguments());
}

void Programs::startPulseaudio(Stub *stub)
{
    m_pulse = stub;
    if (m_realPulse) {
        stub->become(RealPrograms + stub->name(), qEnvironmentVariable("PRODUCT_ONE_GROUP"));
        return;
    }
    QDir().mkpath(PulseFolder);
    QFile pidFile(PulseFolder + QString("/pid"));
    if (pidFile.open(QIODevice::WriteOnly))
        pidFile.write(QByteArray::number(stub->pid()) + '\n');
}

void Programs::runSdptool(Stub *stub)
{
    const QStringList arguments = stub->arguments();
    if (arguments.value(0) == "browse")
        stub->print(Browsed);
    const bool fails = arguments.value(0) == "del" && !arguments.value(1).startsWith("0x");
    stub->exit(fails ? 255 : 0);
}

void Programs::runPactl(Stub *stub)
{
    const QStringList arguments = stub->arguments();
    const QString command = arguments.value(0);
    if (m_realPulse) {
        stub->run(RealPrograms + stub->name());
    } else if (!m_pulse) {
        stub->exit(1);
    } else if (command == "load-module") {
        const int status = loadModule(arguments.mid(1));
        if (status == 0)
            stub->print(QString::number(m_nextModule++) + '\n');
        stub->exit(status);
    } else {
        stub->exit(command.startsWith("set-source-output-") && m_loopback.isEmpty() ? 1 : 0);
    }
}

/// The scripted server's status.
int Programs::loadModule(const QStringList &arguments)
{
    if (arguments.value(0) == "module-bluetooth-discover")
        m_discovery = true;
    if (arguments.value(0) != "module-loopback")
        return 0;
    for (const QString &source : qAsConst(m_sources)) {
        if (m_discovery && arguments.contains("source=" + source)) {
            m_loopback = source;
            emit streamTaken(true);
            return 0;
        }
    }
    return 1;
}

void Programs::streamChanged(const QString &phone, const QString &devicePath)
{
    if (!devicePath.isEmpty())
        m_sources.insert(phone, "bluez_source." + devicePath.section("/dev_", -1));
    else if (m_sources.take(phone) == m_loopback)
        leaveStream();
}

void Programs::leaveStream()
{
    if (m_loopback.isEmpty())
        return;
    m_loopback.clear();
    emit streamTaken(false);
}

void Programs::terminationRequested(Stub *stub)
{
    if (m_ignoringTerm.contains(stub))
        return;
    if (stub != m_bluetoothd && stub != m_agent && stub != m_pulse) {
        stub->endBy(SIGTERM);
        return;
    }
    if (stub == m_bluetoothd) {
        m_bluetoothd = nullptr;
        m_bluez.stop(true);
    } else if (stub == m_agent) {
        m_agent = nullptr;
        m_bluez.stopAgent(true);
    } else {
        QFile::remove(PulseFolder + QString("/pid"));
    }
    QTimer::singleShot(EndMs, stub, [stub] { stub->exit(0); });
}

void Programs::programEnded(Stub *stub, int status)
{
    if (status == 0 && stub->arguments().value(1) == "module-bluetooth-discover")
        m_sound.discovered();
    stub->exit(status);
}

void Programs::ended(Stub *stub)
{
    m_ignoringTerm.remove(stub);
    if (stub == m_bluetoothd) {
        m_bluetoothd = nullptr;
        m_bluez.stop(false);
    } else if (stub == m_agent) {
        m_agent = nullptr;
        m_bluez.stopAgent(false);
    } else if (stub == m_pulse) {
        m_pulse = nullptr;
        m_discovery = false;
        leaveStream();
        m_sound.pulseStopped();
    }
}
