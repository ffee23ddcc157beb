// The ground that every other scenario stands on: the namespaces, the programs of the board and
// their faults, the control lines and the order of the journal.

#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <csignal>
#include <unistd.h>

namespace {

const int GenerousMs = 60000;

struct Outcome
{
    int status = -1; ///< as a shell sees it: 128 + signal
    QString output;
    QString error;
};

Outcome run(const QString &program, const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    Outcome outcome;
    if (process.waitForFinished(GenerousMs))
        outcome.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode()
                                                                      : 128 + process.exitCode();
    outcome.output = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    outcome.error = QString::fromUtf8(process.readAllStandardError()).trimmed();
    return outcome;
}

/// Arguments of the launcher for a product without the service.
QStringList bareProduct(const QString &folder, const QStringList &command)
{
    return QStringList {"--no-service", "--pulse", "scripted", "--out", folder, "--"} + command;
}

/// What \p script (for bash) says when it runs inside a product.
Outcome runInside(const QString &script, const QByteArray &input = {})
{
    const QTemporaryDir folder;
    return run(VirtualProduct::launcher(), bareProduct(folder.path(), {"bash", "-c", script}),
               input);
}

/// The processes below \p ancestor, as seen from outside.
QList<int> descendants(qint64 ancestor)
{
    QList<int> found;
    const QString children =
        run("cat", {QString("/proc/%1/task/%1/children").arg(ancestor)}).output;
    for (const QString &child : children.split(' ', Qt::SkipEmptyParts))
        found += QList<int> {child.toInt()} + descendants(child.toInt());
    return found;
}

bool isAnyAlive(const QList<int> &processes)
{
    for (int process : processes) {
        if (kill(process, 0) == 0)
            return true;
    }
    return false;
}

VirtualProduct::Options withoutService()
{
    VirtualProduct::Options options;
    options.startService = false;
    return options;
}

} // namespace

class tst_launcher : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void outsideIsUnseen();
    void outsideIsUntouched();
    void refusesWithoutNamespaces();
    void ordinaryUser();
    void overlaysThatCannotStack();
    void foldersAnywhere_data();
    void foldersAnywhere();
    void sandboxEnds_data();
    void sandboxEnds();
    void command();
    void faults_data();
    void faults();
    void scriptedSoundServer();
    void refusedLines();
    void rejectsBadFirstLines();
    void journalOrder();
    void messagesAreComplete();
    void typedArguments();
    void loginManager();
    // The service
    void under();
};

void tst_launcher::outsideIsUnseen()
{
    const Outcome seen = runInside("ps");
    QVERIFY(seen.output.contains("\n"));
    QVERIFY2(!seen.output.contains("tst_launcher"), qPrintable(seen.output));
    // The service ends processes by what their command lines contain; the first process must stay.
    QVERIFY(!seen.output.contains(QRegularExpression("bluetoothd|/usr/bin/(agent|pulseaudio)")));
}

void tst_launcher::outsideIsUntouched()
{
    const QString name = QString("/from-inside-%1").arg(getpid());
    const QStringList own {"/run", "/var/run/pulse", "/tmp", "/var/lib", "/dev/shm"};
    const QStringList shared {"/usr/bin", "/usr/sbin", "/etc"};
    const QString script = "for folder in %1; do touch $folder%2 && echo $folder; done";
    const Outcome touched = runInside(script.arg((own + shared).join(' '), name));
    QCOMPARE(touched.output.split('\n'), own);
    for (const QString &folder : own + shared)
        QVERIFY2(!QFileInfo::exists(folder + name), qPrintable(folder));
}

