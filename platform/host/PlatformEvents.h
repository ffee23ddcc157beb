// The product's power and supervisor events, as signals of its platform service on the session bus.
#ifndef PLATFORMEVENTS_H
#define PLATFORMEVENTS_H

#include <QtCore/QObject>
#include <QtCore/QString>

class NameOwner;
class QDBusMessage;
class UlmoFeatureBase;

class PlatformEvents : public QObject
{
    Q_OBJECT

public:
    /** A child of the feature whose callbacks it calls. Logs a failure under the object path. */
    PlatformEvents(UlmoFeatureBase *feature, const QString &objectPath);

    /** Whether the session bus took the subscriptions. */
    bool isInitialized() const { return m_initialized; }

private Q_SLOTS:
    void eventReceived(const QDBusMessage &message);

private:
    UlmoFeatureBase *const m_feature;
    NameOwner *m_platform;
    bool m_initialized;
};

#endif
