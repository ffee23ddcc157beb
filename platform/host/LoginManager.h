// Sleep and shutdown of the whole machine, as systemd's login manager tells them on the machine's
// system bus. Where there is no login manager, nothing happens.
#ifndef LOGINMANAGER_H
#define LOGINMANAGER_H

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusUnixFileDescriptor>
#include <QtDBus/QDBusVariant>

class NameOwner;
class QDBusError;
class QDBusMessage;
class UlmoFeatureBase;

class LoginManager : public QObject
{
    Q_OBJECT

public:
    /** A child of the feature whose callbacks it calls. Its log lines carry the object path. */
    LoginManager(UlmoFeatureBase *feature, const QString &objectPath);

private Q_SLOTS:
    void ownerChanged();
    void signalReceived(const QDBusMessage &message);
    void inhibitorGranted(const QDBusUnixFileDescriptor &inhibitor);
    void inhibitorRefused(const QDBusError &error);
    void scheduleFound(const QDBusVariant &schedule = QDBusVariant());

private:
    enum Shutdown { NoShutdown, ShutdownOfUnknownKind, ShutdownAnnounced };

    void prepareForSleep();
    void prepareForShutdown();
    void prepareForShutdown(const QString &kind);
    void takeInhibitor();

    UlmoFeatureBase *const m_feature;
    const QString m_objectPath;
    QDBusConnection m_bus;
    NameOwner *m_loginManager = nullptr;
    /** While it is open the login manager delays sleep and shutdown, for some seconds at most. */
    QDBusUnixFileDescriptor m_inhibitor;
    bool m_inhibitorAsked = false;
    bool m_sleeping = false;
    Shutdown m_shutdown = NoShutdown;
};

#endif
