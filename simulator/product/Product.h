#ifndef PRODUCT_H
#define PRODUCT_H

#include "Buses.h"
#include "Programs.h"
#include "Service.h"
#include "SoundManager.h"
#include "bluez/BlueZ.h"
#include "core/BusMonitor.h"
#include "core/Clock.h"
#include "core/Faults.h"
#include "core/Journal.h"
#include "sound/Sound.h"

/// All the parts of the virtual product, put together.
class Product : public QObject
{
    Q_OBJECT

public:
    /**
     * The folder \p out is where the journal and the buses appear. With \p realPulse there is a
     * real PulseAudio. (See Service for \p environment and \p under.)
     */
    Product(const QString &out, bool realPulse, const QStringList &environment,
            const QString &under);

    /// Starts everything but the service. Returns why not, or an empty text.
    QString start();
    /// Starts or ends a bus together with what the product has there. Returns why not, or empty.
    QString startBus(const QString &bus);
    QString killBus(const QString &bus);
    /// Stops the service, if it runs, and then ends the application.
    void quit();

    Journal journal;
    Clock clock;
    Faults faults;
    BlueZ bluez;
    Service service;
    Programs programs;
    SoundManager soundManager;

private:
    void finish();

    Buses m_buses;
    Sound m_sound;
    BusMonitor m_sessionMonitor;
    BusMonitor m_systemMonitor;
};

#endif
