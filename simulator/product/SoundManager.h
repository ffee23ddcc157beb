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
    explicit SoundManager(Faults &faults) : m_faults(faults) { }

    /// Is on the session bus under its name, or is not, as the faults say.
    void updatePresence();

public slots:
    Q_SCRIPTABLE int PlayBluetooth() { return answer(); }
    Q_SCRIPTABLE int StopPlay(const QString &, const QString &) { return answer(); }

private:
    int answer();

    Faults &m_faults;
};

#endif
