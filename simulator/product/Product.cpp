#include "Product.h"

#include "Platform.h"

#include <QCoreApplication>
#include <QTimer>

#include <csignal>
#include <ctime>

namespace {
const int ServiceEndTimeoutMs = 20000;
}

Product::Product(const Options &options)
    : journal(options.out + "/journal.jsonl")
    , buses(options.out)
    , bluez(journal, clock, faults, Buses::address("system"))
    , sound(journal)
    , service(journal, options.build + "/service/bluetoothmanager", options.environment,
              options.under)
    , stubs(journal, [this] { service.drain(); })
    , programs(stubs, faults, bluez, sound, options.realPulse)
    , soundManager(faults)
    , m_sessionMonitor("session", journal, [](const QString &path) { return path; })
    , m_systemMonitor("system", journal,
                      [this](const QString &path) { return bluez.shortName(path); })
{
    // A program that the service has waited for has ended before what the service says next.
    connect(&service, &Service::hasPrinted, this, [this] {
        stubs.catchUp();
        service.drain();
    });
    connect(&bluez, &BlueZ::phonePlays, &sound, &Sound::streamChanged);
    connect(&bluez, &BlueZ::phonePlays, &programs, &Programs::streamChanged);
    connect(&sound, &Sound::taken, &bluez, &BlueZ::takeStream);
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
    return stubs.listen("/run/product/stubs");
}

QString Product::startBus(const QString &bus)
{
    QString error = buses.start(bus);
    if (error.isEmpty())
        error = monitorOf(bus).start(Buses::address(bus));
    if (error.isEmpty() && bus == "session")
        error = soundManager.start();
    if (error.isEmpty() && bus == "session")
        error = Platform::start();
    return error;
}

QString Product::killBus(const QString &bus)
{
    const QString error = buses.kill(bus);
    if (error.isEmpty() && bus == "system")
        programs.systemBusLost();
    return error;
}

void Product::applyFaults()
{
    programs.updatePresence();
    soundManager.updatePresence();
}

void Product::quit(int status)
{
    if (!service.kill(SIGTERM).isEmpty()) {
        finish(status);
        return;
    }
    connect(&service, &Service::ended, this, [this, status] { finish(status); });
    QTimer::singleShot(ServiceEndTimeoutMs, this, [this, status] { finish(status); });
}

BusMonitor &Product::monitorOf(const QString &bus)
{
    return bus == "session" ? m_sessionMonitor : m_systemMonitor;
}

void Product::finish(int status)
{
    stubs.catchUp();
    m_sessionMonitor.settle();
    m_systemMonitor.settle();
    QCoreApplication::exit(status);
}
