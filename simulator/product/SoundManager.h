#ifndef SOUNDMANAGER_H
#define SOUNDMANAGER_H

#include <QDBusContext>
#include <QObject>

class Faults;

/**
 * The product's sound manager as the service meets it. It grants every request, but for its faults:
 * it is absent, refuses, takes its time or never answers.
 */
class SoundManager : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orbitalis.ulmo.soundmanagerinterface")

public:
    explicit SoundManager(Faults &faults, QObject *parent = nullptr);

    /// Connects to the session bus. Returns why not, or an empty text.
    QString start();
    /// Takes its name on the bus, or gives it up, as the faults say.
    void updatePresence();

public slots:
    Q_SCRIPTABLE int PlayBluetooth();
    Q_SCRIPTABLE int StopPlay(const QString &source, const QString &target);

private:
    int answer();

    Faults &m_faults;
};

#endif
