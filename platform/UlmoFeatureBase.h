// Base class of the product's feature services: hands them the power and supervisor events.
#ifndef ULMOFEATUREBASE_H
#define ULMOFEATUREBASE_H

#include <QtCore/QObject>
#include <QtCore/QString>

class PlatformEvents;

class UlmoFeatureBase : public QObject
{
    Q_OBJECT

public:
    /** The object path is the feature's own; its log lines carry it. */
    explicit UlmoFeatureBase(const QString &objectPath);
    ~UlmoFeatureBase();

    /** False when the events of the platform cannot reach this feature. */
    bool isInitialized() const;

    // Called on the event-loop thread, once for each event. The bases do nothing.

    /** The product is about to reboot. */
    virtual void ulmoPowerOnReboot(const QString &reason);
    /** The product is about to shut down. */
    virtual void ulmoPowerOnShutdown(const QString &reason);
    /** The product is about to suspend. */
    virtual void ulmoPowerOnSuspend(const QString &reason);
    /** The supervisor asks the feature to end. */
    virtual void ulmoSupOnShutdown();

private:
    PlatformEvents *const m_events;
};

#endif