void tst_launcher::refusesWithoutNamespaces()
{
    // Root of a user namespace that may not have any below it, without the right to do without.
    const QString powerless = "echo 0 > /proc/sys/user/max_user_namespaces && "
                              "exec setpriv --bounding-set -sys_admin --inh-caps -sys_admin \"$@\"";
    const QStringList prefix {"--user", "--map-root-user", "sh", "-c", powerless, "sh"};
    if (run("unshare", prefix + QStringList {"true"}).status != 0)
        QSKIP("no user namespace to take the rights away in");

    const QTemporaryDir folder;
    const QStringList launcher = prefix + QStringList {VirtualProduct::launcher()};
    for (const QStringList &arguments :
         {QStringList {"--check"}, bareProduct(folder.path(), {"echo", "inside"})}) {
        const Outcome refused = run("unshare", launcher + arguments);
        QCOMPARE(refused.status, 77);
        QCOMPARE(refused.output, QString());
        QVERIFY2(refused.error.startsWith("virtual-product: cannot make namespaces of its own: "),
                 qPrintable(refused.error));
        QVERIFY(!refused.error.contains('\n'));
        QVERIFY(refused.error.contains("--cap-add SYS_ADMIN"));
    }
}

void tst_launcher::ordinaryUser()
{
    if (geteuid() != 0)
        QSKIP("all of these tests run as an ordinary user");
    const QStringList nobody {"--reuid", "65534", "--regid", "65534", "--clear-groups"};
    if (run("setpriv", nobody + QStringList {"test", "-x", VirtualProduct::launcher()}).status != 0)
        QSKIP("the build folder is not open to others");

    const QTemporaryDir folder;
    QCOMPARE(chown(qPrintable(folder.path()), 65534, 65534), 0);
    // The sound server's user and group have to exist among the one user that there is.
    const Outcome inside =
        run("setpriv",
            nobody + QStringList {VirtualProduct::launcher()}
                + bareProduct(folder.path(),
                              {"bash", "-c",
                               "id -u; id -u pulse; id -g pulse; hciconfig hci0 up && pactl x; "
                               "echo $?; touch /run/mine /tmp/mine && echo written"}));
    QCOMPARE(inside.output.split('\n'), QStringList({"0", "0", "0", "1", "written"}));
}

void tst_launcher::overlaysThatCannotStack()
{
    // They stack two deep, so the third has to do without.
    const QTemporaryDir folder;
    const QStringList innermost = bareProduct(
        "/tmp/innermost", {"bash", "-c", "hciconfig hci0 up && type -p sort hciconfig"});
    const QStringList inner =
        bareProduct("/tmp/inner", QStringList {VirtualProduct::launcher()} + innermost);
    const Outcome inside =
        run(VirtualProduct::launcher(),
            bareProduct(folder.path(), QStringList {VirtualProduct::launcher()} + inner));
    QCOMPARE(inside.output, QString("/usr/bin/sort\n/usr/bin/hciconfig"));
}

void tst_launcher::foldersAnywhere_data()
{
    QTest::addColumn<QString>("place");
    QTest::newRow("blanks") << QDir::tempPath() + "/folder with 'blanks'-XXXXXX";
    QTest::newRow("home") << QDir::homePath() + "/product-XXXXXX";
    QTest::newRow("/run") << "/run/product-XXXXXX";
    QTest::newRow("/mnt") << "/mnt/product-XXXXXX";
    QTest::newRow("deep") << QDir::tempPath() + '/' + QString(100, 'x') + "-XXXXXX";
}

void tst_launcher::foldersAnywhere()
{
    QFETCH(QString, place);
    const QTemporaryDir folder(place);
    if (!folder.isValid())
        QSKIP("cannot write there");

    // A build of its own, with as much of it as a product without the service needs.
    const QFileInfo launcher(VirtualProduct::launcher());
    const QString simulator = folder.path() + "/build/simulator";
    QDir().mkpath(simulator);
    for (const char *program : {"virtual-product", "set-up-board", "enter-namespaces",
                                "product-simulator", "product-tool"})
        QVERIFY(QFile::copy(launcher.path() + '/' + program, simulator + '/' + program));
    const QString out = folder.path() + "/out";
    QDir().mkpath(out + "/sub");

    QProcess process;
    process.setWorkingDirectory(out + "/sub");
    process.start(simulator + "/virtual-product",
                  bareProduct(out, {"bash", "-c", "hciconfig hci0 up && pwd && touch ../mark"}));
    QVERIFY(process.waitForFinished(GenerousMs));
    QCOMPARE(process.readAllStandardError(), QByteArray());
    QCOMPARE(process.readAllStandardOutput().trimmed(),
             QDir(out).canonicalPath().toUtf8() + "/sub");
    QVERIFY(QFileInfo::exists(out + "/mark"));
    QVERIFY(QFileInfo::exists(out + "/journal.jsonl"));
}

