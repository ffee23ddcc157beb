#include "Road.h"
#include "Run.h"
#include "Steps.h"
#include "Watch.h"

#include <QElapsedTimer>
#include <QTest>
#include <QThread>

#include <cstdio>
#include <sched.h>
#include <sys/mount.h>

namespace {

/// The longest that the service may be busy with what its surroundings do to it here.
const qint64 BlockingMs = 35000;
const int StepsBetweenRecoveries = 40;

/**
 * The settings file, on a disk of its own that is very small. Inside and outside of the product it
 * is seen at the same place.
 */
class Settings
{
public:
    static constexpr const char *File = "/mnt/settings.ini";

    /// Whether it is there; only root may have it, or who is in namespaces of his own.
    bool create()
    {
        if (unshare(CLONE_NEWNS) != 0
            || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
            || mount("settings", Disk, "tmpfs", 0, "size=32k") != 0)
            return false;
        write(Kept, "# by hand\n[OTHER]\nkept=yes\n");
        choose("whole");
        return true;
    }

    /// "whole", "full" and "read-only" (can be read, but takes no new content), or "broken" (cannot
    /// be read).
    void choose(const QString &state)
    {
        remount(0);
        QFile::remove(Ballast);
        // Replaces what is there at once, which QFile would not do.
        const char link[] = "/mnt/settings.link";
        QFile::link(state == "broken" ? "." : Kept, link);
        if (std::rename(link, File) != 0)
            qFatal("cannot replace the settings file");
        if (state == "full")
            fill();
        else if (state == "read-only")
            remount(MS_RDONLY);
    }

    /// What is wrong with the file, where \p saved was written to it last.
    QString check(const QMap<QString, QString> &saved) const
    {
        QFile file(Kept);
        file.open(QIODevice::ReadOnly);
        const QByteArray content = file.readAll();
        if (!content.startsWith("# by hand\n") || !content.contains("[OTHER]\nkept=yes\n"))
            return "the settings file has lost what others wrote: " + content;
        for (auto key = saved.begin(); key != saved.end(); ++key) {
            const QString line = key.key().section('/', 1) + '=' + key.value() + '\n';
            if (!content.contains('\n' + line.toUtf8()))
                return "the settings file does not hold " + line + content;
        }
        return QString();
    }

private:
    static constexpr const char *Disk = "/mnt";
    static constexpr const char *Kept = "/mnt/kept.ini";
    static constexpr const char *Ballast = "/mnt/ballast";

    void remount(unsigned long flags)
    {
        // The product's view of the disk follows: it is the disk that changes, not the mount.
        if (mount("settings", Disk, "tmpfs", MS_REMOUNT | flags, "size=32k") != 0)
            qFatal("cannot change the settings' disk");
    }

    void fill()
    {
        QFile ballast(Ballast);
        const QByteArray block(4096, 'x');
        if (!ballast.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
            qFatal("cannot fill the settings' disk");
        while (ballast.write(block) == block.size()) { }
    }

    void write(const QString &name, const QByteArray &content)
    {
        QFile file(name);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write the settings");
    }
};

VirtualProduct::Options stopped()
{
    VirtualProduct::Options options;
    options.startService = false;
    options.environment << QString("ULMO_SETTINGS=") + Settings::File;
    return options;
}

QString fourDigits(Run &run)
{
    return QString::number(run.below(10000)).rightJustified(4, '0');
}

} // namespace

/**
 * The product's surroundings go mad, and the service goes on. Each step is a line of control; which
 * ones come depends on the seed alone.
 */
class Chaos : public QObject
{
    Q_OBJECT

public:
    explicit Chaos(Run &run) : m_run(run) { }

private slots:
    void servesOn();

private:
    /// The next step; several lines where the first calls for the others.
    QStringList nextStep();
    QStringList phoneStep();
    QStringList callStep();
    QStringList programFault();
    QStringList bluezFault();
    QStringList serviceStep();
    void carryOut(const QString &line);
    void checkEnd(bool orderly);
    void check();
    void recover();
    void waitUntilOn();
    void waitUntilAlone();
    void waitForAgent();
    QString connectNext();
    void playNext();
    void letTimersRunOut();

