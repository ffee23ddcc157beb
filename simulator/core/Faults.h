#ifndef FAULTS_H
#define FAULTS_H

#include <QString>
#include <QStringList>
#include <QVector>

/// What goes wrong on demand: "fault TARGET BEHAVIOUR [times=N] [after=N]".
class Faults
{
public:
    /// How a target behaves for once: "exit" with value 3, "never", ...; empty when nothing is
    /// wrong.
    struct Behaviour
    {
        QString name;
        QString value; ///< what stands after "=", else empty

        explicit operator bool() const { return !name.isEmpty(); }
        int number() const { return value.toInt(); }
    };

    /// All that can go wrong, but for the methods of BlueZ: the programs of the board and so on.
    static QStringList targets();
    /// What \p target can do wrong, as people write it; empty when there is no such target.
    static QStringList behavioursOf(const QString &target);

    /**
     * Lays a fault: \p words are the target ("pactl:load-module", "bluez:Device.Disconnect",
     * "soundmanager", ...), the behaviour and the counts. Returns why not, or an empty text.
     */
    QString add(const QStringList &words);
    /// Takes the faults of \p target away, or all when it is empty. Returns why not, or empty.
    QString clear(const QString &target);
    /// The behaviour of \p target for this once; its counts move on. \p arguments may narrow it.
    Behaviour next(const QString &target, const QString &arguments = QString());
    /**
     * What holds until it is cleared, and next() never gives: "missing" of a program, "absent" of
     * the sound manager, "name-delay", "no-name", "adapter-delay" and "no-adapter" of bluetoothd.
     */
    Behaviour standing(const QString &target, const QString &name) const;

private:
    struct Fault
    {
        QString target;
        QString argument; ///< what the arguments of a program must contain
        Behaviour behaviour;
        bool stands = false;
        int after = 0; ///< matching times that still go well
        int times = -1; ///< matching times that then go wrong; negative: all
    };
    QVector<Fault> m_faults;
};

#endif