void tst_launcher::sandboxEnds_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<int>("status");
    QTest::newRow("killed") << "KILL" << 128 + SIGKILL;
    QTest::newRow("terminated") << "TERM" << 128 + SIGTERM;
    QTest::newRow("told to quit") << "quit" << 0;
}

void tst_launcher::sandboxEnds()
{
    QFETCH(QString, how);
    QFETCH(int, status);
    const QTemporaryDir folder;
    QProcess launcher;
    launcher.start(VirtualProduct::launcher(), {"--pulse", "scripted", "--out", folder.path()});
    while (!launcher.canReadLine())
        QVERIFY(launcher.waitForReadyRead(GenerousMs));
    const QList<int> inside = descendants(launcher.processId());
    QVERIFY(inside.size() >= 5); // first process, hub, two buses, service

    if (how == "quit") {
        QCOMPARE(run(VirtualProduct::control(), {"--out", folder.path(), "quit"}).status, 0);
    } else {
        kill(pid_t(launcher.processId()), how == "KILL" ? SIGKILL : SIGTERM);
    }
    QVERIFY(launcher.waitForFinished(GenerousMs));
    QCOMPARE(launcher.exitStatus() == QProcess::CrashExit ? 128 + launcher.exitCode()
                                                          : launcher.exitCode(),
             status);
    QTRY_VERIFY_WITH_TIMEOUT(!isAnyAlive(inside), GenerousMs);
}

void tst_launcher::command()
{
    const Outcome outcome = runInside("cat; exit 5", "from \"outside\"\n");
    QCOMPARE(outcome.output, QString("from \"outside\""));
    QCOMPARE(outcome.status, 5);
    QCOMPARE(runInside("kill -TERM $$").status, 128 + SIGTERM);
}

void tst_launcher::faults_data()
{
    QTest::addColumn<QString>("lines"); // told one by one
    QTest::addColumn<QString>("script");
    QTest::addColumn<QString>("output");
    const QString upAndDown = "for i in up down; do hciconfig hci0 $i; echo -n \"$? \"; done";
    const QString thrice = "for i in 1 2 3; do hciconfig hci0 up; echo -n \"$? \"; done";
    const QString once = "hciconfig hci0 up 2>/dev/null; echo $?";

    QTest::newRow("blanks") << "fault hciconfig:hci0 up exit=3" << upAndDown << "3 0";
    QTest::newRow("after and times")
        << "fault hciconfig exit=1 times=1 after=1" << thrice << "0 1 0";
    QTest::newRow("the later counts")
        << "fault hciconfig exit=1\nfault hciconfig exit=2" << once << "2";
    QTest::newRow("cleared") << "fault hciconfig exit=1\nfault clear hciconfig" << once << "0";
    QTest::newRow("another cleared")
        << "fault hciconfig exit=1\nfault clear sdptool" << once << "1";
    QTest::newRow("crash") << "fault hciconfig crash"
                           << "{ " + once + "; } 2>/dev/null"
                           << "139";
    QTest::newRow("missing") << "fault hciconfig missing" << once << "127";
    QTest::newRow("hang") << "fault hciconfig hang"
                          << "hciconfig hci0 up & until product-control 'kill hciconfig TERM'; "
                             "do :; done 2>/dev/null; wait $!; echo $?"
                          << "143";
    QTest::newRow("delay") << "fault hciconfig delay=300"
                           << "t=${EPOCHREALTIME/./}; hciconfig hci0 up; "
                              "((${EPOCHREALTIME/./} - t >= 300000)) && echo late"
                           << "late";
}