    Run &m_run;
    Road *m_product = nullptr;
    Watch *m_watch = nullptr;
    Settings *m_settings = nullptr;
    int m_guests = 0;
};

QStringList Chaos::nextStep()
{
    const int choice = m_run.below(100);
    if (choice < 40)
        return phoneStep();
    if (choice < 56)
        return callStep();
    if (choice < 66)
        return programFault();
    if (choice < 74)
        return bluezFault();
    if (choice < 80)
        return {"kill " + m_run.oneOf({"bluetoothd", "agent", "pulseaudio", "pulseaudio"}) + ' '
                + m_run.oneOf({"KILL", "TERM", "SEGV"})};
    if (choice < 81)
        return {"kill pulseaudio STOP"};
    if (choice < 83)
        return {"fault soundmanager " + m_run.oneOf({"absent", "refuse", "delay=300", "never"})};
    if (choice < 89)
        return {"fault clear"};
    if (choice < 92)
        return {"platform " + m_run.oneOf({"suspend", "shutdown", "reboot", "shutdown restore"})};
    if (choice < 96)
        return {"settings " + m_run.oneOf({"whole", "full", "full", "read-only", "broken"})};
    return serviceStep();
}

QStringList Chaos::phoneStep()
{
    const QString name = m_run.oneOf({"anna", "anna", "berta", "carla"});
    if (m_run.onceIn(8))
        return {"phone add " + name + " address=00:1A:7D:DA:71:" + Road::Phones.value(name) + ' '
                + m_run.oneOf({"", "known", "trusted"})};
    const QString verb =
        m_run.oneOf({"connect", "connect",         "connect", "connect",      "play",    "play",
                     "pause",   "leave",           "leave",   "drop",         "pair",    "accept",
                     "accept",  "connect-acl",     "refuse",  "out-of-range", "reject",  "ignore",
                     "forget",  "answer-late 200", "close",   "in-range",     "in-range"});
    return {"phone " + name + ' ' + verb};
}

QStringList Chaos::callStep()
{
    const QString number = QString::number(m_run.below(300) - 100);
    const QStringList calls {"SetEnabled b:true",
                             "SetEnabled b:true",
                             "SetEnabled b:false",
                             "SetVolume i:" + number,
                             "SetVolume i:" + number,
                             "SetMute i:" + number,
                             "SetMute i:1",
                             "SetPid s:" + fourDigits(m_run),
                             "SetPid s:12a4",
                             "SetPid \"s:\"",
                             "DisconnectDevice",
                             "RemoveDevice s:00:1A:7D:DA:71:13",
                             "RemoveDevice \"s:no address\"",
                             "RemoveAllDevices",
                             "GetStatus",
                             "SetEnabled s:true",
                             "SetVolume",
                             "Explode i:" + number};
    return {"call " + m_run.oneOf(calls)};
}

QStringList Chaos::programFault()
{
    const QString times = " times=" + QString::number(1 + m_run.below(3));
    const QStringList lines {"fault agent exit=1" + times,
                             "fault agent crash" + times,
                             "fault agent ignore-term" + times,
                             "fault agent hang" + times,
                             "fault agent missing",
                             "fault bluetoothd exit=1" + times,
                             "fault bluetoothd crash" + times,
                             "fault bluetoothd ignore-term" + times,
                             "fault bluetoothd delay=300" + times,
                             "fault bluetoothd missing",
                             "fault pulseaudio exit=1" + times,
                             "fault pulseaudio crash" + times,
                             "fault pulseaudio ignore-term" + times,
                             "fault pulseaudio hang" + times,
                             "fault pulseaudio missing",
                             "fault hciconfig exit=1" + times,
                             "fault hciconfig delay=200" + times,
                             "fault sdptool missing",
                             "fault pactl:stat exit=1" + times,
                             "fault pactl:loopback exit=1" + times,
                             "fault pactl:loopback exit=1",
                             "fault pactl:set crash" + times,
                             "fault pactl missing",
                             "fault modprobe delay=200" + times};
    // Takes the 15 s for which the service waits for the daemon.
    if (m_run.isLong() && m_run.onceIn(10))
        return {"fault bluetoothd hang times=1", "kill bluetoothd"};
    // Takes the 30 s after which a command is killed; one such thing at a time.
    if (m_run.isLong() && m_run.onceIn(10))
        return {"fault clear", "fault pactl hang times=1"};
    return {m_run.oneOf(lines)};
}

QStringList Chaos::bluezFault()
{
    const QString method =
        m_run.oneOf({"Device.Disconnect", "AudioSource.Connect", "Adapter.RemoveDevice",
                     "Manager.DefaultAdapter", "Device.GetProperties", "Device.SetProperty",
                     "Adapter.ListDevices"});
    const QString times = " times=" + QString::number(1 + m_run.below(3));
    // Takes the 25 s for which the bus library waits for an answer; one such thing at a time.
    if (m_run.isLong() && m_run.onceIn(10))
        return {"fault clear", "fault bluez:" + method + " never times=1"};
    return {"fault bluez:" + method + ' ' + m_run.oneOf({"error", "delay=300"}) + times};
}

QStringList Chaos::serviceStep()
{
    // It does not start with settings that cannot be read, and is not meant to.
    if (m_run.onceIn(3)) {
        const QString bus = "bus " + m_run.oneOf({"session", "system"});
        return {"settings whole", bus + " kill", "service stop", bus + " start", "service start"};
    }
    return {"settings whole",
            m_run.oneOf({"service stop", "service kill KILL", "service kill INT",
                         "platform supervisor-end"}),
            "service start"};
}

void Chaos::carryOut(const QString &line)
{
    const bool endsService = line == "service stop" || line.startsWith("service kill ")
        || line == "platform supervisor-end";
    if (endsService)
        m_watch->expectEnd();
    const int from = m_product->mark();
    m_product->rewind(from);
    if (line.startsWith("settings "))
        m_settings->choose(line.section(' ', 1));
    else
        m_product->attempt(line);
    // That one is none of the troubles, but lets the first agent stay.
    if (line == "fault clear")
        m_product->tell("fault bluetoothd adapter-delay=0");
    if (endsService)
        checkEnd(line != "service kill KILL");
    else if (line == "service start")
        Steps::waitUntilRunning(*m_product);
}

/// The service ends, and if \p orderly then as it should and without leaving a child behind.
void Chaos::checkEnd(bool orderly)
{
    const QJsonObject end = m_product->expect({{"kind", "end"}, {"program", "service"}});
    if (!orderly)
        return;
    QCOMPARE(end.value("status").toInt(-1), 0);
    Steps::expectNothingLeft(*m_product);
}

/// Nothing is wrong, and the service answers.
void Chaos::check()
{
    QElapsedTimer clock;
    clock.start();
    const QJsonArray status = m_product->call("GetStatus");
    QVERIFY2(status.size() == 4, "GetStatus is not answered");
    QVERIFY2(clock.elapsed() < BlockingMs, "GetStatus is answered too late");
    const QString wrong = m_watch->follow();
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
    const QString wrongSettings = m_settings->check(m_watch->saved());
    QVERIFY2(wrongSettings.isEmpty(), qPrintable(wrongSettings));
}

/// After all troubles have ended, a phone that comes is played.
void Chaos::recover()
{
    m_settings->choose("whole");
    carryOut("fault clear");
    for (const QString &name : Road::Phones.keys())
        m_product->attempt("phone " + name + " out-of-range");
    waitUntilOn();
    waitUntilAlone();
    waitForAgent();
    // A phone whose link was lost is the awaited one until it comes back, or until this.
    m_product->tell("platform suspend");
    m_product->settle();
    playNext();
    for (const QString &name : Road::Phones.keys()) {
        m_product->attempt("phone " + name + " in-range");
        m_product->attempt("phone " + name + " accept");
    }
}

/// What is under way may take its time, but in the end the stack is on.
void Chaos::waitUntilOn()
{
    const int before = m_product->mark();
    const QString wrong = m_watch->follow();
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
    if (m_watch->isRestartPending()) {
        m_product->rewind(before);
        m_product->expectLog(4, "startStartupSequence requested");
    }
    const int attempts = 6;
    for (int i = 0; i < attempts && !QTest::currentTestFailed(); ++i) {
        const int from = m_product->mark();
        if (m_product->call("GetStatus").at(2).toBool())
            return;
        m_product->call("SetEnabled", {"b:true"});
        m_product->rewind(from);
        m_product->expect("Bluetooth on, or the end of what keeps it off",
                          [](const QJsonObject &entry) {
                              const QString message = entry.value("message").toString();
                              return message == "forceSyncDown"
                                  || (entry.value("member") == "BluetoothOn"
                                      && entry.value("arguments") == QJsonArray {true});
                          });
    }
    QVERIFY2(m_product->call("GetStatus").at(2).toBool(), "Bluetooth does not come on");
}

/// No phone is connected any more, and the service is not about to connect one.
void Chaos::waitUntilAlone()
{
    QElapsedTimer clock;
    clock.start();
    while (!QTest::currentTestFailed()) {
        const QString wrong = m_watch->follow();
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
        const QString phones = m_product->tell("phones");
        if (m_watch->isReconnectPending())
            m_product->expectLog(4, "reconnect");
        else if (!phones.contains(", linked") && !phones.contains("stream open")
                 && !phones.contains(", playing"))
            return;
        m_product->settle();
        QVERIFY2(clock.elapsed() < BlockingMs, qPrintable("phones are still there: " + phones));
    }
}

/// Only then phones can find the unit and get an answer.
void Chaos::waitForAgent()
{
    const int from = m_product->mark();
    const QString wrong = m_watch->follow();
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
    m_product->rewind(from);
    if (!m_watch->isAgentRegistered()) {
        // Nobody notices one that hangs since its start.
        m_product->attempt("kill agent");
        m_product->expect({{"kind", "reply"}, {"member", "RegisterAgent"}});
    }
    m_product->settle();
}

/// Has a phone come that has never been here, and returns its name.
QString Chaos::connectNext()
{
    const QString guest = QString("guest%1").arg(++m_guests);
    const QString address = QString("00:1A:7D:DA:72:%1").arg(m_guests, 2, 16, QChar('0'));
    m_product->tell("phone add " + guest + " trusted address=" + address);
    m_product->rewind(m_product->mark());
    if (m_product->attempt("phone " + guest + " connect").contains("error")) {
        // A command that failed has left the unit invisible, until it is switched on anew.
        m_product->call("SetEnabled", {"b:false"});
        waitUntilOn();
        waitForAgent();
        m_product->tell("phone " + guest + " connect");
    }
    m_product->expect({{"kind", "call"}, {"member", "PlayBluetooth"}});
    return guest;
}

void Chaos::playNext()
{
    const QString guest = connectNext();
    const int from = m_product->mark();
    m_product->attempt("phone " + guest + " play");
    m_product->awaitPhone(from, guest, "playing");

    const int beforeLeaving = m_product->mark();
    m_product->tell("phone " + guest + " leave");
    m_product->awaitPhone(beforeLeaving, guest, "link-down");
    m_product->rewind(beforeLeaving);
    m_product->expect({{"kind", "call"}, {"member", "StopPlay"}});
    m_product->rewind(beforeLeaving);
    m_product->expect({{"kind", "end"}, {"program", "pulseaudio"}});
}

/// Goes on for so long that whatever timer runs without a reason shows itself.
void Chaos::letTimersRunOut()
{
    connectNext();
    m_product->call("SetEnabled", {"b:false"});
    waitUntilOn();
    waitForAgent();
    m_product->tell("fault agent missing");
    m_product->rewind(m_product->mark());
    m_product->tell("kill agent");
    // At once, and each 10 s.
    for (int i = 0; i < 3; ++i)
        m_product->expectLog(2, "not possible to restart agent");
    carryOut("fault clear");
    m_product->expectLog(2, "restart agent ok");
}

void Chaos::servesOn()
{
    Settings settings;
    QVERIFY2(settings.create(), "a disk can be had by root, or below enter-namespaces");
    Road product(stopped());
    Watch watch(product);
    m_product = &product;
    m_watch = &watch;
    m_settings = &settings;
    product.tell("service start");
    Steps::waitUntilOn(product);
    for (const QString &name : Road::Phones.keys())
        product.meet(name, name == "carla" ? "known" : "trusted");

    int done = 0;
    for (; m_run.goesOn(done); ++done) {
        for (const QString &line : nextStep()) {
            m_run.print(done, line);
            carryOut(line);
        }
        check();
        // The rhythm of the run: some things meet what went before, others come after it.
        QThread::msleep(ulong(m_run.oneOf({"0", "50", "400"}).toInt()));
        if (done % StepsBetweenRecoveries == StepsBetweenRecoveries - 1) {
            recover();
            check();
        }
    }
    if (QTest::currentTestFailed())
        return;
    recover();
    if (m_run.isLong())
        letTimersRunOut();
    carryOut("service stop");
    const QString wrong = watch.follow();
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
}

ENDURANCE_MAIN(Chaos, 300)
#include "chaos.moc"
