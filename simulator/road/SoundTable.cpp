#include "SoundTable.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QProcess>
#include <QThread>

#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace {

const QString Recording = "/run/product/out/board.raw";
/// Anything below is not music.
const double AudibleLevel = -60;
const double FrequencyTolerance = 1;
const double LevelTolerance = 0.3;
const int PatienceSeconds = 10;

QJsonObject boardMeasure(const QStringList &arguments)
{
    QProcess process;
    process.start("/run/product/build/simulator/board-measure",
                  QStringList {Recording, "--json"} + arguments);
    if (!process.waitForFinished(2 * PatienceSeconds * 1000))
        throw std::runtime_error("board-measure does not end");
    return QJsonDocument::fromJson(process.readAllStandardOutput()).object();
}

ChannelSound channel(const QJsonObject &measured, const char *name)
{
    const QJsonObject object = measured.value(name).toObject();
    ChannelSound sound;
    if (object.value("level").isDouble())
        sound.level = object.value("level").toDouble();
    if (object.value("frequency").isDouble())
        sound.frequency = object.value("frequency").toDouble();
    return sound;
}

bool fits(const ChannelSound &heard, const ChannelSound &expected)
{
    if (!heard.level)
        return false;
    if (!expected.level)
        return *heard.level > AudibleLevel;
    return std::abs(*heard.level - *expected.level) <= LevelTolerance && heard.frequency
        && std::abs(*heard.frequency - *expected.frequency) <= FrequencyTolerance;
}

QString text(const ChannelSound &sound)
{
    if (!sound.level)
        return "silence";
    const QString frequency =
        sound.frequency ? QString("%1 Hz").arg(*sound.frequency, 5, 'f', 0) : QString("      -");
    return frequency + QString(" %1 dB").arg(*sound.level, 7, 'f', 2);
}

QString text(const ExpectedSound &expected, const ChannelSound &sound)
{
    if (expected.silent)
        return "silence";
    return sound.level ? text(sound) : QString("sound");
}

} // namespace

bool SoundTable::measure(const QString &situation, const ExpectedSound &expected)
{
    QJsonObject measured;
    if (expected.silent)
        measured = boardMeasure({"--wait-silence", "--timeout", QString::number(PatienceSeconds)});
    else if (expected.left.level)
        measured = boardMeasure({"--wait-level", QString::number(*expected.left.level),
                                 "--tolerance", QString::number(LevelTolerance), "--timeout",
                                 QString::number(PatienceSeconds)});
    else
        measured = boardMeasure({"--from", "-0.5"});
    // Music has no level to wait for: look again until there is any.
    const QDeadlineTimer deadline(PatienceSeconds * 1000);
    while (!expected.silent && !expected.left.level && !fits(channel(measured, "left"), {})
           && !deadline.hasExpired()) {
        QThread::msleep(100);
        measured = boardMeasure({"--from", "-0.5"});
    }

    Row row {situation, expected, channel(measured, "left"), channel(measured, "right"), false};
    row.asExpected = expected.silent
        ? !measured.isEmpty() && !row.left.level && !row.right.level
        : fits(row.left, expected.left) && fits(row.right, expected.right);
    m_rows.push_back(row);
    return row.asExpected;
}

bool SoundTable::allAsExpected() const
{
    for (const Row &row : m_rows) {
        if (!row.asExpected)
            return false;
    }
    return !m_rows.empty();
}

void SoundTable::print(const QString &wavFile) const
{
    printf("\n%-24s %-21s %-21s %s\n", "Heard at the board", "left", "right", "expected");
    for (const Row &row : m_rows) {
        const QString left = text(row.expected, row.expected.left);
        const QString right = text(row.expected, row.expected.right);
        printf("%-24s %-21s %-21s %s%s\n", qPrintable(row.situation), qPrintable(text(row.left)),
               qPrintable(text(row.right)),
               qPrintable(left == right ? left : left.simplified() + ", " + right.simplified()),
               row.asExpected ? "" : "   <-- not so");
    }
    if (boardMeasure({"--wav", wavFile}).isEmpty())
        throw std::runtime_error("nothing was recorded");
}
