// Volume and mute: what a caller gets back, and what PulseAudio is told, before, while and after a
// phone is played.

#include "Road.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QTest>

class tst_volume : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void story_data();
    void story();
};

namespace {

/// The command and the log line of "= volume 40" or, with the status it ends with, "= mute 1 <-
/// 256".
QStringList stepsOf(const QString &setting)
{
    const QStringList words = setting.split(' ');
    const bool isVolume = words.at(1) == "volume";
    const int status = words.value(4).toInt();
    const QString command = QString("pactl set-source-output-%1 0 %2%3")
                                .arg(words.at(1), words.at(2), isVolume ? "%" : "");
    const QString log = QString("%1 set %2 /usr/bin/%3 <- %4")
                            .arg(status ? 2 : 4)
                            .arg(words.at(1), command)
                            .arg(status);
    return {"$ " + command, log};
}

void carryOut(Road &road, const QString &action)
{
    static const QRegularExpression form("^(Set\\w+) (-?\\d+) -> (\\d+)$");
    const QRegularExpressionMatch match = form.match(action);
    if (action == "stream") {
        road.stream();
    } else if (action == "leave") {
        const int from = road.mark();
        road.tell("phone anna leave");
        road.awaitAll(from, Road::gone());
    } else if (action == "link") {
        road.tell("fault pactl:loopback exit=1");
        road.tell("phone anna connect");
        road.await("4 wait pulseaudio bluetooth module ready... 1");
    } else if (match.hasMatch()) {
        QCOMPARE(road.call(match.captured(1), {"i:" + match.captured(2)}),
                 QJsonArray {match.captured(3).toInt()});
    } else {
        road.tell(action);
    }
}

} // namespace

void tst_volume::story_data()
{
    // What is done, each followed by what PulseAudio is told about it: a call with the value that
    // it returns, the phone that is played ("stream"), still waited for ("link") or leaves, a
    // fault.
    QTest::addColumn<QString>("story");

    // Before there is a server a value is only remembered, and only one out of bounds is sent.
    QTest::newRow("volume before")
        << "SetVolume 40 -> 0, stream, SetVolume 40 -> 0, SetVolume 41 -> 0, = volume 41";
    QTest::newRow("volume too big before")
        << "SetVolume 150 -> 0, stream, = volume 100, SetVolume 100 -> 0, SetVolume 150 -> 0";
    QTest::newRow("mute before")
        << "SetMute 1 -> 0, stream, SetMute 1 -> 0, SetMute 0 -> 0, = mute 0";

    QTest::newRow("volume out of bounds")
        << "stream, SetVolume 101 -> 0, SetVolume -5 -> 0, = volume 0, SetVolume -5 -> 0, "
           "SetVolume -2147483648 -> 0, SetVolume 2147483647 -> 0, = volume 100";
    QTest::newRow("mute without meaning")
        << "stream, SetMute 2 -> 0, = mute 2, SetMute -1 -> 0, = mute -1";

    // A server that does not play yet is a server.
    QTest::newRow("while the source is waited for")
        << "link, SetVolume 40 -> 256, = volume 40 <- 256, SetMute 1 -> 256, = mute 1 <- 256, "
           "SetVolume 150 -> 0";

    // What failed is told and not remembered.
    QTest::newRow("volume fails")
        << "stream, fault pactl:set-source exit=1 times=2, "
           "SetVolume 40 -> 256, = volume 40 <- 256, SetVolume 40 -> 256, = volume 40 <- 256, "
           "SetVolume 40 -> 0, = volume 40, SetVolume 40 -> 0";
    QTest::newRow("volume fails when the sound begins")
        << "fault pactl:set-source exit=1 times=1, SetVolume 150 -> 0, stream, "
           "= volume 100 <- 256, SetVolume 100 -> 0, = volume 100, SetVolume 100 -> 0";
    QTest::newRow("mute fails")
        << "stream, fault pactl:set-source exit=3 times=1, SetMute 1 -> 768, = mute 1 <- 768, "
           "SetMute 1 -> 0, = mute 1, SetMute 1 -> 0";

    // Values outlive the server; the next one begins with its own, whatever they are.
    QTest::newRow("after")
        << "stream, SetVolume 40 -> 0, = volume 40, SetMute 1 -> 0, = mute 1, leave, "
           "SetVolume 40 -> 0, SetMute 1 -> 0, stream, SetVolume 40 -> 0, SetMute 1 -> 0, "
           "SetMute 0 -> 0, = mute 0, SetVolume 100 -> 0, = volume 100";
}

void tst_volume::story()
{
    QFETCH(QString, story);
    Road road;
    road.meet("anna");
    int from = road.mark();
    QStringList expected;
    for (const QString &line : story.split(", ") + QStringList {"status"}) {
        if (line.startsWith('=')) {
            expected += stepsOf(line);
            continue;
        }
        QCOMPARE(road.deeds(from, {"$ pactl set-", "2 set ", "4 set "}), expected);
        expected.clear();
        from = road.mark();
        carryOut(road, line);
        if (QTest::currentTestFailed())
            return;
    }
}

SCENARIO_MAIN(tst_volume)

#include "tst_volume.moc"
