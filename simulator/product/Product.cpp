#include "Product.h"

#include <QCoreApplication>
#include <QTimer>

#include <csignal>
#include <ctime>

namespace {
const char ServiceProgram[] = "/run/product/build/service/bluetoothmanager";
const int ServiceEndTimeoutMs = 20000;
} // namespace

Product::Product(const QString &out, bool realPulse, const QStringList &environment,
                 const QString &under)
    : journal(out + "/journal.jsonl")
    , bluez(journal, clock, faults, Buses::address("system"))
    , service(journal, ServiceProgram, environment, under)
    , programs(journal, faults, bluez, m_sound, realPulse)
    , soundManager(faults)
    , m_buses(out)
    , m_sound(journal)
    , m_sessionMonitor("session", journal, [](const QString &path) { return path; })
    , m_systemMonitor("system", journal,
                      [this](const QString &path) { return bluez.shortName(path); })
{
    // What the service has said before comes first; and a program that it has waited for has ended
    // before what it says next.
    connect(&programs, &Programs::aboutToSpeak, &service, &Service::drain);
    connect(&service, &Service::hasPrinted, this, [this] {
        programs.catchUp();
        service.drain();
    });
    connect(&bluez, &BlueZ::phonePlays, &m_sound, &Sound::streamChanged);
    connect(&m_sound, &Sound::taken, &bluez, &BlueZ::takeStream);
    connect(&programs, &Programs::streamTaken, &bluez, &BlueZ::takeStream);
}

QString Product::start()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // The board's sound is told by that clock.
    journal.record("control", "clock", "- product started",
                   {{"monotonic", double(now.tv_sec) + double(now.tv_nsec) / 1e9}});
    if (!journal.error().isEmpty())
        return "cannot write the journal: " + journal.error();
    for (const char *bus : {"session", "system"}) {
        const QString error = startBus(bus);
        if (!error.isEmpty())
            return error;
    }
    return programs.listen();
}

QString Product::startBus(const QString &bus)
{
    QString error = m_buses.start(bus);
    BusMonitor &monitor = bus == "session" ? m_sessionMonitor : m_systemMonitor;
    if (error.isEmpty())
        error = monitor.start(Buses::address(bus));
    if (error.isEmpty() && bus == "session") {
        soundManager.updatePresence();
        // Of the platform's power events.
        Buses::connection(bus, "platform").registerService("com.orbitalis.ulmo.platform");
    }
    return error;
}

QString Product::killBus(const QString &bus)
{
    const QString error = m_buses.kill(bus);
    if (error.isEmpty() && bus == "system")
        programs.systemBusLost();
    return error;
}

void Product::quit()
{
    if (!service.kill(SIGTERM).isEmpty()) {
        finish();
        return;
    }
    connect(&service, &Service::ended, this, &Product::finish);
    QTimer::singleShot(ServiceEndTimeoutMs, this, &Product::finish);
}

void Product::finish()
{
    programs.catchUp();
    m_sessionMonitor.settle();
    m_systemMonitor.settle();
    QCoreApplication::quit();
}
