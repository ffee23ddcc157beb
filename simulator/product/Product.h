#ifndef PRODUCT_H
#define PRODUCT_H

#include "Buses.h"
#include "Programs.h"
#include "Service.h"
#include "SoundManager.h"
#include "Stubs.h"
#include "bluez/BlueZ.h"
#include "core/BusMonitor.h"
#include "core/Clock.h"
#include "core/Faults.h"
#include "core/Journal.h"
#include "sound/Sound.h"

/// What a run of the product is given from outside.
struct Options
{
    QString build; ///< the build folder
    QString out; ///< where the journal, the buses and the control socket appear
    bool realPulse = true;
    QStringList environment; ///< of the service, each NAME=VALUE
    QString under; ///< the command that the service runs under
};

/// All the parts of the virtual product, put together.
class Product : public QObject
{
    Q_OBJECT

public:
    explicit Product(const Options &options);

    /// Starts everything but the service. Returns why not, or an empty text.
    QString start();
    /// Starts or ends a bus together with what the product has there.
    QString startBus(const QString &bus);
    QString killBus(const QString &bus);
    /// Brings everything to what the faults say.
    void applyFaults();
    /// Stops the service, if it runs, and then ends the application with \p status.
    void quit(int status);

    Journal journal;
    Clock clock;
    Faults faults;
    Buses buses;
    BlueZ bluez;
    Sound sound;
    Service service;
    Stubs stubs;
    Programs programs;
    SoundManager soundManager;

private:
    BusMonitor &monitorOf(const QString &bus);
    void finish(int status);

    BusMonitor m_sessionMonitor;
    BusMonitor m_systemMonitor;
};

#endif
