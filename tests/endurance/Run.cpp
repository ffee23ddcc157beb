#include "Run.h"

#include "VirtualProduct.h"

#include <QTest>

#include <cstdio>

namespace {

/// The number behind the option \p name, which is taken out with it; without one \p standard.
int takeNumber(QStringList *arguments, const QString &name, int standard)
{
    const int position = arguments->indexOf(name);
    if (position < 0)
        return standard;
    bool ok = false;
    const int number = arguments->value(position + 1).toInt(&ok);
    if (!ok || number < 0)
        qFatal("%s wants a number", qPrintable(name));
    arguments->removeAt(position + 1);
    arguments->removeAt(position);
    return number;
}

} // namespace

Run::Run(QStringList *arguments, int seconds)
    : m_seed(quint32(takeNumber(arguments, "--seed", 1)))
    , m_steps(takeNumber(arguments, "--steps", Unlimited))
    , m_seconds(takeNumber(arguments, "--seconds", seconds))
    , m_end(QDeadlineTimer::Forever)
    , m_random(m_seed)
{
    // The driver's own limit is meant for tests of seconds. This one, in milliseconds, is a day.
    qputenv("QTEST_FUNCTION_TIMEOUT", "86400000");
}

bool Run::goesOn(int done)
{
    if (isLong() && done == 0)
        m_end.setRemainingTime(m_seconds * 1000LL);
    return !QTest::currentTestFailed() && !m_end.hasExpired()
        && (m_steps == Unlimited || done < m_steps);
}

void Run::print(int number, const QString &step) const
{
    printf("%4d  %s\n", number, qPrintable(step));
    fflush(stdout);
}

int runEndurance(QObject *test, const Run &run, const QStringList &arguments)
{
    QVector<QByteArray> bytes;
    for (const QString &argument : arguments)
        bytes.append(argument.toLocal8Bit());
    QVector<char *> words;
    for (QByteArray &argument : bytes)
        words.append(argument.data());
    const int status = runScenario(test, words.size(), words.data());
    if (status != 0)
        printf("Repeat this with --seed %u.\n", run.seed());
    return status;
}
