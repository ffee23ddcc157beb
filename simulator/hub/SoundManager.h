#ifndef SOUNDMANAGER_H
#define SOUNDMANAGER_H

#include <QDBusConnection>
#include <QDBusContext>
#include <QObject>

/**
 * The product's sound manager as the service meets it. It grants every request, until it is told
 * to be absent, to refuse, to take its time or never to answer.
 */
class SoundManager : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orbitalis.ulmo.soundmanagerinterface")

public:
    explicit SoundManager(QObject *parent = nullptr);

    /// Takes its name on the session bus at \p address.
    bool start();
    /**
     * \p fault: "absent", "refuse", "refuse=MILLISECONDS" (later), "delay=MILLISECONDS", "never";
     * empty: works. False: unknown.
     */
    bool setFault(const QString &fault);

public Q_SLOTS:
    Q_SCRIPTABLE int PlayBluetooth();
    Q_SCRIPTABLE int StopPlay(const QString &source, const QString &target);

private:
    int answer();

    QDBusConnection m_connection;
    QString m_fault;
    int m_delayMs = 0;
};

#endif