void tst_launcher::faults()
{
    QFETCH(QString, lines);
    QFETCH(QString, script);
    QFETCH(QString, output);
    QString told;
    for (const QString &line : lines.split('\n', Qt::SkipEmptyParts))
        told += "product-control '" + line + "' || exit 99; ";
    const Outcome outcome = runInside(told + script);
    QCOMPARE(outcome.output, output);
}

void tst_launcher::scriptedSoundServer()
{
    const Outcome outcome = runInside(
        "say() { \"$@\" >/dev/null; echo -n \"$? \"; }; "
        "say pactl stat; pulseaudio --system & until pactl stat; do :; done; "
        "ls /var/run/pulse; say pactl load-module module-bluetooth-discover; "
        "say pactl load-module module-loopback source=bluez_source.00_AA_01_01_00_01 sink=output; "
        "say pactl set-source-output-volume 0 40%; "
        "kill $!; wait $!; echo -n \"$? \"; say pactl stat; ls /var/run/pulse");
    QCOMPARE(outcome.output, QString("1 pid\n0 1 1 0 1"));
}

void tst_launcher::refusedLines()
{
    VirtualProduct product(withoutService());
    const QStringList lines {"nonsense",
                             "fault hciconfig",
                             "fault hciconfig exit=-1",
                             "fault hciconfig exit=1 time=2",
                             "fault hciconfig:up missing",
                             "fault hciconfig missing times=1",
                             "fault nobody exit=1",
                             "fault clear nobody",
                             "fault bluetoothd no-nonsense",
                             "fault soundmanager nonsense",
                             "fault bluez:Disconnect error",
                             "fault bluez:Device.Disconnect nonsense",
                             "service stop",
                             "service kill NONSENSE",
                             "call SetVolume 40",
                             "call SetVolume i:forty",
                             "phone anna connect",
                             "timescale 0",
                             "backend nonsense",
                             "platform nonsense",
                             "pin \"7351"};
    for (const QString &line : lines)
        QVERIFY2(!product.tellRefused(line).isEmpty(), qPrintable(line));
    QCOMPARE(product.entries({{"lane", "control"}, {"kind", "error"}}).size(), lines.size());
}

void tst_launcher::rejectsBadFirstLines()
{
    const QTemporaryDir folder;
    const Outcome outcome = run(VirtualProduct::launcher(),
                                {"--no-service", "--pulse", "scripted", "--out", folder.path(),
                                 "--tell", "fault nobody exit=1", "--", "echo", "inside"});
    QCOMPARE(outcome.status, 1);
    QCOMPARE(outcome.output, QString());
    QCOMPARE(outcome.error,
             QString("virtual-product: fault nobody exit=1: there is no program \"nobody\""));
}

/// A message stands before what the service says of it, and a program before what came of it.
void tst_launcher::journalOrder()
{
    using Product = VirtualProduct;
    Product product;
    product.expect({{"kind", "start"}, {"program", "service"}});
    product.expect(Product::message("signal", "NameOwnerChanged"));
    product.expectLog(4, "bluez service registered org.bluez");
    product.expectCommand("hciconfig hci0 sspmode 0");
    product.expectLog(4, "set legacy mode (hciconfig hci0 sspmode 0) 0");
    product.expectLog(4, "agent started and wait registration");
    product.expect(Product::message("signal", "BluetoothOn"));
    QCOMPARE(product.tell("status"),
             QString("Bluetooth is on and enabled; the PIN is 7351 "
                     "(Status 0, Enable true, On true, pid \"7351\")"));
    const QJsonObject call = product.expect(Product::message("call", "GetStatus"));
    product.expectLog(4, "[DBUS|Internal] GetStatus() requested");
    const QJsonObject reply = product.expect(Product::message("reply", "GetStatus"));
    QCOMPARE(reply["replySerial"], call["serial"]);
    double before = 0;
    for (const QJsonObject &entry : product.entries({})) {
        QVERIFY(entry["time"].toDouble() >= before);
        before = entry["time"].toDouble();
    }
}

