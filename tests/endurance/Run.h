#ifndef RUN_H
#define RUN_H

#include <QDeadlineTimer>
#include <QObject>
#include <QRandomGenerator>
#include <QStringList>

/// How long a run is, and what decides its course: the same seed gives the same steps.
class Run
{
public:
    static const int Unlimited = -1;

    /// Takes --seed N, --steps N and --seconds N (of each test function) out of \p arguments.
    explicit Run(QStringList *arguments, int seconds);

    quint32 seed() const { return m_seed; }
    /// Whether the run lasts for minutes, so that what takes half a minute has a place in it.
    bool isLong() const { return m_steps == Unlimited; }
    /// Whether there is a step to do after \p done steps.
    bool goesOn(int done);

    /// From 0 to \p count - 1.
    int below(int count) { return m_random.bounded(count); }
    /// Once in \p count times.
    bool onceIn(int count) { return below(count) == 0; }
    QString oneOf(const QStringList &choices) { return choices.at(below(choices.size())); }

    /// Prints the step, so that a failure shows what led to it.
    void print(int number, const QString &step) const;

private:
    quint32 m_seed = 1;
    int m_steps = Unlimited;
    int m_seconds;
    QDeadlineTimer m_end;
    QRandomGenerator m_random;
};

/// Runs the test functions of \p test; prints the seed when they fail.
int runEndurance(QObject *test, const Run &run, const QStringList &arguments);

#define ENDURANCE_MAIN(Test, seconds)                                                              \
    int main(int argc, char **argv)                                                                \
    {                                                                                              \
        QCoreApplication application(argc, argv);                                                  \
        QStringList arguments = QCoreApplication::arguments();                                     \
        Run run(&arguments, seconds);                                                              \
        Test test(run);                                                                            \
        return runEndurance(&test, run, arguments);                                                \
    }

#endif
