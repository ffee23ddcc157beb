#ifndef FAULTS_H
#define FAULTS_H

#include <QJsonObject>
#include <QList>
#include <QStringList>

/**
 * What the programs of the board are told to do wrong.
 *
 * A fault names a program and maybe a text that its arguments (joined by blanks) must contain, a
 * behaviour, and how many matching starts it skips and how many it then meets.
 */
class Faults
{
public:
    struct Fault
    {
        QString program;
        QString argument; ///< empty: any arguments
        /// As sent to the program: "behaviour", and "status" or "milliseconds".
        QJsonObject behaviour;
        int after = 0; ///< matching starts that still go well
        int times = -1; ///< matching starts that then go wrong; negative: all

        bool isMissing() const { return behaviour.value("behaviour") == "missing"; }
    };

    /**
     * Reads "PROGRAM[:ARGUMENT] BEHAVIOUR [times=N] [after=N]" from \p words; the argument may
     * have blanks. False, with \p error set, when that is not what they say.
     */
    static bool parse(const QStringList &words, Fault *fault, QString *error);
    /// "times=3" and the like: whether \p word is \p key with a number, and the number.
    static bool number(const QString &word, const QString &key, int *value);

    /// Puts \p fault in force; it takes the place of one with the same program and argument.
    void add(const Fault &fault);
    /// Takes the faults of \p program back, or with an empty name all of them.
    void clear(const QString &program);
    bool isMissing(const QString &program) const;
    /// How this start of a program goes: an empty object when nothing is wrong with it.
    QJsonObject behaviourOfStart(const QString &program, const QStringList &arguments);

private:
    QList<Fault> m_faults;
};

#endif