void tst_launcher::messagesAreComplete()
{
    VirtualProduct::Options options;
    options.settings = {{"BLUETOOTH/bt-enable", 0}};
    VirtualProduct product(options);
    product.expectLog(4, "Bluetooth Manager running");

    const int count = 2000;
    QDBusConnection client = QDBusConnection::connectToBus(product.sessionBusAddress(), "client");
    QVERIFY(client.isConnected());
    for (int i = 0; i < count; ++i) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            "com.orbitalis.ulmo.bluetoothmanager",
            "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj", QString(), "SetMute");
        call << i;
        client.asyncCall(call);
    }
    int answered = 0;
    product.expect("the last reply", [&answered](const QJsonObject &entry) {
        answered += VirtualProduct::fits(entry, VirtualProduct::message("reply", "SetMute"));
        return answered == count;
    });
    int next = 0;
    for (const QJsonObject &call : product.entries(VirtualProduct::message("call", "SetMute")))
        QCOMPARE(call["arguments"].toArray(), QJsonArray {next++});
    QCOMPARE(next, count);
}

void tst_launcher::typedArguments()
{
    VirtualProduct product(withoutService());
    product.tell("spoof /org/bluez/x org.bluez.Device.Spoofed \"s:a text\" i:-1 u:4000000000 "
                 "b:true o:/org/bluez as:one,two v:b:false v:as:");
    const QJsonObject entry = product.expect(VirtualProduct::message("signal", "Spoofed"));
    QCOMPARE(entry["signature"].toString(), QString("siuboasvv"));
    QCOMPARE(entry["bus"].toString(), QString("system"));
    QCOMPARE(entry["path"].toString(), QString("/org/bluez/x"));
    QCOMPARE(entry["interface"].toString(), QString("org.bluez.Device"));
    QCOMPARE(entry["arguments"].toArray(),
             QJsonArray({"a text", -1, 4000000000.0, true, "/org/bluez", QJsonArray {"one", "two"},
                         false, QJsonArray {}}));
}

void tst_launcher::loginManager()
{
    VirtualProduct::Options options;
    options.settings = {{"BLUETOOTH/bt-enable", 0}};
    options.tell = QStringList {"login start"};
    VirtualProduct product(options);
    product.expect(VirtualProduct::message("reply", "Inhibit"));
    product.tell("login suspend");
    product.expectLog(2, "[!] ULMO IS SUSPENDING");
    product.expect({{"kind", "machine"}, {"text", "an inhibitor is released"}});
    product.expect({{"kind", "machine"}, {"text", "the machine sleeps"}});
    product.tell("login resume");
    product.expect(VirtualProduct::message("reply", "Inhibit"));
    product.tell("login reboot");
    product.expectLog(2, "[!] ULMO IS REBOOTING: save status");
    product.expect({{"kind", "machine"}, {"text", "the machine goes down"}});
}

void tst_launcher::under()
{
    const QTemporaryDir folder;
    const QStringList options {"--pulse", "scripted", "--out", folder.path(), "--under"};
    // The command becomes the service: the process that the journal knows by its number.
    const QString script =
        "grep -q -m 1 'Manager running' < <(product-control --follow)\n"
        "service=$(grep '\"program\":\"service\"' /run/product/out/journal.jsonl |"
        " grep -o '\"pid\":[0-9]*' | cut -d : -f 2)\n"
        "tr '\\0' '\\n' < /proc/$service/environ | grep ^MARK\n"
        "readlink /proc/$service/exe";
    const Outcome marked =
        run(VirtualProduct::launcher(),
            options + QStringList {"env \"MARK=two words\"", "--", "bash", "-c", script});
    QCOMPARE(marked.output, QString("MARK=two words\n/run/product/build/service/bluetoothmanager"));

    const Outcome missing = run(VirtualProduct::launcher(), options + QStringList {"nonsense -q"});
    QCOMPARE(missing.status, 1);
    QVERIFY2(missing.error.startsWith("virtual-product: nonsense cannot be started: "),
             qPrintable(missing.error));
}

SCENARIO_MAIN(tst_launcher)

#include "tst_launcher.moc"
